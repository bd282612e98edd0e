// The trace and spur export of OtherSettings.ExportedTrace over the real
// tree: the lines written per kind and control, the decimal comma, the
// result OR-ed into the assignment's HRESULT and the safe replacement of the
// file. Files go to the test's own scratch directory (absolute host paths
// pass the path mapping unchanged).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "files/Export.h"
#include "schema/Database.h"
#include "schema/RuleTestSupport.h"
#include "support/ErrorInfo.h"
#include "support/ScratchDrives.h"

using namespace vorn;
namespace fs = std::filesystem;

namespace {

constexpr char kOther[] = "OtherSettings.";
constexpr char kGraph[] = "OptionStateInfo.CurrentGraphType";
constexpr char kPNTrace[] = "MeasurementResults.PhaseNoiseResults.DisplayTrace[";

class ExportTest : public vorn::test::ScratchDrives, protected vorn::test::TreeAccess {
protected:
    void SetUp() override {
        ScratchDrives::SetUp();
        fs::create_directories(drives_);
        file_ = drives_ / "trace.csv";
        CreateTree();
        Fresh();
    }
    // The tree at its defaults, the export going to file_.
    void Fresh() {
        fs::remove(file_);
        ASSERT_EQ(db_->Reset(), S_OK);
        Name("NewTraceFile", file_.string());
        Name("NewSpursFile", file_.string());
    }
    void TearDown() override {
        db_.reset();
        ScratchDrives::TearDown();
    }

    // A write to a real, integer or Boolean parameter that must succeed.
    void Put(const std::string& name, double v) { EXPECT_TRUE(SUCCEEDED(Write(name, v))) << name; }
    // One of the file names in OtherSettings.
    void Name(const std::string& member, const std::string& path) {
        EXPECT_TRUE(SUCCEEDED(PutText(std::string(kOther) + member, Widen(path)))) << member;
    }
    // A phase-noise display trace (index t) of the given points.
    void PNTrace(int t, const std::vector<double>& x, const std::vector<double>& y) {
        PutArray(kPNTrace + std::to_string(t) + "].X", x);
        PutArray(kPNTrace + std::to_string(t) + "].Y", y);
    }
    void Controls(ULONG kind, bool header, bool allTraces = false, bool dots = true, ULONG type = 0) {
        Put(kGraph, kind);
        Put(std::string(kOther) + "TraceExportHeader", header);
        Put(std::string(kOther) + "TraceExportAllTraces", allTraces);
        Put(std::string(kOther) + "DotDecimalStyle", dots);
        Put(std::string(kOther) + "NewDataFileType", type);
    }
    HRESULT Export(VARIANT_BOOL value = VARIANT_TRUE) {
        return Get<IParameterBoolean>(std::string(kOther) + "ExportedTrace")->put_Value(value);
    }
    std::string File() const {
        std::ifstream in(file_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    // The file's lines without their CR LF (a line without one fails).
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        const std::string text = File();
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find("\r\n", at);
            EXPECT_NE(end, std::string::npos) << "a line without CR LF at " << at;
            if (end == std::string::npos) break;
            lines.push_back(text.substr(at, end - at));
            at = end + 2;
        }
        return lines;
    }
    bool HasLine(const std::string& line) const {
        const auto lines = Lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    fs::path file_;
};

// Small files compared whole: a trace without header, a spur lis
TEST_F(ExportTest, WholeFiles) {
    struct SCase {
        const char* name;
        bool dots;
        ULONG type;
        ULONG kind;
        const char* expected;
    };
    const SCase cases[] = {
        {"trace", true, 0, eGRAPH_PNOISEPLL,
         "Measurement;PNoise;PLL\r\nTrace;2;\r\nTrace Mode;CLRWR;\r\nSmoothing;OFF;\r\nSmoothing Window;0.00;%\r\n"
         "x-Unit;Hz;\r\ny-Unit;dBc/Hz;\r\nValues;2;\r\n1000.000000;-100.500000;\r\n10000.000000;-120.250000;\r\n"},
        {"trace with commas", false, 0, eGRAPH_PNOISEPLL,
         "Measurement;PNoise;PLL\r\nTrace;2;\r\nTrace Mode;CLRWR;\r\nSmoothing;OFF;\r\nSmoothing Window;0,00;%\r\n"
         "x-Unit;Hz;\r\ny-Unit;dBc/Hz;\r\nValues;2;\r\n1000,000000;-100,500000;\r\n10000,000000;-120,250000;\r\n"},
        {"no spurs", true, 1, eGRAPH_PNOISEPLL, "x-Unit;Hz;\r\ny-Unit;dBc;\r\nMeasurement;PNoise;PLL\r\nNo spurs\r\n"},
        {"no baseband spurs", true, 1, eGRAPH_PNOISEBASEBAND,
         "x-Unit;Hz;\r\ny-Unit;dBV;\r\nMeasurement;PNoise;Baseband\r\nNo spurs\r\n"},
    };
    PNTrace(1, {1000, 10000}, {-100.5, -120.25});
    Put("DisplaySettings.PhaseNoiseTrace.SelectedTrace", 2);
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.name);
        Controls(c.kind, false, false, c.dots, c.type);
        EXPECT_EQ(Export(), S_OK);
        EXPECT_EQ(File(), c.expected);
    }
}

