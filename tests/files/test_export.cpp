// The trace and spur export of OtherSettings.ExportedTrace over the real
// tree: the lines written per kind and control, the decimal comma, the
// result OR-ed into the assignment's HRESULT and the safe replacement of the
// file. Files go to the test's own scratch directory (absolute host paths
// pass the path mapping unchanged).

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>

#include "files/Export.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;
namespace fs = std::filesystem;

namespace {

const std::string kOther = "OtherSettings.";
const std::string kPNTrace = "MeasurementResults.PhaseNoiseResults.DisplayTrace[";

class ExportTest : public DrivesTreeTest {
protected:
    void SetUp() override {
        DrivesTreeTest::SetUp();
        fs::create_directories(drives_);
        file_ = drives_ / "trace.csv";
        CreateTree();
        Fresh();
    }
    // The tree at its defaults, the export going to file_.
    void Fresh() {
        fs::remove(file_);
        ASSERT_EQ(db_->Reset(), S_OK);
        Run({SetText(kOther + "NewTraceFile", file_.string()), SetText(kOther + "NewSpursFile", file_.string())});
    }
    // A phase-noise display trace (index t) of the given points.
    void PNTrace(int t, const std::vector<double>& x, const std::vector<double>& y) {
        PutArray(kPNTrace + std::to_string(t) + "].X", x);
        PutArray(kPNTrace + std::to_string(t) + "].Y", y);
    }
    void Controls(ULONG kind, bool header, bool allTraces = false, bool dots = true, ULONG type = 0) {
        Run({Set("OptionStateInfo.CurrentGraphType", kind), Set(kOther + "TraceExportHeader", header),
             Set(kOther + "TraceExportAllTraces", allTraces), Set(kOther + "DotDecimalStyle", dots),
             Set(kOther + "NewDataFileType", type)});
    }
    HRESULT Export() { return Get<IParameterBoolean>(kOther + "ExportedTrace")->put_Value(VARIANT_TRUE); }
    std::string File() const {
        const std::vector<BYTE> bytes = FileBytes(file_);
        return {bytes.begin(), bytes.end()};
    }
    // The file's lines without their CR LF (a line without one fails).
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream text(File());
        for (std::string line; std::getline(text, line); lines.push_back(line)) {
            EXPECT_TRUE(line.ends_with('\r')) << "no CR LF after " << line;
            if (line.ends_with('\r')) line.pop_back();
        }
        return lines;
    }

    fs::path file_;
};

// Small files compared whole: a trace without header, with either decimal
// mark, a spur list or none, and a transient trace the squelch blanks.
TEST_F(ExportTest, WholeFiles) {
    const std::string spurs = "MeasurementResults.PhaseNoiseResults.PLLResults.";
    const std::string transient = "MeasurementResults.TransientResults.";
    const std::vector<SStep> none,
        spurList = {Set(spurs + "SpurListLength", 2), Set(spurs + "SpurList[0].SpurFrequency", 1500),
                    Set(spurs + "SpurList[0].SpurPower", -80.5), Set(spurs + "SpurList[1].SpurFrequency", 2e6),
                    Set(spurs + "SpurList[1].SpurPower", -90)},
        squelch = {Set("UserSettings.TransientSettings.TransientSquelchSettings.SquelchEnabled", 1),
                   Set(transient + "SquelchSweepLimitIdx", 2)};
    const struct {
        const char* name;
        const std::vector<SStep>& writes;
        ULONG kind;
        bool dots;
        ULONG type;
        const char* expected;
    } cases[] = {
        {"trace", none, eGRAPH_PNOISEPLL, true, 0,
         "Measurement;PNoise;PLL\r\nTrace;2;\r\nTrace Mode;CLRWR;\r\nSmoothing;OFF;\r\nSmoothing Window;0.00;%\r\n"
         "x-Unit;Hz;\r\ny-Unit;dBc/Hz;\r\nValues;2;\r\n1000.000000;-100.500000;\r\n10000.000000;-120.250000;\r\n"},
        {"trace with commas", none, eGRAPH_PNOISEPLL, false, 0,
         "Measurement;PNoise;PLL\r\nTrace;2;\r\nTrace Mode;CLRWR;\r\nSmoothing;OFF;\r\nSmoothing Window;0,00;%\r\n"
         "x-Unit;Hz;\r\ny-Unit;dBc/Hz;\r\nValues;2;\r\n1000,000000;-100,500000;\r\n10000,000000;-120,250000;\r\n"},
        {"no spurs", none, eGRAPH_PNOISEPLL, true, 1,
         "x-Unit;Hz;\r\ny-Unit;dBc;\r\nMeasurement;PNoise;PLL\r\nNo spurs\r\n"},
        {"no baseband spurs", none, eGRAPH_PNOISEBASEBAND, true, 1,
         "x-Unit;Hz;\r\ny-Unit;dBV;\r\nMeasurement;PNoise;Baseband\r\nNo spurs\r\n"},
        {"spurs", spurList, eGRAPH_PNOISEPLL, true, 1,
         "x-Unit;Hz;\r\ny-Unit;dBc;\r\nMeasurement;PNoise;PLL\r\nSpurs;2;\r\n1500.000000;-80.500000;\r\n"
         "2000000.000000;-90.000000;\r\n"},
        {"squelched transient", squelch, eGRAPH_TRANSIENT, true, 0,
         "Measurement;Transient;Frequency\r\nTrace;1;\r\nTrace Mode;CLRWR;\r\nSmoothing;OFF;\r\n"
         "Smoothing Window;0.00;%\r\nx-Unit;s;\r\ny-Unit;Hz;\r\nValues;4;\r\n0.000000e+00;9.910000e+37;\r\n"
         "1.000000e-06;9.910000e+37;\r\n2.000000e-06;3.000000e+01;\r\n3.000000e-06;4.000000e+01;\r\n"},
    };
    PNTrace(1, {1000, 10000}, {-100.5, -120.25});
    PutArray(transient + "TransientDisplayTrace[0].Time", {0, 1e-6, 2e-6, 3e-6});
    PutArray(transient + "TransientDisplayTrace[0].FrequencyUpper", {10, 20, 30, 40});
    Run({Set("DisplaySettings.PhaseNoiseTrace.SelectedTrace", 2)});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Run(c.writes);
        Controls(c.kind, false, false, c.dots, c.type);
        EXPECT_EQ(Export(), S_OK);
        EXPECT_EQ(File(), c.expected);
    }
}

