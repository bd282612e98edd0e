// The marker rules: their work on a trace's points (find, the four
// searches, the snap and the decade steps), then on the real tree: name,
// relative X, a client's X snapped to the trace, stepping, readings, Type,
// Visible and the zoom.

#include "core/CoreTestSupport.h"
#include "schema/MarkerSearch.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::marker;
using namespace vorn::test;

namespace {

const std::vector<double> kSearchPoints = {10, 20, 30, 40};
constexpr double kAll = 1e12;

// Modes 0 to 3, the snap (-1 here) within [lower, upper], and find (-2)
// within the point's tolerance: tol(30) = 3e-11.
TEST(MarkerSearch, FindModesAndSnap) {
    const struct {
        int mode;
        double target, lower, upper;
        long expected;
    } rows[] = {
        // clang-format off
        {0, 25, 0, kAll, 2}, {0, 20, 0, kAll, 1}, {0, 45, 0, kAll, -1}, {0, 5, 25, kAll, 2}, {0, 25, 0, 29, -1},
        {1, 25, 0, kAll, 1}, {1, 5, 0, kAll, -1}, {1, 45, 0, 35, 2},
        {2, 20, 0, kAll, 2}, {2, 40, 0, kAll, 3}, {2, 25, 0, kAll, 2}, {2, 5, 0, kAll, 0}, {2, 30, 0, 35, -1},
        {3, 20, 0, kAll, 0}, {3, 10, 0, kAll, 0}, {3, 25, 0, kAll, 1}, {3, 5, 0, kAll, -1}, {3, 30, 25, kAll, -1},
        {-1, 15, 0, kAll, 0}, {-1, 15.0001, 0, kAll, 1}, {-1, 50, 0, kAll, 3}, {-1, 1, 0, kAll, 0},
        {-1, 36, 0, 35, 2}, {-1, 25, 26, kAll, 2}, {-1, 25, 31, 39, -1},
        {-2, 40, 0, 0, 3}, {-2, 30 * (1 + 0.9e-12), 0, 0, 2}, {-2, 30 * (1 + 1.1e-12), 0, 0, -1},
        // clang-format on
    };
    EXPECT_EQ(Find(nullptr, 0, 10), -1);
    const double pair[] = {1e9, 1e9 * (1 + 0.5e-12)};  // both equal to x: the nearer
    EXPECT_EQ(Find(pair, 2, 1e9 * (1 + 0.4e-12)), 1);
    for (const auto& row : rows) {
        const long found = row.mode == -2 ? Find(kSearchPoints.data(), kSearchPoints.size(), row.target)
                           : row.mode < 0
                               ? Snap(kSearchPoints.data(), kSearchPoints.size(), row.target, row.lower, row.upper)
                               : Search(kSearchPoints.data(), kSearchPoints.size(), row.target,
                                        static_cast<ESearch>(row.mode), row.lower, row.upper);
        EXPECT_EQ(found, row.expected) << "mode " << row.mode << " from " << row.target;
    }
}

TEST(MarkerDecadeStep, UpAndDown) {
    const struct {
        double v, up, down;
    } rows[] = {
        {0, 10, -10},     {5, 10, 0},         {10, 100, 1}, {9.5, 10, 0},        {1000, 10000, 100},
        {1500, 1e4, 1e3}, {999999, 1e6, 1e5}, {-5, 0, -10}, {-500, -100, -1000}, {-1000, -100, -10000},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(DecadeUp(row.v), row.up) << row.v;
        EXPECT_EQ(DecadeDown(row.v), row.down) << row.v;
    }
}

const std::string kTrace1 = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].";
const std::string kSpurs1 = "MeasurementResults.PhaseNoiseResults.PLLResults.TraceSpurList[0].";
const std::string kGraph = "OptionStateInfo.CurrentGraphType";
const std::string kZoom = "DisplaySettings.MarkerZoom.";

std::string M(int index, const std::string& member, const std::string& family = "PhaseNoiseMarker") {
    return "Markers." + family + "[" + std::to_string(index) + "]." + member;
}

// Marker `index` valid, delta or not, and on.
std::vector<SStep> On(int index, bool delta = false, const std::string& family = "PhaseNoiseMarker") {
    return {Set(M(index, "Delta", family), delta), Set(M(index, "Valid", family), 1), Set(M(index, "On", family), 1)};
}

class Markers : public RuleTest {
protected:
    // Trace 1 of the phase-noise results, shown in the PLL graph.
    void WriteTrace() {
        PutArray(kTrace1 + "X", {100, 200, 300, 1000, 2000, 10000});
        PutArray(kTrace1 + "Y", {-100, -101, -102, -103, -104, -105});
        Run({Set(kGraph, eGRAPH_PNOISEPLL)});
    }
};

