#pragma once
// kacli's command line: options and subcommands, the default url, and the mapping of failures to
// one line on the error stream and an exit code.

#include <ostream>

namespace kacli {

// Runs the command named by argv and answers the process's exit code (see commands.hpp). With
// `handleSignals`, SIGINT and SIGTERM end a watch cleanly instead of killing the process.
int runCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
                   bool handleSignals);

}  // namespace kacli
