#pragma once

#include <optional>

// What the agent does with its command line before anything else starts: --help and --version
// answer on standard output, and a computer with no display to show on is told so plainly.
// Everything else on the command line is left to Qt (-platform, -display, ...).
namespace CommandLine {

/// Answers --help or --version and returns the exit code; nothing when the agent should start.
std::optional<int> answer(int argc, char *argv[]);
/// Says on standard error that no display can be reached; the exit code to end with.
int noDisplay();

} // namespace CommandLine
