#include <stdio_ext.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>

#include "app/Cli.h"
#include "app/ImageFiles.h"

namespace {

// With --json, standard output carries records only. The node's load banner was printed before
// main and, on a pipe, still waits in stdout's buffer: it moves to stderr, where the other
// messages are. (On a terminal it is already out, for a person to read.)
void moveBannerToStderr(int argc, char** argv) {
  bool json = false;
  for (int i = 1; i < argc; ++i)
    json = json || std::strcmp(argv[i], "--json") == 0;
  if (!json || __fpending(stdout) == 0)
    return;
  std::fwrite(stdout->_IO_write_base, 1, __fpending(stdout), stderr);
  __fpurge(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  moveBannerToStderr(argc, argv);
  vorelapp::installInterruptCleanup();
  return vorelapp::vorelMain(argc, argv, std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0);
}
