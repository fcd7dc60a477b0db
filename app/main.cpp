#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "app/Cli.h"
#include "app/Output.h"

namespace {

// The node prints its load banner on standard output while the program's statics are made,
// before main: a message for a host's console. vorel keeps standard output for results (`vorel
// knobs`) and tells its version with --version, so until main runs standard output goes nowhere.
// This runs before any ordinary static.
int g_standardOutput = -1;

__attribute__((constructor(101))) void quietLoadBanner() {
  std::fflush(stdout);
  g_standardOutput = ::dup(STDOUT_FILENO);
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (g_standardOutput >= 0 && nowhere >= 0)
    ::dup2(nowhere, STDOUT_FILENO);
  if (nowhere >= 0)
    ::close(nowhere);
}

void standardOutputBack() {
  std::fflush(stdout);
  if (g_standardOutput >= 0) {
    ::dup2(g_standardOutput, STDOUT_FILENO);
    ::close(g_standardOutput);
  }
}

}  // namespace

int main(int argc, char** argv) {
  standardOutputBack();
  vorelapp::installInterruptCleanup();
  return vorelapp::vorelMain(argc, argv, std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0);
}
