// The shell's line input without a terminal: completion against a small
// tree, the keys handed to libedit, the history file's place.
#include <gtest/gtest.h>

#include <map>

#include "Completion.h"
#include "LineReader.h"

namespace vorndb {
namespace {

CompletionSources FakeSources() {
    static const std::map<std::string, std::vector<CompletionEntry>> tree = {
        {"", {{"UserSettings", true}, {"NoiseFreqTable[0]", true}, {"NoiseFreqTable[1]", true}}},
        {"UserSettings", {{"PhaseNoiseSettings", true}, {"PhaseNoiseBasebandSettings", true}, {"Name", false}}},
        {"UserSettings.PhaseNoiseSettings", {{"SignalFreq", false}, {"RbwToVbw", false}, {"Autoscale", false}}},
        {"data/", {{"x.vdb", false}}},
        {"files", {{".hidden", false}, {"a b.vdb", false}, {"data", true}, {"dump.vdb", false}}},
    };
    auto find = [](const std::string& key) {
        const auto it = tree.find(key);
        return it == tree.end() ? std::vector<CompletionEntry>() : it->second;
    };
    CompletionSources sources;
    sources.commands = {"tree", "get", "set", "dump", "diff", "shell", "run", "help", "watch", "wait", "save", "load"};
    sources.children = find;
    sources.members = [](const std::string& name) {
        if (name != "UserSettings.PhaseNoiseSettings.RbwToVbw") return std::vector<std::string>();
        return std::vector<std::string>{"eRBWTOVBW_10TO1", "eRBWTOVBW_1TO1", "eRBWTOVBW_1TO10"};
    };
    sources.files = [find](const std::string& directory) { return find(directory.empty() ? "files" : directory); };
    return sources;
}

TEST(Complete, CommandsNamesMembersAndFiles) {
    const struct {
        const char* line;
        const char* insert;
        const char* shown;  // the candidates as listed, joined by '|'
    } cases[] = {
        {"s", "", "set|shell|save"},
        {"ge", "t ", "get"},
        {"help wa", "", "watch|wait"},
        {"get User", "Settings.", "UserSettings."},
        {"get UserSettings.Pha", "seNoise", "PhaseNoiseSettings.|PhaseNoiseBasebandSettings."},
        {"tree UserSettings.PhaseNoiseS", "ettings.", "PhaseNoiseSettings."},
        {"get UserSettings.PhaseNoiseSettings.Si", "gnalFreq ", "SignalFreq"},
        {"get NoiseFreqTable[", "", "NoiseFreqTable[0].|NoiseFreqTable[1]."},
        {"get 'UserSettings.PhaseNoiseSettings.Au", "toscale' ", "Autoscale"},
        {"set UserSettings.PhaseNoiseSettings.Rb", "wToVbw=", "RbwToVbw"},
        {"set \"UserSettings.PhaseNoiseSettings.Rb", "wToVbw=", "RbwToVbw"},
        {"set UserSettings.PhaseNoiseSettings.RbwToVbw=eRBWTOVBW_1T", "O1", "eRBWTOVBW_1TO1|eRBWTOVBW_1TO10"},
        {"set UserSettings.PhaseNoiseSettings.RbwToVbw=eRBWTOVBW_10", "TO1 ", "eRBWTOVBW_10TO1"},
        {"save dump.vdb User", "Settings.", "UserSettings."},
        {"tree --depth 1 User", "Settings.", "UserSettings."},
        {"load a", "\\ b.vdb ", "a b.vdb"},
        {"load \"a", " b.vdb\" ", "a b.vdb"},
        {"dump ", "", "a b.vdb|data/|dump.vdb"},
        {"dump .", "hidden ", ".hidden"},
        {"diff a\\ b.vdb d", "", "data/|dump.vdb"},
        {"run data/", "x.vdb ", "x.vdb"},
        {"save da", "ta/", "data/"},
        {"set --settings da", "ta/", "data/"},
        {"tree --settings=da", "ta/", "data/"},
    };
    const CompletionSources sources = FakeSources();
    for (const auto& c : cases) {
        const Completion completion = Complete(c.line, sources);
        std::string shown;
        for (const std::string& candidate : completion.candidates)
            shown += (shown.empty() ? "" : "|") + candidate.substr(completion.shown);
        EXPECT_EQ(completion.insert, c.insert) << c.line;
        EXPECT_EQ(shown, c.shown) << c.line;
    }
    // Nothing to complete.
    for (const char* line : {"set UserSettings.PhaseNoiseSettings.SignalFreq=1", "get Nope.", "tree --depth ", "get --",
                             "wait 1", "frob User", "# get User", "load a\\"}) {
        const Completion completion = Complete(line, sources);
        EXPECT_EQ(completion.insert, "") << line;
        EXPECT_TRUE(completion.candidates.empty()) << line;
    }
}

TEST(KeyBytes, WholeSequencesInTheirBoundFormOrNothing) {
    // What is typed, and what libedit is handed: Ctrl-Left (ESC [1;5D) and
    // Alt-Right (ESC [1;3C) as words, Shift-Up as Up; F5 (ESC [15~), F1
    // (ESC OP), Shift-Tab (ESC [Z), a sequence cut short and a lone Esc as
    // nothing; Meta-b as it is.
    const std::pair<std::string, std::string> cases[] = {
        {"\x1b[1;5D", "\033b"}, {"\x1b[1;3C", "\033f"},   {"\x1b[D", "\x1b[D"},
        {"\x1bOA", "\x1b[A"},   {"\x1b[1;2A", "\x1b[A"},  {"\x1b[7~", "\x1b[H"},
        {"\x1b[4~", "\x1b[F"},  {"\x1b[3;5~", "\x1b[3~"}, {"\x1b[15~", ""},
        {"\x1bOP", ""},         {"\x1b[Z", ""},           {"\x1b[1;5", ""},
        {"\x1b", ""},           {"\x1b\r", "\r"},         {"\x1b\x1b[D", "\x1b[D"},
        {"\033b", "\033b"},     {"\x1b\x7f", "\x1b\x7f"}, {"a", "a"}};
    for (const auto& [keys, handed] : cases) {
        const std::string& typed = keys;  // captured below: clang 14 cannot capture a structured binding
        std::size_t at = 1;
        const auto next = [&](int) { return at < typed.size() ? static_cast<unsigned char>(typed[at++]) : -1; };
        EXPECT_EQ(KeyBytes(static_cast<unsigned char>(typed[0]), next), handed) << typed.substr(1);
        EXPECT_EQ(at, typed.size()) << typed.substr(1);
    }
}

TEST(HistoryFile, StateHomeThenHome) {
    EXPECT_EQ(HistoryFile("/state", "/home/u"), "/state/vorndb/history");
    EXPECT_EQ(HistoryFile(nullptr, "/home/u"), "/home/u/.local/state/vorndb/history");
    EXPECT_EQ(HistoryFile("relative", "/home/u"), "/home/u/.local/state/vorndb/history");
    EXPECT_EQ(HistoryFile("", nullptr), "");
}

}  // namespace
}  // namespace vorndb