TEST_F(ExportTest, SpurList) {
    const std::string spurs = "MeasurementResults.PhaseNoiseResults.PLLResults.";
    Put(spurs + "SpurListLength", 2);
    Put(spurs + "SpurList[0].SpurFrequency", 1500);
    Put(spurs + "SpurList[0].SpurPower", -80.5);
    Put(spurs + "SpurList[1].SpurFrequency", 2e6);
    Put(spurs + "SpurList[1].SpurPower", -90);
    Controls(eGRAPH_PNOISEPLL, false, false, true, 1);
    EXPECT_EQ(Export(), S_OK);
    EXPECT_EQ(File(),
              "x-Unit;Hz;\r\ny-Unit;dBc;\r\nMeasurement;PNoise;PLL\r\nSpurs;2;\r\n1500.000000;-80.500000;\r\n"
              "2000000.000000;-90.000000;\r\n");
}

// Key lines of the header and the trace blocks per kind and setting.
TEST_F(ExportTest, KeyLines) {
    const std::string pn = "UserSettings.PhaseNoiseSettings.", sweeps = "MeasurementSettings.MeasPhaseNoiseSettings.";
    const struct {
        const char* name;
        ULONG kind;
        bool dots;
        std::vector<std::pair<std::string, double>> writes;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    } cases[] = {
        {"phase-noise header",
         eGRAPH_PNOISEPLL,
         true,
         {{pn + "SignalFreq", 1e6}},
         {"Type;ZLM Dogwood;", "Use Port;Port1;", "Vcc1 Set;5.000;V", "DUTFreq;0.000000;Hz", "Harmonic;1",
          "Signal Frequency;1000000.000000;Hz", "Window Type;Blackman Harris;", "AFC Tolerance;1000.000000;Hz",
          "TSetup;INT;INT;GEN;", "Measurement;PNoise;PLL"},
         {"Mode;Frequency;", "Freq Start;", "AFC Tolerance;1000.000000;%"}},
        {"commas, everywhere",
         eGRAPH_PNOISEPLL,
         false,
         {{pn + "SignalFreq", 1e6}},
         {"Signal Frequency;1000000,000000;Hz", "Vcc1 Set;5,000;V"},
         {"Signal Frequency;1000000.000000;Hz"}},
        {"transient header with commas",
         eGRAPH_TRANSIENT,
         false,
         {},
         {"Mode;Frequency;", "Trigger;Freerun;", "Ext, Trigger Level;1,400000;V", "Measurement;Transient;Frequency"},
         {"Signal Frequency;0,000000;Hz", "DUTFreq;0,000000;Hz"}},
        {"residual noise",
         eGRAPH_RESIDUALPNOISE,
         true,
         {{pn + "UserPLLSettings.RPNSelectedConfig", 1}},
         {"Max + Min Phase Detector Voltage;OFF;", "Phase Detector Characteristic;Sine (0dB);", "TSetup;EXT;",
          "Measurement;PNoise;Residual"},
         {"DUTFreq;0.000000;Hz"}},
        {"relative AFC tolerance",
         eGRAPH_PNOISEANALYSER,
         true,
         {{pn + "AFCToleranceRel", 1}, {pn + "AFCTolerance", 5}},
         {"AFC Tolerance Relative;ON;", "AFC Tolerance;5.000000;%", "Measurement;PNoise;Spectrum"},
         {"AFC Tolerance;1000.000000;Hz", "DUTFreq;0.000000;Hz"}},
        {"sweep bands",
         eGRAPH_PNOISEXCORR,
         true,
         {{sweeps + "ValidMeasSweepSettings", 2}, {sweeps + "MeasSweepSettings[1].VBW", 100}},
         {"SubSweep;1;", "SubSweep;2;", "VBW;AUTO;", "VBW;100.000000;Hz", "Measurement;PNoise;CCorelation"},
         {"SubSweep;3;"}},
        {"split VCO tuning",
         eGRAPH_VCOTUNING,
         true,
         {{"DisplaySettings.SplitScreen", 1}},
         {"Freq Start;", "Counter Resolution;1000.000000;Hz", "TSetup;INT;INT;GEN;", "Trace;1;ScreenA",
          "Trace;1;ScreenB", "Measurement;VCO;TChar"},
         {"Trace;1;"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fresh();
        Controls(c.kind, true, false, c.dots);
        for (const auto& [name, value] : c.writes) Put(name, value);
        EXPECT_EQ(Export(), S_OK);
        const auto lines = Lines();
        for (const std::string& line : c.present)
            EXPECT_NE(std::find_if(lines.begin(), lines.end(), [&](const auto& l) { return l.starts_with(line); }),
                      lines.end())
                << line;
        for (const std::string& line : c.absent)
            EXPECT_EQ(std::find(lines.begin(), lines.end(), line), lines.end()) << line;
    }
}

TEST_F(ExportTest, AllTracesNumbered) {
    PNTrace(2, {1, 2, 3}, {-1, -2, -3});
    Controls(eGRAPH_PNOISEPLL, false, true);
    EXPECT_EQ(Export(), S_OK);
    std::vector<std::string> traces;
    int empty = 0;
    for (const std::string& line : Lines()) {
        if (line.starts_with("Trace;")) traces.push_back(line);
        empty += line == "No trace Data";
    }
    EXPECT_EQ(traces, (std::vector<std::string>{"Trace;1;", "Trace;2;", "Trace;3;", "Trace;4;", "Trace;5;", "Trace;6;",
                                                "Trace;7;", "Trace;8;"}));
    EXPECT_EQ(empty, 7);
    EXPECT_TRUE(HasLine("Values;3;"));
}

TEST_F(ExportTest, TransientBlanking) {
    const std::string trace = "MeasurementResults.TransientResults.TransientDisplayTrace[0].";
    PutArray(trace + "Time", {0, 1e-6, 2e-6, 3e-6});
    PutArray(trace + "FrequencyUpper", {10, 20, 30, 40});
    Put("UserSettings.TransientSettings.TransientSquelchSettings.SquelchEnabled", true);
    Put("MeasurementResults.TransientResults.SquelchSweepLimitIdx", 2);
    Controls(eGRAPH_TRANSIENT, false);
    EXPECT_EQ(Export(), S_OK);
    const auto lines = Lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()),
              (std::vector<std::string>{"0.000000e+00;9.910000e+37;", "1.000000e-06;9.910000e+37;",
                                        "2.000000e-06;3.000000e+01;", "3.000000e-06;4.000000e+01;"}));
}

