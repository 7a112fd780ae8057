#pragma once

#include <optional>

// What the agent does with its command line before anything else starts: --help and --version
// answer on standard output, an unknown option is refused, and a computer with no display to
// show on is told so plainly. Qt's own options (-platform, -display, ...) are left to Qt.
namespace CommandLine {

/// Answers --help or --version and returns the exit code; nothing when the agent should start.
std::optional<int> answer(int argc, char *argv[]);
/// Says on standard error that another copy runs (and whether it was brought forward); the exit code.
int alreadyRunning(bool shown);
/// Says on standard error that no display can be reached; the exit code to end with.
int noDisplay();

} // namespace CommandLine
