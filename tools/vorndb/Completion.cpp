// Tab completion of the vorndb shell (see Completion.h).
#include "Completion.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "Session.h"

namespace vorndb {

namespace {

// The line up to the cursor read as SplitWords reads it: the words before the
// last one, the last one (empty after a blank) and the quote it is still in.
struct Words {
    std::vector<std::string> done;
    std::string last;
    char quote = 0;
    bool completable = true;  // false in a comment or after a lone backslash
};

Words Scan(const std::string& line) {
    Words w;
    bool inWord = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (w.quote == '\'') {
            if (c == '\'')
                w.quote = 0;
            else
                w.last += c;
        } else if (w.quote == '"') {
            if (c == '"')
                w.quote = 0;
            else if (c == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\'))
                w.last += line[++i];
            else
                w.last += c;
        } else if (c == ' ' || c == '\t') {
            if (inWord) w.done.push_back(std::move(w.last));
            w.last.clear();
            inWord = false;
        } else if (c == '#' && !inWord) {
            w.completable = false;
            return w;
        } else {
            inWord = true;
            if (c == '\'' || c == '"')
                w.quote = c;
            else if (c != '\\')
                w.last += c;
            else if (i + 1 < line.size())
                w.last += line[++i];
            else
                w.completable = false;
        }
    }
    return w;
}

enum class Kind { None, Command, Name, Member, File };

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

const std::string kSettingsOption = "--settings=";

// What the last word of a command line is.
Kind KindOf(const std::vector<std::string>& done, const std::string& word) {
    if (done.empty()) return Kind::Command;
    std::size_t position = 0;  // positional arguments before the word
    for (std::size_t i = 1; i < done.size(); ++i) {
        if (done[i] == "--settings" || done[i] == "--depth") {
            if (++i == done.size()) return done[i - 1] == "--settings" ? Kind::File : Kind::None;
        } else if (!StartsWith(done[i], "--")) {
            ++position;
        }
    }
    if (StartsWith(word, kSettingsOption)) return Kind::File;
    if (StartsWith(word, "-")) return Kind::None;
    const std::string& command = done[0];
    if (command == "help") return position == 0 ? Kind::Command : Kind::None;
    if (command == "dump" || command == "diff" || command == "run" || command == "load" ||
        (command == "save" && position == 0))
        return Kind::File;
    if (command == "set") return word.find('=') == std::string::npos ? Kind::Name : Kind::Member;
    for (const char* c : {"tree", "get", "describe", "watch", "unwatch", "reset", "save"})
        if (command == c) return Kind::Name;
    return Kind::None;
}

// Text to insert inside a word that is in `quote` (0: none), so that
// SplitWords reads it back as it is.
std::string Quote(const std::string& text, char quote) {
    std::string out;
    for (const char c : text) {
        if (quote == '\'' && c == '\'')
            out += "'\\''";
        else if ((quote == '"' && (c == '"' || c == '\\')) || (quote == 0 && std::strchr(" \t\\'\"#", c)))
            out += std::string("\\") + c;
        else
            out += c;
    }
    return out;
}

std::vector<CompletionEntry> ListFiles(const std::string& directory) {
    std::vector<CompletionEntry> entries;
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory.empty() ? "." : directory, error), end; !error && it != end;
         it.increment(error))
        entries.push_back({it->path().filename().string(), it->is_directory(error)});
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return entries;
}

}  // namespace

Completion Complete(const std::string& line, const CompletionSources& sources) {
    Completion result;
    const Words w = Scan(line);
    if (!w.completable) return result;
    const std::string& word = w.last;
    const Kind kind = KindOf(w.done, word);
    std::string fixed;  // the part of the word that stays: groups, directories, "NAME="
    char separator = 0;
    std::vector<CompletionEntry> entries;
    switch (kind) {
        case Kind::None:
            return result;
        case Kind::Command:
            for (const std::string& name : sources.commands) entries.push_back({name, false});
            break;
        case Kind::Name: {
            const std::size_t dot = word.rfind('.');
            if (dot != std::string::npos) fixed = word.substr(0, dot + 1);
            entries = sources.children(dot == std::string::npos ? std::string() : word.substr(0, dot));
            separator = '.';
            break;
        }
        case Kind::Member: {
            const std::size_t eq = word.find('=');
            fixed = word.substr(0, eq + 1);
            for (std::string& member : sources.members(word.substr(0, eq))) entries.push_back({member, false});
            break;
        }
        case Kind::File: {
            const std::size_t start = StartsWith(word, kSettingsOption) ? kSettingsOption.size() : 0;
            const std::size_t slash = word.rfind('/');
            fixed = word.substr(0, slash == std::string::npos || slash < start ? start : slash + 1);
            entries = sources.files(fixed.substr(start));
            separator = '/';
            break;
        }
    }
    const std::string partial = word.substr(fixed.size());
    bool container = false;
    for (const CompletionEntry& e : entries) {
        if (!StartsWith(e.name, partial)) continue;
        // Hidden files only when asked for.
        if (kind == Kind::File && StartsWith(e.name, ".") && !StartsWith(partial, ".")) continue;
        result.candidates.push_back(fixed + e.name + (e.container ? std::string(1, separator) : std::string()));
        container = e.container;
    }
    if (result.candidates.empty()) return result;
    result.shown = fixed.size();
    result.common = result.candidates[0];
    for (const std::string& c : result.candidates) {
        const auto mismatch = std::mismatch(result.common.begin(), result.common.end(), c.begin(), c.end());
        result.common.erase(mismatch.first, result.common.end());
    }
    result.insert = Quote(result.common.substr(word.size()), w.quote);
    if (result.candidates.size() == 1 && !container) {
        if (kind == Kind::Name && w.done[0] == "set")
            result.insert += '=';
        else
            result.insert += (w.quote ? std::string(1, w.quote) : std::string()) + ' ';
    }
    return result;
}

CompletionSources SessionSources(std::vector<std::string> commands, const std::function<Session&()>& session) {
    CompletionSources sources;
    sources.commands = std::move(commands);
    sources.children = [session](const std::string& group) {
        std::vector<CompletionEntry> entries;
        try {
            Session& db = session();
            const Node node = db.Resolve(group);
            if (node.family == Family::Group)
                for (const Node& child : db.Children(node))
                    entries.push_back({child.name, child.family == Family::Group});
        } catch (const std::exception&) {
        }
        return entries;
    };
    sources.members = [session](const std::string& parameter) {
        std::vector<std::string> names;
        try {
            Session& db = session();
            const Node node = db.Resolve(parameter);
            if (db.Types())
                for (const EnumMember& member : db.Types()->EnumMembers(db.EnumerationOf(node)))
                    names.push_back(member.name);
        } catch (const std::exception&) {
        }
        return names;
    };
    sources.files = ListFiles;
    return sources;
}

}  // namespace vorndb