// Every assignment exports, whatever the value and however it is made.
TEST_F(ExportTest, EveryAssignmentExports) {
    Controls(eGRAPH_PNOISEPLL, false);
    auto exported = Get<IParameterBoolean>(std::string(kOther) + "ExportedTrace");
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
    Name("NewTraceFile", "");
    EXPECT_EQ(Export(), S_OK);
    for (const auto& entry : fs::recursive_directory_iterator(drives_))
        EXPECT_FALSE(entry.is_regular_file()) << entry.path();
}

// A failed export reports 6 in a success code, with its reason, and leaves
// the file that was there.
TEST_F(ExportTest, FailureKeepsTheFile) {
    struct SCase {
        const char* name;
        std::function<void()> setup;
        const char* reason;
    };
    const SCase cases[] = {
        {"read-only file", [&] { fs::permissions(file_, fs::perms::owner_read); }, "trace.csv"},
        {"missing directory", [&] { Name("NewTraceFile", (drives_ / "none" / "x.csv").string()); }, "x.csv"},
        {"no file for the type", [&] { Put(std::string(kOther) + "NewDataFileType", 2); }, "NewDataFileType 2"},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.name);
        Fresh();
        std::ofstream(file_, std::ios::binary) << "old";
        c.setup();
        EXPECT_EQ(Export(), kExportFailed);
        EXPECT_NE(vorn::test::TakeError().description.find(c.reason), std::string::npos);
        fs::permissions(file_, fs::perms::owner_all);
        EXPECT_EQ(File(), "old");
    }
}

}  // namespace
