// Line input of the vorndb shell (see LineReader.h).
#include "LineReader.h"

#include <histedit.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "Common.h"
#include "Values.h"

namespace vorndb {

namespace {

// A byte of standard input; -1 at its end, on an error, or when none arrives
// within timeoutMs (negative: no limit).
int ReadByte(int timeoutMs) {
    for (;;) {
        if (timeoutMs >= 0) {
            pollfd p{STDIN_FILENO, POLLIN, 0};
            const int ready = ::poll(&p, 1, timeoutMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) return -1;
        }
        unsigned char c;
        const ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n == 1) return c;
        if (n < 0 && errno == EINTR) continue;
        return -1;
    }
}

// Creates the directories of `path` that are missing, mode 0700.
void MakeParents(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        ::mkdir(path.substr(0, slash).c_str(), 0700);
}

}  // namespace

std::string HistoryFile(const char* stateHome, const char* home) {
    if (stateHome && stateHome[0] == '/') return std::string(stateHome) + "/vorndb/history";
    if (home && home[0] == '/') return std::string(home) + "/.local/state/vorndb/history";
    return "";
}

std::string KeyBytes(unsigned char first, const std::function<int(int timeoutMs)>& next) {
    constexpr char kEsc = '\x1b';
    if (first != kEsc) return std::string(1, static_cast<char>(first));
    int c = next(kEscapeWaitMs);
    while (c == kEsc) c = next(kEscapeWaitMs);  // only the last of several Escs counts
    if (c < 0) return "";
    if (c != '[' && c != 'O') {
        if (c >= 0x20 || c == '\b') return std::string(1, kEsc) + static_cast<char>(c);
        return std::string(1, static_cast<char>(c));
    }
    // CSI ("\e[") or SS3 ("\eO"): parameter and intermediate bytes, then the final byte.
    std::string parameters;
    int final = next(kEscapeWaitMs);
    while (final >= 0x20 && final <= 0x3f && parameters.size() < 16) {
        parameters += static_cast<char>(final);
        final = next(kEscapeWaitMs);
    }
    if (final < 0x40 || final > 0x7e) return "";
    const int key = std::atoi(parameters.c_str());  // "1;5": key 1 ...
    const std::size_t semicolon = parameters.find(';');
    const int modifiers = semicolon == std::string::npos ? 1 : std::atoi(parameters.c_str() + semicolon + 1);
    const bool word = ((modifiers - 1) & 6) != 0;  // ... with Alt (2) or Ctrl (4)
    switch (final) {
        case 'C':
            return word ? "\033f" : "\033[C";
        case 'D':
            return word ? "\033b" : "\033[D";
        case 'A':
        case 'B':
        case 'H':
        case 'F':
            return std::string("\033[") + static_cast<char>(final);
        case '~':
            if (c == 'O') return "";
            if (key == 1 || key == 7) return "\033[H";
            if (key == 4 || key == 8) return "\033[F";
            if (key == 3) return "\033[3~";
            return "";
        default:
            return "";
    }
}

