#pragma once
// The command line of vorel: parses, runs, and turns every failure into one line on `err` and an
// exit status (0 done, 1 the render failed, 2 the command line asked for something impossible).

#include <ostream>
#include <string>
#include <vector>

#include "app/Sequence.h"

namespace vorelapp {

// The options of `vorel render ARGS...` (without "vorel render"), parsed as the command line
// parses them, for callers that render in-process (the Python module, the farm's tasks).
// Throws UsageError with the message the command line would print.
ShotOptions parseRenderArguments(const std::vector<std::string>& args);

// "vorel 1.4.3 (tzVorel node 1.4.3)", what `vorel --version` prints.
std::string versionLine();

// `errIsTerminal` turns the progress bar on (unless --quiet).
int vorelMain(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
              bool errIsTerminal);

}  // namespace vorelapp