// Key lines of the header and the trace blocks per kind and setting: the
// lines starting so ("|" between them) and the lines that are not there.
TEST_F(ExportTest, KeyLines) {
    const std::string pn = "UserSettings.PhaseNoiseSettings.", sweeps = "MeasurementSettings.MeasPhaseNoiseSettings.";
    const std::vector<SStep> none,
        signal = {Set(pn + "SignalFreq", 1e6)}, residual = {Set(pn + "UserPLLSettings.RPNSelectedConfig", 1)},
        relative = {Set(pn + "AFCToleranceRel", 1), Set(pn + "AFCTolerance", 5)},
        bands = {Set(sweeps + "ValidMeasSweepSettings", 2), Set(sweeps + "MeasSweepSettings[1].VBW", 100)},
        splitScreen = {Set("DisplaySettings.SplitScreen", 1)};
    const struct {
        const char* name;
        ULONG kind;
        bool dots;
        const std::vector<SStep>& writes;
        const char *present, *absent;
    } cases[] = {
        {"phase-noise header", eGRAPH_PNOISEPLL, true, signal,
         "Type;ZLM Dogwood;|Use Port;Port1;|Vcc1 Set;5.000;V|DUTFreq;0.000000;Hz|Harmonic;1|"
         "Signal Frequency;1000000.000000;Hz|Window Type;Blackman Harris;|AFC Tolerance;1000.000000;Hz|"
         "TSetup;INT;INT;GEN;|Measurement;PNoise;PLL",
         "Mode;Frequency;|Freq Start;|AFC Tolerance;1000.000000;%"},
        {"commas, everywhere", eGRAPH_PNOISEPLL, false, signal, "Signal Frequency;1000000,000000;Hz|Vcc1 Set;5,000;V",
         "Signal Frequency;1000000.000000;Hz"},
        {"transient header with commas", eGRAPH_TRANSIENT, false, none,
         "Mode;Frequency;|Trigger;Freerun;|Ext, Trigger Level;1,400000;V|Measurement;Transient;Frequency",
         "Signal Frequency;0,000000;Hz|DUTFreq;0,000000;Hz"},
        {"residual noise", eGRAPH_RESIDUALPNOISE, true, residual,
         "Max + Min Phase Detector Voltage;OFF;|Phase Detector Characteristic;Sine (0dB);|TSetup;EXT;|"
         "Measurement;PNoise;Residual",
         "DUTFreq;0.000000;Hz"},
        {"relative AFC tolerance", eGRAPH_PNOISEANALYSER, true, relative,
         "AFC Tolerance Relative;ON;|AFC Tolerance;5.000000;%|Measurement;PNoise;Spectrum",
         "AFC Tolerance;1000.000000;Hz|DUTFreq;0.000000;Hz"},
        {"sweep bands", eGRAPH_PNOISEXCORR, true, bands,
         "SubSweep;1;|SubSweep;2;|VBW;AUTO;|VBW;100.000000;Hz|Measurement;PNoise;CCorelation", "SubSweep;3;"},
        {"split VCO tuning", eGRAPH_VCOTUNING, true, splitScreen,
         "Freq Start;|Counter Resolution;1000.000000;Hz|TSetup;INT;INT;GEN;|Trace;1;ScreenA|Trace;1;ScreenB|"
         "Measurement;VCO;TChar",
         "Trace;1;"},
    };
    const auto split = [](std::string text) {
        std::vector<std::string> parts;
        for (std::size_t bar; (bar = text.find('|')) != std::string::npos; text.erase(0, bar + 1))
            parts.push_back(text.substr(0, bar));
        parts.push_back(text);
        return parts;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fresh();
        Controls(c.kind, true, false, c.dots);
        Run(c.writes);
        EXPECT_EQ(Export(), S_OK);
        const auto lines = Lines();
        for (const std::string& line : split(c.present))
            EXPECT_TRUE(std::ranges::any_of(lines, [&](const auto& l) { return l.starts_with(line); })) << line;
        for (const std::string& line : split(c.absent)) EXPECT_EQ(std::ranges::count(lines, line), 0) << line;
    }
}