// The libedit side of a LineReader.
class LineReader::Editor {
public:
    explicit Editor(CompletionSources sources) : sources_(std::move(sources)) {
        // libedit decodes and displays text by the locale; the tool's text is UTF-8.
        if (!std::setlocale(LC_CTYPE, "") || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0)
            std::setlocale(LC_CTYPE, "C.UTF-8");
        history_ = history_init();
        el_ = el_init("vorndb", stdin, stdout, stderr);
        if (!history_ || !el_) return;
        history(history_, &event_, H_SETSIZE, kHistorySize);
        history(history_, &event_, H_SETUNIQUE, 1);
        el_set(el_, EL_HIST, history, history_);
        el_set(el_, EL_EDITOR, "emacs");
        el_set(el_, EL_SIGNAL, 1);
        el_set(el_, EL_CLIENTDATA, this);
        el_set(el_, EL_PROMPT, &Editor::Prompt);
        el_set(el_, EL_GETCFN, &Editor::ReadChar);
        // Ctrl-C is a key, not a signal, while a line is edited.
        el_set(el_, EL_SETTY, "-d", "-isig", nullptr);
        // The wide form: libedit keeps these strings as they are (the narrow one copies them and never frees).
        el_wset(el_, EL_ADDFN, L"vorndb-complete", L"complete a command, name, member or file", &Editor::OnTab);
        el_wset(el_, EL_ADDFN, L"vorndb-abandon", L"abandon the line", &Editor::OnInterrupt);
        // What KeyBytes hands over, bound whatever the terminal description says.
        static const char* const kBindings[][2] = {
            {"^I", "vorndb-complete"},    {"^C", "vorndb-abandon"},          {"^W", "ed-delete-prev-word"},
            {"^R", "em-inc-search-prev"}, {"\\e[A", "ed-prev-history"},      {"\\e[B", "ed-next-history"},
            {"\\e[C", "ed-next-char"},    {"\\e[D", "ed-prev-char"},         {"\\e[H", "ed-move-to-beg"},
            {"\\e[F", "ed-move-to-end"},  {"\\e[3~", "ed-delete-next-char"}, {"\\eb", "ed-prev-word"},
            {"\\ef", "em-next-word"},
        };
        for (const auto& binding : kBindings) el_set(el_, EL_BIND, binding[0], binding[1], nullptr);
        el_source(el_, nullptr);  // the user's ~/.editrc, if any

        file_ = HistoryFile(std::getenv("XDG_STATE_HOME"), std::getenv("HOME"));
        if (file_.empty()) return;
        MakeParents(file_);
        struct stat status {};
        const bool exists = ::stat(file_.c_str(), &status) == 0;
        if (!exists && errno == ENOENT) return;  // nothing to load yet
        errno = 0;
        if ((!exists || status.st_size > 0) && history(history_, &event_, H_LOAD, file_.c_str()) < 0) {
            // Not overwritten: it may be something else than a history.
            Warn("cannot be read: " + std::string(errno ? std::strerror(errno) : "not a history file") +
                 "; this session's history is not saved");
            file_.clear();
        }
    }

    ~Editor() {
        if (el_) el_end(el_);
        if (history_) history_end(history_);
    }

    bool Ready() const { return el_ && history_; }

    bool Read(const std::string& prompt, std::string* line) {
        prompt_ = prompt;
        for (;;) {
            abandoned_ = false;
            int count = 0;
            const char* text = el_gets(el_, &count);
            if (!text || count <= 0) {
                PrintRaw("\n");
                return false;
            }
            if (abandoned_) continue;
            line->assign(text, static_cast<std::size_t>(count));
            while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
            if (!Trim(*line).empty()) {
                history(history_, &event_, H_ENTER, line->c_str());
                if (!file_.empty() && !saveFailed_ && !SaveHistory()) {
                    saveFailed_ = true;
                    Warn("cannot be written: " + vorn::LastErrorText());
                }
            }
            return true;
        }
    }

private:
    static Editor* Self(EditLine* el) {
        void* self = nullptr;
        el_get(el, EL_CLIENTDATA, &self);
        return static_cast<Editor*>(self);
    }

    static char* Prompt(EditLine* el) { return Self(el)->prompt_.data(); }

    // libedit's character source: the keys of standard input as KeyBytes
    // passes them on, decoded by the locale.
    static int ReadChar(EditLine* el, wchar_t* out) {
        Editor* self = Self(el);
        while (self->pending_.empty()) {
            const int first = ReadByte(-1);
            if (first < 0) return 0;
            for (const char byte : KeyBytes(static_cast<unsigned char>(first), ReadByte)) {
                wchar_t decoded;
                const std::size_t n = std::mbrtowc(&decoded, &byte, 1, &self->state_);
                if (n == static_cast<std::size_t>(-2)) continue;
                if (n == static_cast<std::size_t>(-1))
                    self->state_ = std::mbstate_t{};
                else
                    self->pending_.push_back(decoded);
            }
        }
        *out = self->pending_.front();
        self->pending_.erase(0, 1);
        return 1;
    }

