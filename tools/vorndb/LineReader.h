// Reading command lines for `vorndb shell` and `vorndb run`.
//
// When standard input and standard output are both terminals (and TERM is
// not "dumb"), lines are edited in place with a small built-in editor: the
// terminal is put into raw mode only while a line is read, and restored before
// Read returns (also on end of input), so output between prompts, such as the
// watch lines, appears normally. Keys: left/right, Home/End, Ctrl-A/E/B/F,
// Backspace, Delete, Ctrl-D (delete, or end of input on an empty line),
// Ctrl-K/U/W (kill to end, to start, previous word), up/down and Ctrl-P/N
// (history of this session), Ctrl-C (abandon the line), Ctrl-L (clear the
// screen). No library is needed for this, so the tool adds no dependency.
//
// Otherwise (a pipe, a file, a dumb terminal) lines are read plainly, without
// a prompt or echo; a final line without a newline still counts.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace vorndb {

class LineReader {
public:
    // Reads from `in`; editing is used when `in` is standard input on a
    // terminal as described above.
    explicit LineReader(std::FILE* in);

    // Reads one line without its line end into *line; false at end of input.
    // `prompt` is shown only when editing.
    bool Read(const std::string& prompt, std::string* line);

    bool Editing() const { return editing_; }
    const std::vector<std::string>& History() const { return history_; }

private:
    bool ReadPlain(std::string* line);
    bool ReadEdited(const std::string& prompt, std::string* line);

    std::FILE* in_;
    bool editing_ = false;
    std::vector<std::string> history_;
};

}  // namespace vorndb