TEST_F(Markers, NameRule) {
    const struct {
        const char* family;
        int index;
        bool on, valid, delta;
        ULONG trace;
        const char* name;
    } rows[] = {
        {"PhaseNoiseMarker", 0, true, true, true, 2, "Marker 1 [T2]"},  // marker 1 is never a delta marker
        {"PhaseNoiseMarker", 4, true, true, false, 3, "Delta 1 [T3]"},  // marker 5 always is, as marker 1's
        {"PhaseNoiseMarker", 1, true, true, true, 1, "Delta 2 [T1]"},
        {"PhaseNoiseMarker", 2, true, true, false, 1, "Marker 3 [T1]"},
        {"PhaseNoiseMarker", 3, true, false, false, 1, ""},
        {"TransientMarker", 1, true, true, true, 4, "Delta 2 [T4]"},
        {"VCODCMarker", 3, false, true, true, 1, ""},
    };
    for (const auto& row : rows) {
        Run({Set(M(row.index, "OnTrace", row.family), row.trace), Set(M(row.index, "Delta", row.family), row.delta),
             Set(M(row.index, "Valid", row.family), row.valid), Set(M(row.index, "On", row.family), row.on),
             IsText(M(row.index, "Name", row.family), row.name)});
    }
    // Written only when the text changes.
    ASSERT_EQ(db_->RestartNotifications(), S_OK);
    CountingSink sink;
    ASSERT_EQ(Get<IDatabaseObject>(M(0, "Name"))->RegisterImmediateNotification(&sink), S_OK);
    Run({Set(M(0, "Delta"), 0)});
    EXPECT_EQ(sink.calls.load(), 0);
    Run({Set(M(0, "OnTrace"), 5)});
    EXPECT_EQ(sink.calls.load(), 1);
    ASSERT_EQ(Get<IDatabaseObject>(M(0, "Name"))->UnregisterImmediateNotification(&sink), S_OK);
}

TEST_F(Markers, RelativeXFollowsTheReference) {
    Run(On(0));
    Run(On(1, true));
    Run({Set(M(0, "AbsX"), 1000), Set(M(1, "AbsX"), 10000), Is(M(1, "X"), 9000)});
    EXPECT_EQ(Limits(M(1, "X")), std::pair(-1000.0, 999999000000.0 - 1000));
    // On but not valid: X is not recomputed. The reference moves: a coupled
    // delta marker keeps its distance, an uncoupled one its place.
    Run({Set(M(2, "On"), 1), Set(M(2, "AbsX"), 5000), Is(M(2, "X"), 0)});
    Run(On(3, true));
    Run({Set(M(3, "AbsX"), 10000), Set(M(1, "Coupled"), 1), Set(M(0, "AbsX"), 2000), Is(M(1, "X"), 9000),
         Is(M(1, "AbsX"), 11000), Is(M(3, "X"), 8000), Is(M(3, "AbsX"), 10000)});
}

TEST_F(Markers, ClientXSnapsToTheTrace) {
    WriteTrace();
    Run(On(0));
    Run(On(1, true));
    const double onPoint = 200 * (1 + 0.5e-12);
    const struct {
        int index;
        eGRAPH graph;
        double x, expectedX, expectedAbs;
    } rows[] = {
        {0, eGRAPH_PNOISEPLL, 150, 100, 100},  // a tie goes to the lower point
        {0, eGRAPH_PNOISEPLL, 160, 200, 200},
        {0, eGRAPH_PNOISEPLL, onPoint, onPoint, onPoint},  // equal to a point: kept as given
        {0, eGRAPH_PNOISEXCORR, 5, 100, 100},
        {0, eGRAPH_PNOISEANALYSER, 5e5, 10000, 10000},
        {0, eGRAPH_PNOISEPLL, 1000, 1000, 1000},
        {1, eGRAPH_PNOISEPLL, 450, 0, 1000},  // 1450 absolute: 1000 is nearer than 2000
        {0, eGRAPH_NONE, 150, 150, 150},      // another graph: no snap
    };
    for (const auto& row : rows)
        Run({Set(kGraph, row.graph), Set(M(row.index, "X"), row.x), Is(M(row.index, "X"), row.expectedX),
             Is(M(row.index, "AbsX"), row.expectedAbs)});
    Run({Refused(M(0, "X"), -1, "below the lower limit 0 Hz")});
}

