// Name suggestions of the vorndb tool (see Names.h).
#include "Names.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace vorndb {

std::size_t EditDistance(const std::string& a, const std::string& b) {
    // One row of the dynamic-programming table at a time.
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        const int ca = std::tolower(static_cast<unsigned char>(a[i - 1]));
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            const bool same = ca == std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::vector<std::string> ClosestNames(const std::string& asked, const std::vector<std::string>& candidates,
                                      std::size_t limit) {
    // A name far longer than any of the tree's is no misspelling of one, and
    // comparing it with each would cost its length times theirs.
    if (asked.size() > kLongestSuggestedName) return {};
    const std::size_t threshold = std::max<std::size_t>(2, asked.size() / 3);
    // Cheap bound first: the length difference alone exceeds the threshold.
    auto near = [&](std::size_t length) {
        return (length > asked.size() ? length - asked.size() : asked.size() - length) <= threshold;
    };
    std::vector<std::pair<std::size_t, std::size_t>> scored;  // (distance, index)
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const std::string& name = candidates[i];
        std::size_t best = threshold + 1;
        if (near(name.size())) best = EditDistance(asked, name);
        const std::size_t dot = name.rfind('.');
        if (dot != std::string::npos && asked.find('.') == std::string::npos && near(name.size() - dot - 1))
            best = std::min(best, EditDistance(asked, name.substr(dot + 1)) + 1);
        if (best <= threshold) scored.emplace_back(best, i);
    }
    std::stable_sort(scored.begin(), scored.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
    std::vector<std::string> result;
    for (const auto& s : scored) {
        if (result.size() == limit) break;
        result.push_back(candidates[s.second]);
    }
    return result;
}

std::string UnknownNameMessage(const std::string& what, const std::string& asked,
                               const std::vector<std::string>& suggestions) {
    std::string message = "unknown " + what + " '" + asked + "'";
    if (suggestions.empty()) return message;
    message += "; did you mean: ";
    for (std::size_t i = 0; i < suggestions.size(); ++i) message += (i ? ", " : "") + suggestions[i];
    return message + "?";
}

}  // namespace vorndb
