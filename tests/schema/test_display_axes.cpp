// The X axis of the phase-noise display on the real tree: the selection
// lists with their selectable ranges, and the start/stop rule.
#include <gtest/gtest.h>

#include <string>

#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

const std::string kSettings = "UserSettings.PhaseNoiseSettings.";
const std::string kStart = kSettings + "XAxisStart";
const std::string kStop = kSettings + "XAxisStop";
const std::string kNoiseType = "OptionStateInfo.NoiseMeasType";
const std::string kTable = "OtherSettings.FreqOffsetTable";
const std::string kMaximum = "InstrumentConfigInfo.MaximumFrequency";
const std::string kSignal = kSettings + "SignalFreq";

class DisplayAxes : public RuleTest {
protected:
    std::string LastEntry(const std::string& list) {
        const std::string text = Text(list);
        return text.substr(text.rfind(':') + 1);
    }
    void ExpectSelectable(ULONG lowest, ULONG highest) {
        for (const std::string& axis : {kStart, kStop}) {
            ULONG limit = 0;
            EXPECT_EQ(Get<IParameterInteger>(axis)->get_Minimum(&limit), S_OK);
            EXPECT_EQ(limit, lowest) << axis;
            EXPECT_EQ(Get<IParameterInteger>(axis)->get_Maximum(&limit), S_OK);
            EXPECT_EQ(limit, highest) << axis;
        }
    }
};

TEST_F(DisplayAxes, SelectionListsAndSelectableRange) {
    const struct {
        double maximum;
        ULONG table, type, start, expectedStart;
        const char *startEnd, *stopEnd;
        ULONG lowest, highest;
    } rows[] = {
        {5e10, 1, eNOISETYPE_PLL, 20, 17, "3 MHz", "5 MHz", 0, 17},
        {5e10, 3, eNOISETYPE_PLL, 20, 15, "300 kHz", "500 kHz", 0, 15},
        {7e9, 2, eNOISETYPE_ANALYSER, 10, 10, "10 GHz", "30 GHz", 4, 22},
        {8e9, 2, eNOISETYPE_ANALYSER, 2, 4, "10 GHz", "30 GHz", 4, 24},
        {5e10, 0, eNOISETYPE_RESIDUAL, 2, 2, "300 kHz", "500 kHz", 0, 15},
        {5e10, 0, eNOISETYPE_BASEBAND, 2, 4, "300 kHz", "500 kHz", 4, 15},
        {5e10, 2, eNOISETYPE_BASEBAND, 20, 18, "10 MHz", "30 MHz", 4, 18},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.type) + "/" + std::to_string(row.table));
        // From the widest choice: the PLL type, the 30 MHz table.
        ASSERT_EQ(SetReal(kMaximum, 5e10), S_OK);
        ASSERT_TRUE(SUCCEEDED(SetInteger(kNoiseType, eNOISETYPE_PLL)));
        ASSERT_TRUE(SUCCEEDED(SetInteger(kTable, eFREQOFFSET_30MHZ)));
        ASSERT_TRUE(SUCCEEDED(SetInteger(kStop, 24)));
        ASSERT_TRUE(SUCCEEDED(SetInteger(kStart, row.start)));

        ASSERT_EQ(SetReal(kMaximum, row.maximum), S_OK);
        ASSERT_TRUE(SUCCEEDED(SetInteger(kTable, row.table)));
        ASSERT_TRUE(SUCCEEDED(SetInteger(kNoiseType, row.type)));
        EXPECT_EQ(Integer(kStart), row.expectedStart);
        EXPECT_EQ(LastEntry(kStart + "Strings"), row.startEnd);
        EXPECT_EQ(LastEntry(kStop + "Strings"), row.stopEnd);
        ExpectSelectable(row.lowest, row.highest);
    }
    EXPECT_EQ(Text(kStop + "Strings"),
              "0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
              "1 MHz:3 MHz:10 MHz:30 MHz");

    // A client's choice outside the selectable range is refused.
    EXPECT_EQ(SetInteger(kStart, 19), E_INVALIDARG);
    const SReportedError error = TakeError();
    EXPECT_EQ(error.source, kStart);
    EXPECT_NE(error.description.find("19 (30 MHz) is not selectable"), std::string::npos) << error.description;
}

TEST_F(DisplayAxes, StartStaysAtOrBelowStop) {
    ASSERT_EQ(SetInteger(kStop, 12), S_OK);
    ASSERT_EQ(SetInteger(kStart, 15), S_OK);
    EXPECT_EQ(Integer(kStart), 12u);  // set equal, not swapped
    EXPECT_EQ(Integer(kStop), 12u);
    ASSERT_EQ(SetInteger(kStop, 5), S_OK);
    EXPECT_EQ(Integer(kStop), 12u);
}

TEST_F(DisplayAxes, FrequencyBoundReadsTheStartLadder) {
    ASSERT_EQ(SetInteger(kNoiseType, eNOISETYPE_ANALYSER), S_OK);
    ASSERT_EQ(SetReal(kMaximum, 1e10), S_OK);
    ASSERT_EQ(SetReal(kSignal, 9.9999e9), S_OK);
    // Index 16 is 1 MHz on the start ladder, 15 gives 9.9999e9 + 3e5, 14
    // exactly 1e10 (not below), so the stop index becomes 13.
    ASSERT_EQ(SetInteger(kStop, 16), S_OK);
    EXPECT_EQ(Integer(kStop), 13u);
    EXPECT_EQ(Integer(kStart), 10u);

    // No offset keeps below the maximum: the stop index becomes 4 and the
    // start index follows it down.
    ASSERT_EQ(SetReal(kSignal, 1e10), S_OK);
    EXPECT_EQ(Integer(kStop), 4u);
    EXPECT_EQ(Integer(kStart), 4u);

    // The baseband type has no bound.
    ASSERT_EQ(SetInteger(kNoiseType, eNOISETYPE_BASEBAND), S_OK);
    ASSERT_EQ(SetInteger(kStop, 16), S_OK);
    EXPECT_EQ(Integer(kStop), 16u);
}

}  // namespace