    // Tab: inserts what all candidates share; with nothing to insert, lists them.
    static unsigned char OnTab(EditLine* el, int) {
        const LineInfo* info = el_line(el);
        Completion completion;
        try {
            completion = Complete(std::string(info->buffer, info->cursor), Self(el)->sources_);
        } catch (const std::exception&) {
            return CC_REFRESH_BEEP;
        }
        if (!completion.insert.empty()) return el_insertstr(el, completion.insert.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
        if (completion.candidates.size() < 2) return CC_REFRESH_BEEP;
        int columns = 80;
        el_get(el, EL_GETTC, "co", &columns, nullptr);
        std::size_t width = 0;
        for (const std::string& c : completion.candidates) width = std::max(width, c.size() - completion.shown + 2);
        const std::size_t perLine = std::max<std::size_t>(1, static_cast<std::size_t>(columns) / width);
        std::string list = "\r\n";
        for (std::size_t i = 0; i < completion.candidates.size(); ++i) {
            const std::string shown = completion.candidates[i].substr(completion.shown);
            const bool last = (i + 1) % perLine == 0 || i + 1 == completion.candidates.size();
            list += last ? shown + "\r\n" : shown + std::string(width - shown.size(), ' ');
        }
        PrintRaw(list);
        return CC_REDISPLAY;
    }

    // Ctrl-C: shows "^C" at the end of the line and ends it (the newline is
    // read next, so that libedit moves below the line); Read drops the line.
    static unsigned char OnInterrupt(EditLine* el, int) {
        Self(el)->abandoned_ = true;
        const LineInfoW* info = el_wline(el);
        el_cursor(el, static_cast<int>(info->lastchar - info->cursor));
        el_insertstr(el, "^C");
        el_push(el, "\n");
        return CC_REFRESH;
    }

    // Writes the history file in one replacement (VornReplaceFileA), so that
    // another shell reading it never sees half of it. libedit writes into a
    // real file only (it sets the file's mode), so the text goes through an
    // unnamed scratch file. False with the reason in the failure text.
    bool SaveHistory() {
        std::FILE* scratch = std::tmpfile();
        if (!scratch) return false;
        std::string text;
        bool saved = history(history_, &event_, H_SAVE_FP, scratch) >= 0 && std::fflush(scratch) == 0;
        const long size = saved ? std::ftell(scratch) : -1;
        if (size >= 0 && size <= 0xFFFFFFFFL) {
            text.resize(static_cast<std::size_t>(size));
            std::rewind(scratch);
            saved = std::fread(text.data(), 1, text.size(), scratch) == text.size();
        } else {
            saved = false;
        }
        std::fclose(scratch);
        return saved && VornReplaceFileA(file_.c_str(), text.data(), static_cast<DWORD>(text.size()),
                                         VORN_REPLACE_HOST_PATH | VORN_REPLACE_PRIVATE);
    }

    void Warn(const std::string& problem) { PrintError("vorndb: warning: history file " + file_ + " " + problem); }

    CompletionSources sources_;
    EditLine* el_ = nullptr;
    History* history_ = nullptr;
    HistEvent event_{};
    std::string prompt_;
    std::string file_;
    bool saveFailed_ = false;
    bool abandoned_ = false;
    std::wstring pending_;
    std::mbstate_t state_{};
};

LineReader::LineReader(std::FILE* in) : in_(in) {}

LineReader::LineReader(CompletionSources sources) : in_(stdin) {
    const char* term = std::getenv("TERM");
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO) || (term && std::strcmp(term, "dumb") == 0)) return;
    editor_ = std::make_unique<Editor>(std::move(sources));
    if (!editor_->Ready()) editor_.reset();
}

LineReader::~LineReader() = default;

bool LineReader::Read(const std::string& prompt, std::string* line) {
    return editor_ ? editor_->Read(prompt, line) : ReadPlain(line);
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

}  // namespace vorndb
