// The rules of the phase-noise settings on the real tree: the measurement
// couplings (docs/coupling.md), one group per rule, then a seeded property
// test of their invariants over random client writes; the X axis of the
// display (the selection lists with their selectable ranges, the start/stop
// rule); the settings remembered per noise type.

#include <random>
#include <tuple>

#include "schema/DisplayAxes.h"
#include "schema/RuleTestSupport.h"
#include "schema/SweepSetup.h"

using namespace vorn;
using namespace vorn::test;

namespace {

const std::string kPN = "UserSettings.PhaseNoiseSettings.";
const std::string kLoop = "UserSettings.VCOLOOPSettings.";
const std::string kType = "OptionStateInfo.NoiseMeasType";
const std::string kMessage = "OptionStateInfo.Message";
const std::string kMode = kPN + "SweepMode";
const std::string kPort1 = "UserSettings.DCSettings.PortSettings.";
const std::string kTrace0 = "UserSettings.VCOSettings.VCOHarmonicSettings.TraceHarmonic[0].HarmonicMode";
const std::string kMainPLLBw = "MeasurementSettings.MeasPhaseNoiseSettings.SubSweepSettings.MainPLLBw";

const std::string kStart = kPN + "XAxisStart";
const std::string kStop = kPN + "XAxisStop";
const std::string kMaximum = "InstrumentConfigInfo.MaximumFrequency";
const std::string kRecent = kPN + "RecentlyUsed.";

std::string Segment(int i, const std::string& member) {
    return kPN + "FreqOffsets[" + std::to_string(i) + "]." + member;
}
std::string UserRow(int family, int i, const std::string& member) {
    return "NoiseFreqTablePreset[" + std::to_string(family) + "].CarrierFreqOffsetPreset[" + std::to_string(i) + "]." +
           member;
}

class Coupling : public RuleTest {
protected:
    void LoadTables() { Run({Set("OptionStateInfo.LoadNoiseFreqTables", 1, S_OK)}); }
    // The total measurement time by the documented formula, from the tree.
    double ExpectedTotal() {
        const double low = StartLadder(static_cast<ULONG>(Read(kStart)));
        const double high = StopLadder(static_cast<ULONG>(Read(kStop)));
        double total = 0;
        for (int i = 0; i < Read(kPN + "NumFreqOffsets"); ++i) {
            const double time = Read(Segment(i, "MeasTime"));
            if (!std::isnan(time) && Read(Segment(i, "Start")) < high && Read(Segment(i, "Stop")) > low) total += time;
        }
        return std::min(total, 5e10);
    }
};

TEST_F(Coupling, SweepSetUpChoosesTheTableByNoiseTypeAndMode) {
    // No tables loaded: nothing copied, nothing to measure. The total is the
    // database's to write.
    Run({Set(kMode, 1), Is(kPN + "NumFreqOffsets", 0), Is(kPN + "TotalMeasTime", 0),
         Set(kPN + "TotalMeasTime", 5, E_INVALIDARG)});
    LoadTables();
    Run({// PLL, normal: table 1 into the standard user table and the segments.
         Is(Segment(5, "RBW"), 0.1), Is(Segment(5, "SweepCount"), 3), Is(UserRow(0, 5, "RBW"), 0.1),
         Is(kPN + "NumFreqOffsets", 25), Is(kPN + "NumFreqOffsetsPLL", 25), Is(Segment(24, "IsSpanActive"), 1),
         Is("GuiSettings.NoiseFreqOffsetReadOnly", 1), Is("GuiSettings.FreqOffsetReadOnly[5].RBWReadOnly", 1),
         // Fast: table 0.
         Set(kMode, 0), Is(Segment(19, "RBW"), 3e6), Is(Segment(19, "UseFFTFilter"), 0),
         // Baseband (remembered mode 0): table 8, 15 rows.
         Set(kType, eNOISETYPE_BASEBAND), Is(Segment(0, "Start"), 1), Is(Segment(0, "RBW"), 0.3),
         Is(kPN + "NumFreqOffsets", 15), Is(kPN + "NumFreqOffsetsBaseband", 15), Is(Segment(15, "IsSpanActive"), 0),
         // Analyser: the option P17 family, from 1 Hz.
         Set(kType, eNOISETYPE_ANALYSER), Is(kPN + "NumFreqOffsets", 21), Is(Segment(0, "Start"), 1),
         Is(Segment(0, "RBW"), 1),
         // Residual, manual: an empty user table takes table 15.
         Set(kType, eNOISETYPE_RESIDUAL), Set(kMode, 3), Is(kPN + "NumFreqOffsets", 19), Is(UserRow(3, 0, "RBW"), 3e-3),
         Is(UserRow(3, 0, "SweepCount"), 1), Is("GuiSettings.NoiseFreqOffsetReadOnly", 0),
         Is("GuiSettings.FreqOffsetReadOnly[3].RBWReadOnly", 0)});
}

TEST_F(Coupling, ManualRowsSurviveSwitchingNoiseTypes) {
    LoadTables();
    Run({Set(kMode, 3), Is(Segment(10, "RBW"), 30),  // starts from the user's table (the fast preset)
         Set(Segment(10, "RBW"), 20, S_OK), Is(UserRow(0, 10, "RBW"), 20), Set(Segment(10, "SweepCount"), 7),
         Is(UserRow(0, 10, "SweepCount"), 7), Set(kType, eNOISETYPE_BASEBAND), Set(kType, eNOISETYPE_PLL),
         Is(Segment(10, "RBW"), 20), Is(Segment(10, "SweepCount"), 7),
         // Another mode replaces them with its preset.
         Set(kMode, 0), Is(Segment(10, "RBW"), 30)});
}

TEST_F(Coupling, SegmentRBWIsCheckedAndTimed) {
    LoadTables();
    Run({Set(Segment(10, "RBW"), 20, E_INVALIDARG), Is(Segment(10, "RBW"), 30),  // not the manual mode
         Set(kMode, 3), Set(Segment(10, "RBW"), 2000, E_INVALIDARG),             // above its start, 1 kHz
         Set(Segment(19, "RBW"), 0.5, E_INVALIDARG),                             // below the swept filter's 1 Hz
         Set(Segment(10, "RBW"), 0.5e-3, E_INVALIDARG),                          // below the FFT filter's 1 mHz
         Set(Segment(10, "RBW"), 1e9, E_INVALIDARG), Is(Segment(10, "RBW"), 30),
         // FFT: N / B; swept: N·2·span / B².
         Is(Segment(10, "MeasTime"), 10 / 30.0), Is(Segment(19, "MeasTime"), 1 * 2.0 * (100e6 - 30e6) / (3e6 * 3e6)),
         Set(Segment(10, "RBW"), 10, S_OK), Set(Segment(10, "SweepCount"), 4), Is(Segment(10, "MeasTime"), 4 / 10.0),
         Set(Segment(10, "UseFFTFilter"), 0), Is(Segment(10, "MeasTime"), 4 * 2.0 * (3e3 - 1e3) / (10.0 * 10.0))});
}

TEST_F(Coupling, PresetRowAppliesWhereItFits) {
    LoadTables();
    const std::string preset = kPN + "PresetSettings.";
    Run({Set(preset + "RBW", 10, E_INVALIDARG), Set(kMode, 3), Set(preset + "SweepCount", 5),
         Set(preset + "UseFFTFilter", 1), Set(preset + "RBW", 10, S_OK), Is(Segment(0, "RBW"), 3e-3),
         Is(Segment(5, "RBW"), 0.3),  // starts below 10 Hz keep theirs
         Is(Segment(6, "RBW"), 10), Is(Segment(6, "SweepCount"), 5), Is(UserRow(0, 6, "RBW"), 10),
         Is(Segment(18, "RBW"), 10), Is(Segment(19, "UseFFTFilter"), 0)});  // no FFT from 30 MHz
}

TEST_F(Coupling, SignalFrequency) {
    Run({Set(kPN + "SignalFreq", 1e9 + 0.4, S_OK), Is(kPN + "SignalFreq", 1e9), Is(kPN + "AFCTargetFreq", 1e9),
         Is(kPN + "RecentlyUsed.FreqTolerance", 1000), Is(kPN + "RecentlyUsed.FreqTolerancePercentage", 0.001),
         Set(kPN + "SignalFreq", 1e5), Is(kPN + "RecentlyUsed.FreqTolerancePercentage", 1),
         Set(kPN + "FreqTolerance", 2000), Is(kPN + "RecentlyUsed.FreqTolerancePercentage", 2),
         Set("InstrumentConfigInfo.MaximumFrequency", 2e10), Set(kPN + "SignalFreq", 3e10, E_INVALIDARG),
         Is(kPN + "SignalFreq", 1e5), Is(kPN + "AFCTargetFreq", 1e5)});
}

TEST_F(Coupling, SignalLevelAsksForThePreamplifier) {
    Run({Set(kPN + "SignalLevel", -30), Is(kMessage, eMESSAGE_BLANK),
         Set("InstrumentConfigInfo.Option.PreAmpAvailable", 1), Is(kMessage, eMESSAGE_ENABLE_PREAMP),
         Set("UserSettings.LevelSettings.PreAmplifierState", 1), Is(kMessage, eMESSAGE_BLANK),
         Set(kPN + "SignalLevel", 40, E_INVALIDARG)});
}

TEST_F(Coupling, HarmonicSelection) {
    const std::string harmonic = kLoop + "PhaseDetHarmonic";
    Run({Set(kPN + "SignalFreq", 20e9), Is(harmonic, 3), Is(kLoop + "PhaseDetHarmonicDisabled", 1),
         Set(kLoop + "AutoHarmonic", 1, S_FALSE), Set(harmonic, 5, E_INVALIDARG), Set(kLoop + "AutoHarmonic", 0),
         Is(kLoop + "PhaseDetHarmonicDisabled", 0), Set(harmonic, 2, E_INVALIDARG), Set(harmonic, 4, S_OK),
         Set(kPN + "SignalFreq", 30e9), Is(harmonic, 5), Set(kLoop + "AutoHarmonic", 1),
         Is(kLoop + "PhaseDetHarmonicDisabled", 1), Set(kType, eNOISETYPE_ANALYSER),
         Is(kLoop + "AutoHarmonicDisabled", 1)});
}

TEST_F(Coupling, VCOHarmonicsStayWithinReach) {
    Run({Set(kPN + "SignalFreq", 20e9), Set(kTrace0, 3, E_INVALIDARG), Set(kTrace0, 2, S_OK),
         Set(kPN + "SignalFreq", 30e9), Is(kTrace0, eHARMONIC_OFF)});
}

TEST_F(Coupling, LoopBandwidthStaysBelowTheLowestOffset) {
    const std::string bw = kLoop + "VCOLoopBW";
    Run({Set(kStart, 8), Is(bw, 10),  // auto: a tenth of 100 Hz
         Set(bw, 50, E_INVALIDARG), Is(kPN + "LoopBWAuto", 1), Set(bw, 30, S_OK), Is(kPN + "LoopBWAuto", 0),
         Set(kStart, 6), Is(bw, 3),  // a third of 10 Hz
         Set(kStart, 0), Is(bw, 1), Set(kType, eNOISETYPE_BASEBAND), Is(kLoop + "VCOLoopBWDisabled", 1)});
}

TEST_F(Coupling, LoopGainFollowsSlopesAndBandwidth) {
    Run({Set(kLoop + "PhaseDetSlope", 0.5), Set(kLoop + "GenSlope", -1e6), Set(kLoop + "VCOLoopGain", 3, E_INVALIDARG),
         Is(kLoop + "VCOLoopGain", 20.0 * std::log10(1e3 / (0.5 * 1e6))), Set(kStart, 4),
         Is(kLoop + "VCOLoopGain", -100),  // 1 Hz: auto bandwidth 1 Hz, the gain capped
         Set(kLoop + "LPNPhaseDetSlope", 0.5), Set(kLoop + "LPNGenSlope", 10),
         Is(kLoop + "LPNVCOLoopGain", 20.0 * std::log10(1 / (0.5 * 10)))});
}

TEST_F(Coupling, MainPLLBandwidthByDisplayedRange) {
    Run({Set(kType, eNOISETYPE_ANALYSER), Set(kStart, 14), Is(kMainPLLBw, ePLLBW_WIDE), Set(kStart, 10),
         Is(kMainPLLBw, ePLLBW_NORMAL), Set(kStop, 11), Is(kMainPLLBw, ePLLBW_NARROW), Set(kType, eNOISETYPE_PLL),
         Is(kMainPLLBw, ePLLBW_NOSETTING)});
}

TEST_F(Coupling, AFCNeedsATuningPort) {
    const std::string port = kPort1 + "TuningPort1.EnablePort";
    Run({Set(kPN + "AFCOn", 1, E_INVALIDARG), Is(kPN + "AFCOn", 0), Set(port, 1), Is("GuiSettings.AFCOnReadOnly", 0),
         Set(kPN + "AFCOn", 1, S_OK), Is("GuiSettings.AFCLabelDisplayed", 1), Is("GuiSettings.AFCToleranceReadOnly", 0),
         Set(kPN + "AFCToleranceAuto", 1), Is("GuiSettings.AFCToleranceReadOnly", 1), Set(port, 0),
         Is(kPN + "AFCOn", 0), Is(kMessage, eMESSAGE_AFC_VTUNE_OFF), Is("GuiSettings.AFCLabelDisplayed", 0),
         Set(port, 1), Is(kMessage, eMESSAGE_BLANK)});
}

TEST_F(Coupling, TrackingAndDUTType) {
    const std::string tracking = kPN + "UserPLLSettings.Tracking";
    Run({Set(tracking, 1000, S_OK), Set(kPN + "DUTType", eDUTTYPE_OCXO), Is(tracking, 0),
         Is(kMessage, eMESSAGE_TRACKING_DISABLED), Is(kLoop + "AutoDUTPremeas", 0), Set(tracking, 5, E_INVALIDARG),
         Set(tracking, 0, S_FALSE), Set(kPN + "DUTType", eDUTTYPE_AUTO), Is(kMessage, eMESSAGE_BLANK),
         Is(kLoop + "AutoDUTPremeas", 1), Set(kType, eNOISETYPE_ANALYSER), Is("GuiSettings.DUTTypeReadOnly", 1)});
}

TEST_F(Coupling, InputCouplingFlags) {
    Run({Set(kType, eNOISETYPE_BASEBAND), Is("GuiSettings.BaseBandCouplingReadOnly", 0), Set(kType, eNOISETYPE_PLL),
         Is("GuiSettings.BaseBandCouplingReadOnly", 1), Is("GuiSettings.BaseBandImpedanceReadOnly", 1)});
}

TEST_F(Coupling, CrossCorrelationNeedsItsOption) {
    const std::string selected = kPN + "XCorrSelected";
    Run({Set(selected, 1, E_INVALIDARG), Set("InstrumentConfigInfo.Option.XCorrExtension", 1),
         Is("GuiSettings.XCorrAvailable", 1), Set(selected, 1, S_OK), Set(kType, eNOISETYPE_BASEBAND), Is(selected, 0),
         Is("GuiSettings.XCorrAvailable", 0), Set(kType, eNOISETYPE_RESIDUAL), Set(selected, 1, S_OK),
         Set("OptionStateInfo.XCorrDisabled", 1), Is(selected, 0)});
}

TEST_F(Coupling, PushingStepFitsTheSupplyRange) {
    const std::string port = kPort1 + "DCPort1.";
    Run({Set(port + "PushingVoltage", 2, E_INVALIDARG), Set(port + "PushingVoltage", 0.4, S_OK),
         Set(port + "SupplyVoltageMax", 5.0), Is(port + "PushingVoltage", 0.25)});
}

// Random valid writes among the coupled settings, seeded; after each one the
// invariants of docs/coupling.md hold, among them the total measurement time
// over the displayed segments.
TEST_F(Coupling, InvariantsHoldAfterEveryWrite) {
    LoadTables();
    struct SWrite {
        std::string name;
        double low, high;
        bool logarithmic;
    };
    const auto Lin = [](std::string n, double lo, double hi) { return SWrite{std::move(n), lo, hi, false}; };
    const auto Log = [](std::string n, double lo, double hi) { return SWrite{std::move(n), lo, hi, true}; };
    // clang-format off
    std::vector<SWrite> writes = {
        Log(kPN + "SignalFreq", 10, 6e10), Lin(kPN + "SignalLevel", -110, 40), Lin(kMode, 0, 4), Lin(kType, 0, 3),
        Lin(kStart, 0, 25), Lin(kStop, 0, 25), Log(kPN + "PresetSettings.RBW", 1e-4, 1e8),
        Lin(kPN + "PresetSettings.SweepCount", 1, 1000), Lin(kPN + "PresetSettings.UseFFTFilter", 0, 1),
        Lin(kLoop + "AutoHarmonic", 0, 1), Lin(kLoop + "PhaseDetHarmonic", 0, 11), Lin(kPN + "LoopBWAuto", 0, 1),
        Log(kLoop + "VCOLoopBW", 0.5, 2e7), Lin(kLoop + "PhaseDetSlope", 0, 2), Lin(kLoop + "GenSlope", -1e7, 1e7),
        Lin(kPN + "AFCOn", 0, 1), Lin(kPort1 + "TuningPort1.EnablePort", 0, 1), Lin(kPN + "DUTType", 0, 5),
        Lin(kPN + "UserPLLSettings.Tracking", 0, 2e6), Lin(kPN + "XCorrSelected", 0, 1),
        Lin("InstrumentConfigInfo.Option.XCorrExtension", 0, 1), Lin(kPort1 + "DCPort1.PushingVoltage", 0, 3),
        Lin(kPort1 + "DCPort1.SupplyVoltageMax", 4, 6), Lin(kTrace0, 0, 11)};
    // clang-format on
    for (int i = 0; i < 25; i += 3) {
        writes.insert(writes.end(), {Log(Segment(i, "RBW"), 1e-4, 1e8), Lin(Segment(i, "SweepCount"), 1, 1000),
                                     Lin(Segment(i, "UseFFTFilter"), 0, 1)});
    }
    // What is watched: every written parameter, the derived ones and the flags.
    std::vector<std::string> watched;
    for (const SWrite& w : writes) watched.push_back(w.name);
    for (int i = 0; i < 25; ++i)
        for (const char* m : {"Start", "Stop", "RBW", "SweepCount", "UseFFTFilter", "IsSpanActive", "MeasTime"})
            watched.push_back(Segment(i, m));
    for (const char* m : {"TotalMeasTime", "NumFreqOffsets", "AFCTargetFreq", "RecentlyUsed.FreqTolerancePercentage"})
        watched.push_back(kPN + m);
    for (const char* m : {"VCOLoopGain", "LPNVCOLoopGain", "PhaseDetHarmonicDisabled", "AutoDUTPremeas"})
        watched.push_back(kLoop + m);
    watched.insert(watched.end(), {kMessage, kMainPLLBw, "GuiSettings.XCorrAvailable", "GuiSettings.AFCOnReadOnly"});
    std::vector<ComPtr<IParameterReal>> reals;
    for (const std::string& name : watched)
        if (auto real = As<IParameterReal>(name)) reals.push_back(real);

    std::mt19937 random(20240611);
    const auto snapshot = [&] {  // NaN (no value) as none, so that snapshots compare equal
        std::vector<std::optional<double>> values;
        for (const std::string& name : watched) {
            const double v = Read(name);
            values.push_back(std::isnan(v) ? std::nullopt : std::optional(v));
        }
        return values;
    };
    for (int step = 0; step < 2000; ++step) {
        const SWrite& w = writes[random() % writes.size()];
        const double u = std::uniform_real_distribution<double>(0, 1)(random);
        double value = w.logarithmic ? w.low * std::pow(w.high / w.low, u) : w.low + u * (w.high - w.low);
        if (!w.logarithmic && w.high - w.low >= 1 && w.high < 1e3) value = std::round(value);
        const auto before = snapshot();
        const HRESULT hr = Write(w.name, value);
        SCOPED_TRACE("step " + std::to_string(step) + ": " + w.name + " = " + std::to_string(value));
        if (FAILED(hr)) {
            ASSERT_EQ(hr, E_INVALIDARG);
            ASSERT_EQ(before, snapshot());
        }
        for (const auto& real : reals) {
            double v = 0, low = 0, high = 0;
            if (real->get_Value(&v) != S_OK || real->get_Minimum(&low) != S_OK || real->get_Maximum(&high) != S_OK ||
                low >= high)
                continue;
            ASSERT_GE(v, low);
            ASSERT_LE(v, high);
        }
        ASSERT_LE(Read(kStart), Read(kStop));
        ASSERT_EQ(Read(kPN + "TotalMeasTime"), ExpectedTotal());
    }
}

using DisplayAxes = RuleTest;

TEST_F(DisplayAxes, SelectionListsAndSelectableRange) {
    const std::string table = "OtherSettings.FreqOffsetTable";
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
        Run({Set(kMaximum, 5e10), Set(kType, eNOISETYPE_PLL), Set(table, eFREQOFFSET_30MHZ), Set(kStop, 24),
             Set(kStart, row.start), Set(kMaximum, row.maximum), Set(table, row.table), Set(kType, row.type),
             Is(kStart, row.expectedStart)});
        const auto last = [&](const std::string& list) { return Text(list).substr(Text(list).rfind(':') + 1); };
        EXPECT_EQ(
            std::tuple(last(kStart + "Strings"), last(kStop + "Strings"), Limits(kStop).first, Limits(kStart).second),
            std::tuple(row.startEnd, row.stopEnd, row.lowest, row.highest));
    }
    EXPECT_EQ(Text(kStop + "Strings"),
              "0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
              "1 MHz:3 MHz:10 MHz:30 MHz");
    // A client's choice outside the selectable range is refused.
    Run({Refused(kStart, 19, "19 (30 MHz) is not selectable")});
}