TEST_F(Markers, SteppingOnTracePoints) {
    WriteTrace();
    Run(On(0));
    Run({Set(M(0, "X"), 200)});
    ComPtr<IParameterReal> x = Get<IParameterReal>(M(0, "X"));
    const struct {
        bool up;
        eSTEP step;
        HRESULT hr;
        double expected;
    } rows[] = {
        {true, eSTEP_SMALL, S_OK, 300},   {false, eSTEP_SMALL, S_OK, 200},     {true, eSTEP_LARGE, S_OK, 1000},
        {true, eSTEP_LARGE, S_OK, 10000}, {true, eSTEP_SMALL, S_FALSE, 10000}, {false, eSTEP_LARGE, S_OK, 1000},
        {false, eSTEP_LARGE, S_OK, 100},  {false, eSTEP_SMALL, S_FALSE, 100},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.up ? x->Increment(row.step) : x->Decrement(row.step), row.hr);
        Run({Is(M(0, "AbsX"), row.expected)});
    }
    // Without trace points: a large step goes to the decade, a small one stays.
    Run({Set(M(0, "OnTrace"), 2), Set(M(0, "X"), 150)});
    EXPECT_EQ(x->IncWithDepNoti(eSTEP_LARGE), S_OK);
    EXPECT_EQ(x->DecWithDepNoti(eSTEP_SMALL), S_FALSE);
    Run({Is(M(0, "X"), 1000)});
}

TEST_F(Markers, ReadingsAtTheMarkersPoint) {
    WriteTrace();
    Run(On(0));
    PutArray(kSpurs1 + "Frequency", {300});
    PutArray(kSpurs1 + "Power", {-50});
    // The trace's level at the point; a spur's level while the spur list is
    // on; a new trace read at once; no reading for an AbsX that is no point.
    Run({Set(M(0, "X"), 200), Is(M(0, "Y"), -101), Set(M(0, "X"), 300), Is(M(0, "Y"), -102), Set(kSpurs1 + "On", 1),
         Is(M(0, "Y"), -50)});
    PutArray(kTrace1 + "Y", {-1, -2, -3, -4, -5, -6});
    Run({Set(kSpurs1 + "On", 0), Is(M(0, "Y"), -3), Set(M(0, "AbsX"), 250), Is(M(0, "Y"), NAN)});

    // Another family reads its own arrays by the same rule.
    const std::string vco = "MeasurementResults.VCOResults.VCOTuningResults.VCOTuningDisplayTrace[0].";
    PutArray(vco + "Volt", {1, 2, 3});
    PutArray(vco + "Freq", {1e9, 2e9, 3e9});
    PutArray(vco + "FreqRel", {10, 20, 30});
    Run(On(0, false, "VCOTuningMarker"));
    Run({Set(M(0, "AbsVolt", "VCOTuningMarker"), 2), Is(M(0, "Volt", "VCOTuningMarker"), 2),
         Is(M(0, "Freq2", "VCOTuningMarker"), 20), Is(M(0, "AbsFreq", "VCOTuningMarker"), 2e9)});
}

TEST_F(Markers, TypeVisibleAndZoom) {
    // Writing Type sets On and Delta; marker 1 is never a delta marker.
    Run({Set(M(1, "Type"), eMARKER_DELTA, S_OK), Is(M(1, "On"), 1), Is(M(1, "Delta"), 1),
         Set(M(1, "Type"), eMARKER_NORMAL, S_OK), Is(M(1, "Delta"), 0), Set(M(1, "Type"), eMARKER_NORMAL, S_FALSE),
         Set(M(1, "Type"), eMARKER_OFF, S_OK), Is(M(1, "On"), 0), Set(M(0, "Type"), eMARKER_DELTA, E_INVALIDARG),
         Is(M(0, "Delta"), 0), Set(M(2, "On"), 1), Is(M(2, "Type"), eMARKER_NORMAL)});
    // Visible: on, valid, on a trace with points, inside an active zoom; the
    // zoom never stays active over an empty window.
    Run(On(0));
    Run({Is(M(0, "Visible"), 0)});
    WriteTrace();
    Run({Set(M(0, "X"), 200), Is(M(0, "Visible"), 1), Set(kZoom + "ZoomStart", 1500), Set(kZoom + "ZoomStop", 5000),
         Set(kZoom + "ZoomActive", 1, S_OK), Is(M(0, "Visible"), 0), Set(M(0, "X"), 2000), Is(M(0, "Visible"), 1),
         Set(kZoom + "ZoomStart", 6000), Is(kZoom + "ZoomActive", 0), Set(kZoom + "ZoomActive", 1, E_INVALIDARG)});
}

}  // namespace
