// Line input of the vorndb shell (see LineReader.h).
#include "LineReader.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Common.h"

namespace vorndb {

namespace {

// Puts the terminal into raw mode for its lifetime.
class RawMode {
public:
    RawMode() {
        if (tcgetattr(STDIN_FILENO, &saved_) != 0) return;
        termios raw = saved_;
        raw.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INPCK | ISTRIP | IXON);
        raw.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | IEXTEN | ISIG);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        active_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0;
    }
    ~RawMode() {
        if (active_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
    }
    bool active() const { return active_; }

private:
    termios saved_{};
    bool active_ = false;
};

bool ReadByte(char* c) {
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, c, 1);
        if (n == 1) return true;
        if (n < 0 && errno == EINTR) continue;
        return false;
    }
}

bool Continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Screen columns of UTF-8 text (one per character).
std::size_t Columns(const std::string& text, std::size_t bytes) {
    std::size_t columns = 0;
    for (std::size_t i = 0; i < bytes && i < text.size(); ++i)
        if (!Continuation(text[i])) ++columns;
    return columns;
}

void Redraw(const std::string& prompt, const std::string& line, std::size_t cursor) {
    std::string out = "\r" + prompt + line + "\x1b[K";
    const std::size_t back = Columns(line, line.size()) - Columns(line, cursor);
    if (back) out += "\x1b[" + std::to_string(back) + "D";
    PrintRaw(out);
}

}  // namespace

LineReader::LineReader(std::FILE* in) : in_(in) {
    const char* term = std::getenv("TERM");
    editing_ =
        in == stdin && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) && !(term && std::strcmp(term, "dumb") == 0);
}

bool LineReader::Read(const std::string& prompt, std::string* line) {
    if (editing_) {
        if (!ReadEdited(prompt, line)) return false;
        if (!line->empty() && (history_.empty() || history_.back() != *line)) history_.push_back(*line);
        return true;
    }
    return ReadPlain(line);
}

bool LineReader::ReadPlain(std::string* line) {
    line->clear();
    int c;
    bool any = false;
    while ((c = std::fgetc(in_)) != EOF) {
        any = true;
        if (c == '\n') break;
        line->push_back(static_cast<char>(c));
    }
    if (!line->empty() && line->back() == '\r') line->pop_back();
    return any;
}

bool LineReader::ReadEdited(const std::string& prompt, std::string* result) {
    RawMode raw;
    if (!raw.active()) {
        editing_ = false;
        return ReadPlain(result);
    }
    std::string line;
    std::size_t cursor = 0;
    std::size_t historyIndex = history_.size();
    std::string pending;  // the line being typed while browsing the history
    PrintRaw(prompt);
    auto left = [&] {
        while (cursor > 0 && Continuation(line[--cursor])) {
        }
    };
    auto right = [&] {
        if (cursor < line.size()) ++cursor;
        while (cursor < line.size() && Continuation(line[cursor])) ++cursor;
    };
    auto recall = [&](std::size_t index) {
        if (historyIndex == history_.size()) pending = line;
        historyIndex = index;
        line = index == history_.size() ? pending : history_[index];
        cursor = line.size();
    };
    for (;;) {
        char c;
        if (!ReadByte(&c)) {
            PrintRaw("\r\n");
            return false;
        }
        switch (c) {
            case '\r':
            case '\n':
                PrintRaw("\r\n");
                *result = line;
                return true;
            case 1:
                cursor = 0;
                break;  // Ctrl-A
            case 5:
                cursor = line.size();
                break;  // Ctrl-E
            case 2:
                left();
                break;  // Ctrl-B
            case 6:
                right();
                break;  // Ctrl-F
            case 11:
                line.erase(cursor);
                break;  // Ctrl-K
            case 21:    // Ctrl-U
                line.erase(0, cursor);
                cursor = 0;
                break;
            case 23: {  // Ctrl-W
                std::size_t start = cursor;
                while (start > 0 && line[start - 1] == ' ') --start;
                while (start > 0 && line[start - 1] != ' ') --start;
                line.erase(start, cursor - start);
                cursor = start;
                break;
            }
            case 3:  // Ctrl-C
                PrintRaw("^C\r\n");
                line.clear();
                cursor = 0;
                historyIndex = history_.size();
                PrintRaw(prompt);
                continue;
            case 4:  // Ctrl-D
                if (line.empty()) {
                    PrintRaw("\r\n");
                    return false;
                } else if (cursor < line.size()) {
                    std::size_t end = cursor;
                    do ++end;
                    while (end < line.size() && Continuation(line[end]));
                    line.erase(cursor, end - cursor);
                }
                break;
            case 12:
                PrintRaw("\x1b[H\x1b[2J");
                break;  // Ctrl-L
            case 16:    // Ctrl-P
                if (historyIndex > 0) recall(historyIndex - 1);
                break;
            case 14:  // Ctrl-N
                if (historyIndex < history_.size()) recall(historyIndex + 1);
                break;
            case 8:
            case 127:  // Backspace
                if (cursor > 0) {
                    const std::size_t end = cursor;
                    left();
                    line.erase(cursor, end - cursor);
                }
                break;
            case 27: {  // escape sequences: ESC [ x, ESC [ n ~, ESC O x
                char a, b;
                if (!ReadByte(&a) || !ReadByte(&b)) break;
                if (a == '[' && b >= '0' && b <= '9') {
                    char tilde;
                    if (!ReadByte(&tilde) || tilde != '~') break;
                    if (b == '1' || b == '7') cursor = 0;
                    if (b == '4' || b == '8') cursor = line.size();
                    if (b == '3' && cursor < line.size()) {
                        std::size_t end = cursor;
                        do ++end;
                        while (end < line.size() && Continuation(line[end]));
                        line.erase(cursor, end - cursor);
                    }
                } else if (a == '[' || a == 'O') {
                    if (b == 'A' && historyIndex > 0) recall(historyIndex - 1);
                    if (b == 'B' && historyIndex < history_.size()) recall(historyIndex + 1);
                    if (b == 'C') right();
                    if (b == 'D') left();
                    if (b == 'H') cursor = 0;
                    if (b == 'F') cursor = line.size();
                }
                break;
            }
            default:
                if (static_cast<unsigned char>(c) >= 0x20) {
                    line.insert(cursor, 1, c);
                    ++cursor;
                }
                break;
        }
        Redraw(prompt, line, cursor);
    }
}

}  // namespace vorndb