TEST_F(ExportTest, AllTracesNumbered) {
    PNTrace(2, {1, 2, 3}, {-1, -2, -3});
    Controls(eGRAPH_PNOISEPLL, false, true);
    EXPECT_EQ(Export(), S_OK);
    const auto lines = Lines();
    std::string traces;
    for (const std::string& line : lines)
        if (line.starts_with("Trace;")) traces += line;
    EXPECT_EQ(traces, "Trace;1;Trace;2;Trace;3;Trace;4;Trace;5;Trace;6;Trace;7;Trace;8;");
    EXPECT_EQ(std::ranges::count(lines, "No trace Data"), 7);
    EXPECT_EQ(std::ranges::count(lines, "Values;3;"), 1);
}

// Every assignment exports, whatever the value and however it is made.
TEST_F(ExportTest, EveryAssignmentExports) {
    Controls(eGRAPH_PNOISEPLL, false);
    auto exported = Get<IParameterBoolean>(kOther + "ExportedTrace");
    const std::function<HRESULT()> ways[] = {
        [&] { return exported->put_Value(VARIANT_FALSE); },
        [&] { return exported->put_Value(VARIANT_TRUE); },
        [&] { return exported->AssignValue(VARIANT_FALSE, 3); },
        [&] { return exported->SetValueNoCallback(VARIANT_FALSE); },
    };
    for (const auto& way : ways) {
        fs::remove(file_);
        EXPECT_EQ(way(), S_OK);
        EXPECT_TRUE(fs::exists(file_));
    }
}

TEST_F(ExportTest, EmptyNameWritesNothing) {
    Run({SetText(kOther + "NewTraceFile", "")});
    EXPECT_EQ(Export(), S_OK);
    for (const auto& entry : fs::recursive_directory_iterator(drives_))
        EXPECT_FALSE(entry.is_regular_file()) << entry.path();
}

// A failed export reports 6 in a success code, with its reason, and leaves
// the file that was there.
TEST_F(ExportTest, FailureKeepsTheFile) {
    const struct {
        const char* name;
        std::function<void()> setup;
        const char* reason;
    } cases[] = {
        {"read-only file", [&] { fs::permissions(file_, fs::perms::owner_read); }, "trace.csv"},
        {"missing directory", [&] { Run({SetText(kOther + "NewTraceFile", (drives_ / "none" / "x.csv").string())}); },
         "x.csv"},
        {"no file for the type", [&] { Run({Set(kOther + "NewDataFileType", 2)}); }, "NewDataFileType 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fresh();
        WriteBytes(file_, {'o', 'l', 'd'});
        c.setup();
        Run({Refused(kOther + "ExportedTrace", 1, c.reason, kExportFailed)});
        fs::permissions(file_, fs::perms::owner_all);
        EXPECT_EQ(File(), "old");
    }
}

}  // namespace
