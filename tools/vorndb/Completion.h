// Tab completion of the vorndb shell.
//
// Complete looks at the line up to the cursor and completes its last word:
// the first word from the command names; `help`'s argument likewise; the
// arguments of commands that take a file (dump, diff, run, load, the first
// of save, the value of --settings) from the file system, one directory
// level at a time; every other argument of the commands that take names as a
// full name of the tree, one element at a time ("UserSettings.Pha" becomes
// "UserSettings.PhaseNoiseSettings."); and the value in set's NAME=VALUE,
// for an enumeration parameter, from its member names. Words are read as
// SplitWords reads them, so a word may be quoted or hold escaped blanks; the
// completed text is quoted the way the word was begun.
//
// The tree, the enumerations and the files come from CompletionSources, so
// that Complete needs neither a terminal nor a database.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vorndb {

class Session;

// A child of a group or a directory entry.
struct CompletionEntry {
    std::string name;
    bool container = false;  // a group or a directory: completed with its separator
};

struct CompletionSources {
    std::vector<std::string> commands;
    // The children of the group with that full name ("" is the root); none
    // for a parameter or an unknown name.
    std::function<std::vector<CompletionEntry>(const std::string& group)> children;
    // The member names of the enumeration parameter with that full name; none
    // for any other node.
    std::function<std::vector<std::string>(const std::string& parameter)> members;
    // The entries of a directory ("" is the current directory; otherwise it
    // ends in '/'), sorted by name.
    std::function<std::vector<CompletionEntry>(const std::string& directory)> files;
};

struct Completion {
    // The whole words the last word can become, unquoted, in the sources'
    // order.
    std::vector<std::string> candidates;
    // The candidates' longest common prefix (unquoted).
    std::string common;
    // Where, in each candidate, the element being completed begins (after the
    // last '.', '/' or '='): what a list of the candidates shows.
    std::size_t shown = 0;
    // The text to insert at the cursor: `common` beyond what was typed,
    // quoted like the word; when a single complete candidate is left, also a
    // closing quote and a blank ("=" after a parameter of `set`).
    std::string insert;
};

Completion Complete(const std::string& line, const CompletionSources& sources);

// Sources backed by the database of `session` (called on first use, so the
// database is created only when a name is completed) and the file system.
// Errors, such as a database that cannot be created, give no candidates.
CompletionSources SessionSources(std::vector<std::string> commands, const std::function<Session&()>& session);

}  // namespace vorndb
