// Reading command lines for `vorndb shell` and `vorndb run`.
//
// The shell's standard input, when it and standard output are terminals (and
// TERM is not "dumb"), is edited with libedit and its emacs key bindings,
// with Ctrl-W deleting the previous word, Ctrl-R searching the history,
// Ctrl-C abandoning the line and Tab completing (Completion.h). libedit has
// the terminal in its edit mode only while a line is read, so output between
// prompts, such as the watch lines, appears normally. The history holds the
// last kHistorySize lines; it is read from HistoryFile() and written to it
// after every line. A file that cannot be read or written is reported once as
// a warning; one that cannot be read is not overwritten.
//
// libedit matches a key's escape sequence against its bindings byte by byte
// and inserts the rest of one it does not bind, and takes Esc as a Meta prefix
// however late the next key comes. The reader therefore hands it whole keys
// (KeyBytes): a sequence is read to its end, then passed on in the one form
// that is bound, or dropped when it is a key the shell has no use for; an Esc
// that no other byte follows within kEscapeWaitMs is dropped.
//
// Everything else (scripts, a pipe, a file, a dumb terminal) is read plainly,
// without a prompt, echo or history; a final line without a newline still
// counts.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "Completion.h"

namespace vorndb {

constexpr int kHistorySize = 1000;
constexpr int kEscapeWaitMs = 100;

class LineReader {
public:
    // Reads `in` plainly.
    explicit LineReader(std::FILE* in);
    // Reads standard input, edited as described above when it is a terminal;
    // Tab completes from `sources`.
    explicit LineReader(CompletionSources sources);
    ~LineReader();

    // Reads one line without its line end into *line; false at end of input.
    // `prompt` is shown only when editing.
    bool Read(const std::string& prompt, std::string* line);

    bool Editing() const { return editor_ != nullptr; }

private:
    class Editor;
    bool ReadPlain(std::string* line);

    std::FILE* in_;
    std::unique_ptr<Editor> editor_;
};

// $XDG_STATE_HOME/vorndb/history, or HOME/.local/state/vorndb/history when
// XDG_STATE_HOME is unset or not an absolute path; "" (no history file) when
// HOME is not an absolute path either.
std::string HistoryFile(const char* stateHome, const char* home);

// The bytes to hand to libedit for the key that begins with `first`, reading
// the rest with `next(timeoutMs)` (a byte, or -1 when none comes in time):
// Esc followed by a printable character or Backspace is Meta with it; a lone
// Esc gives nothing, and an Esc before another control key only that key;
// the sequences of the arrows, Home, End and Delete become "\e[A" .. "\e[D",
// "\e[H", "\e[F", "\e[3~" whatever their modifiers and form, except that
// Ctrl- or Alt-Left and -Right become the word motions "\eb" and "\ef"; any
// other sequence, and an incomplete one, gives nothing.
std::string KeyBytes(unsigned char first, const std::function<int(int timeoutMs)>& next);

}  // namespace vorndb
