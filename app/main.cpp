#include <unistd.h>

#include <iostream>

#include "app/Cli.h"
#include "app/Output.h"

int main(int argc, char** argv) {
  vorelapp::installInterruptCleanup();
  return vorelapp::vorelMain(argc, argv, std::cout, std::cerr, ::isatty(STDERR_FILENO) != 0);
}
