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

using DisplayAxes = RuleTest;

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
        {5e10, 0, eNOISETYPE_RESIDUAL, 2, 2, "300 kHz", "500 kHz", 0, 15},  // no raise to 4
        {5e10, 0, eNOISETYPE_BASEBAND, 2, 4, "300 kHz", "500 kHz", 4, 15},
        {5e10, 2, eNOISETYPE_BASEBAND, 20, 18, "10 MHz", "30 MHz", 4, 18},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.type) + "/" + std::to_string(row.table));
        // From the widest choice (PLL, the 30 MHz table) to the row's.
        Run({Set(kMaximum, 5e10), Set(kNoiseType, eNOISETYPE_PLL), Set(kTable, eFREQOFFSET_30MHZ), Set(kStop, 24),
             Set(kStart, row.start), Set(kMaximum, row.maximum), Set(kTable, row.table), Set(kNoiseType, row.type),
             Is(kStart, row.expectedStart)});
        for (const std::string& list : {kStart + "Strings", kStop + "Strings"}) {
            const std::string text = Text(list);
            EXPECT_EQ(text.substr(text.rfind(':') + 1), list == kStart + "Strings" ? row.startEnd : row.stopEnd);
        }
        ULONG lowest = 0, highest = 0;
        ASSERT_EQ(Get<IParameterInteger>(kStop)->get_Minimum(&lowest), S_OK);
        ASSERT_EQ(Get<IParameterInteger>(kStart)->get_Maximum(&highest), S_OK);
        EXPECT_EQ(lowest, row.lowest);
        EXPECT_EQ(highest, row.highest);
    }
    EXPECT_EQ(Text(kStop + "Strings"),
              "0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
              "1 MHz:3 MHz:10 MHz:30 MHz");
    // A client's choice outside the selectable range is refused.
    Run({Set(kStart, 19, E_INVALIDARG)});
    const SReportedError error = TakeError();
    EXPECT_EQ(error.source, kStart);
    EXPECT_NE(error.description.find("19 (30 MHz) is not selectable"), std::string::npos) << error.description;
}

TEST_F(DisplayAxes, StartStopOrderAndFrequencyBound) {
    // Start above stop is set equal, not swapped; so is stop below start.
    Run({Set(kStop, 12), Set(kStart, 15, S_OK), Is(kStart, 12), Is(kStop, 12), Set(kStop, 5, S_OK), Is(kStop, 12)});
    // Analyser: index 16 is 1 MHz on the start ladder, 15 gives 9.9999e9 +
    // 3e5, 14 exactly 1e10 (not below): the stop index becomes 13. With no
    // offset below the maximum it becomes 4, and the start index follows.
    // The baseband type has no bound.
    Run({Set(kStart, 10), Set(kNoiseType, eNOISETYPE_ANALYSER), Set(kMaximum, 1e10), Set(kSignal, 9.9999e9),
         Set(kStop, 16, S_OK), Is(kStop, 13), Is(kStart, 10), Set(kSignal, 1e10), Is(kStop, 4), Is(kStart, 4),
         Set(kNoiseType, eNOISETYPE_BASEBAND), Set(kStop, 16, S_OK), Is(kStop, 16)});
}

}  // namespace
