// Suggestions for a name that is not in the database tree.
//
// The database resolves full names through a hash map that, for an unknown
// name sharing a bucket with a known one, hands out the known object; the
// tool therefore compares the full name of what it got with what was asked
// (Session::Resolve) and, for a name that is unknown, offers the closest
// existing names. "Closest" is the edit distance (insertions, deletions,
// substitutions, each 1; letter case ignored) to the whole full name, or to
// its last component plus one, so that "SignalFreq" typed without its groups
// still finds "MeasurementSettings.PhaseNoiseSettings.SignalFreq".
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vorndb {

// Levenshtein distance between a and b, ASCII letter case ignored.
std::size_t EditDistance(const std::string& a, const std::string& b);

// Names longer than this get no suggestions: the tree's longest full name is
// about 120 characters.
inline constexpr std::size_t kLongestSuggestedName = 256;

// Up to `limit` names of `candidates` closest to `asked`, best first (ties in
// the order of `candidates`), among those within max(2, length / 3) edits of
// it. Empty when nothing is that close, or when `asked` is longer than
// kLongestSuggestedName. The cost is bounded by the names of about the
// length of `asked`.
std::vector<std::string> ClosestNames(const std::string& asked, const std::vector<std::string>& candidates,
                                      std::size_t limit = 5);

// "unknown name 'X'" followed by "; did you mean: A, B?" when there are
// suggestions.
std::string UnknownNameMessage(const std::string& what, const std::string& asked,
                               const std::vector<std::string>& suggestions);

}  // namespace vorndb
