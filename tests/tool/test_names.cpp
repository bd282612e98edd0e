// Suggestions for unknown names: edit distance and the choice of the closest
// full names.
#include <gtest/gtest.h>

#include "Names.h"

namespace vorndb {
namespace {

TEST(EditDistance, CountsEditsIgnoringLetterCase) {
    EXPECT_EQ(EditDistance("kitten", "sitting"), 3u);
    EXPECT_EQ(EditDistance("", "abc"), 3u);
    EXPECT_EQ(EditDistance("abc", ""), 3u);
    EXPECT_EQ(EditDistance("SignalFreq", "signalfreq"), 0u);
    EXPECT_EQ(EditDistance("SignalFreq", "SignalFre"), 1u);
    EXPECT_EQ(EditDistance("ab", "ba"), 2u);
}

const std::vector<std::string> kTree = {
    "UserSettings",
    "UserSettings.PhaseNoiseSettings",
    "UserSettings.PhaseNoiseSettings.SignalFreq",
    "UserSettings.PhaseNoiseSettings.SignalLevel",
    "MeasurementSettings.MeasPhaseNoiseSettings.SignalFreq",
    "NoiseFreqTablePreset[2].Start",
    "NoiseFreqTablePreset[3].Start",
};

TEST(ClosestNames, TyposLetterCaseAndLeafNamesBestFirst) {
    EXPECT_EQ(ClosestNames("UserSettings.PhaseNoiseSettings.SignalFre", kTree).at(0),
              "UserSettings.PhaseNoiseSettings.SignalFreq");
    EXPECT_EQ(ClosestNames("usersettings.phasenoisesettings.signalfreq", kTree).at(0),
              "UserSettings.PhaseNoiseSettings.SignalFreq");
    // A leaf name finds every full name ending in it.
    EXPECT_EQ(ClosestNames("SignalFreq", kTree),
              (std::vector<std::string>{"UserSettings.PhaseNoiseSettings.SignalFreq",
                                        "MeasurementSettings.MeasPhaseNoiseSettings.SignalFreq"}));
    // Within the limit; ties keep the tree's order.
    EXPECT_EQ(ClosestNames("NoiseFreqTablePreset[4].Start", kTree, 1),
              (std::vector<std::string>{"NoiseFreqTablePreset[2].Start"}));
    EXPECT_EQ(ClosestNames("NoiseFreqTablePreset[4].Start", kTree).size(), 2u);
    // Nothing far away.
    EXPECT_TRUE(ClosestNames("Completely.Different.Name", kTree).empty());
    EXPECT_TRUE(ClosestNames("Xy", kTree).empty());
    EXPECT_TRUE(ClosestNames("anything", {}).empty());
    // A name longer than any the tree has gets none, at once.
    EXPECT_TRUE(ClosestNames(std::string(kLongestSuggestedName + 1, 'S'), kTree).empty());
}

TEST(UnknownNameMessage, ListsSuggestions) {
    EXPECT_EQ(UnknownNameMessage("name", "A.B", {}), "unknown name 'A.B'");
    EXPECT_EQ(UnknownNameMessage("name", "A.B", {"A.C", "A.D"}), "unknown name 'A.B'; did you mean: A.C, A.D?");
}

}  // namespace
}  // namespace vorndb