TEST_F(DisplayAxes, StartStopOrderAndFrequencyBound) {
    // Start above stop is set equal, not swapped; so is stop below start.
    Run({Set(kStop, 12), Set(kStart, 15, S_OK), Is(kStart, 12), Is(kStop, 12), Set(kStop, 5, S_OK), Is(kStop, 12)});
    // Analyser: index 16 is 1 MHz on the start ladder, 15 gives 9.9999e9 +
    // 3e5, 14 exactly 1e10 (not below): the stop index becomes 13. With no
    // offset below the maximum it becomes 4, and the start index follows.
    // The baseband type has no bound.
    Run({Set(kStart, 10), Set(kType, eNOISETYPE_ANALYSER), Set(kMaximum, 1e10), Set(kPN + "SignalFreq", 9.9999e9),
         Set(kStop, 16, S_OK), Is(kStop, 13), Is(kStart, 10), Set(kPN + "SignalFreq", 1e10), Is(kStop, 4),
         Is(kStart, 4), Set(kType, eNOISETYPE_BASEBAND), Set(kStop, 16, S_OK), Is(kStop, 16)});
}

using RecentlyUsed = RuleTest;

TEST_F(RecentlyUsed, RememberedPerNoiseType) {
    const std::string readOnly = "GuiSettings.FFTWindowReadOnly", window = kPN + "FFTWindow";
    Run({// Copied into the current type's member, also an unchanged value.
         Set(kType, eNOISETYPE_ANALYSER), Set(window, 2), Is(kRecent + "FFTWindowOnNoiseAnalyser", 2), Is(readOnly, 1),
         Set(kType, eNOISETYPE_PLL), Set(window, 3), Is(kRecent + "FFTWindowOnNoisePLL", 3), Is(readOnly, 0),
         Set(kType, eNOISETYPE_BASEBAND), Set(window, 1, S_OK), Set(kMode, 3, S_OK),
         Is(kRecent + "SweepModeOnNoiseBaseband", 3), Set(kType, eNOISETYPE_RESIDUAL),
         Set(kRecent + "FFTWindowOnNoiseResidual", 2), Set(window, 0, S_FALSE),
         Is(kRecent + "FFTWindowOnNoiseResidual", 0), Is(readOnly, 0),
         // A refused write changes nothing else.
         Set(window, 4, E_INVALIDARG), Is(kRecent + "FFTWindowOnNoiseResidual", 0),
         // Switching types restores what each type remembered.
         Set(kType, eNOISETYPE_ANALYSER), Is(window, 2), Is(readOnly, 1), Set(kType, eNOISETYPE_PLL), Is(window, 3),
         Is(readOnly, 0), Set(kType, eNOISETYPE_BASEBAND), Is(kMode, 3)});
}

TEST_F(RecentlyUsed, AFCToleranceAbsoluteOrRelative) {
    const std::string tolerance = kPN + "AFCTolerance";
    Run({Set(tolerance, 5000), Is(kRecent + "AFCTolerance", 5000),
         // Relative: the percentage's limits, unit and remembered value.
         Set(kPN + "AFCToleranceRel", 1), Is(tolerance, 1), Set(tolerance, 2.5),
         Is(kRecent + "AFCTolerancePercentage", 2.5), Is(kRecent + "AFCTolerance", 5000),
         Set(tolerance, 500, E_INVALIDARG), Set(kPN + "AFCToleranceRel", 0), Is(tolerance, 5000)});
    const auto unit = [&] {
        eUNIT u = eUNIT_NONE;
        EXPECT_EQ(Get<IParameterReal>(tolerance)->get_Units(&u), S_OK);
        return u;
    };
    EXPECT_EQ(unit(), eUNIT_HZ);
    Run({Set(kPN + "AFCToleranceRel", 1)});
    EXPECT_EQ(unit(), eUNIT_RATIO);
}

}  // namespace
