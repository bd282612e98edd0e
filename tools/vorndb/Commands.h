// The commands of the vorndb tool, their help texts and the shell and
// script runner.
//
// `Main` is the whole program: it dispatches the first argument to a command,
// prints a failure's message on standard error as "vorndb: MESSAGE" and
// returns the failure's exit code (Common.h). The same commands run one per
// line in `vorndb shell` (interactively or from standard input) and in
// `vorndb run SCRIPT`, which add the commands that only make sense within one
// database's lifetime: watch, unwatch, wait, reset, save, load, suppress,
// restart.
#pragma once

#include <string>
#include <vector>

namespace vorndb {

// Runs the tool with the process's arguments; returns the exit code.
int Main(int argc, char** argv);

// Splits a shell or script line into words: blanks separate words; '...'
// keeps its text as it is; "..." keeps its text with \" and \\ escapes; a
// backslash outside quotes takes the next character literally; quotes join
// with adjacent text (NAME="10 kHz" is one word). A '#' at the start of a word
// begins a comment. Throws ToolError(kExitUsage) for an unterminated quote.
std::vector<std::string> SplitWords(const std::string& line);

}  // namespace vorndb
