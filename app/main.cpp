#include <unistd.h>

#include <cstring>
#include <iostream>

#include "app/Cli.h"
#include "app/ImageFiles.h"

namespace {

int g_savedStdout = -1;

// With --json, standard output carries records only. The node prints its load banner (and
// flushes it) while the program loads, before main: for that time standard output goes to
// stderr, where vorel's other messages are. This runs before the program's other static
// constructors (priority 101), and glibc hands it the command line.
__attribute__((constructor(101))) void bannerToStderrUnderJson(int argc, char** argv, char**) {
  bool json = false;
  for (int i = 1; i < argc && argv; ++i)
    json = json || std::strcmp(argv[i], "--json") == 0;
  if (!json)
    return;
  g_savedStdout = ::dup(STDOUT_FILENO);
  if (g_savedStdout >= 0)
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

void restoreStdout() {
  if (g_savedStdout < 0)
    return;
  std::cout.flush();
  std::fflush(stdout);
  ::dup2(g_savedStdout, STDOUT_FILENO);
  ::close(g_savedStdout);
  g_savedStdout = -1;
}

}  // namespace

int main(int argc, char** argv) {
  restoreStdout();
  vorelapp::installInterruptCleanup();
  return vorelapp::vorelMain(argc, argv, std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0);
}
