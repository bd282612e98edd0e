// The marker rules on the real tree: name, relative X, a client's X snapped
// to the trace, stepping, readings, Type, Visible and the zoom, and markers
// driven over a full-length trace written through IParameterRealArray.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "core/CoreTestSupport.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

const std::string kTrace1 = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].";
const std::string kSpurs1 = "MeasurementResults.PhaseNoiseResults.PLLResults.TraceSpurList[0].";
const std::string kGraph = "OptionStateInfo.CurrentGraphType";
const std::string kZoom = "DisplaySettings.MarkerZoom.";
const std::vector<double> kX = {100, 200, 300, 1000, 2000, 10000};
const std::vector<double> kY = {-100, -101, -102, -103, -104, -105};

std::string M(int index, const std::string& member, const std::string& family = "PhaseNoiseMarker") {
    return "Markers." + family + "[" + std::to_string(index) + "]." + member;
}

class Markers : public RuleTest {
protected:
    // Marker `index` switched on and valid (on trace 1 unless told).
    void SwitchOn(int index, const std::string& family = "PhaseNoiseMarker") {
        ASSERT_EQ(SetBoolean(M(index, "Valid", family), true), S_OK);
        ASSERT_EQ(SetBoolean(M(index, "On", family), true), S_OK);
    }
    // Trace 1 of the phase-noise results holds kX / kY; the PLL graph shows.
    void WriteTrace() {
        PutArray(kTrace1 + "X", kX);
        PutArray(kTrace1 + "Y", kY);
        ASSERT_EQ(SetInteger(kGraph, eGRAPH_PNOISEPLL), S_OK);
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
        ASSERT_TRUE(SUCCEEDED(SetInteger(M(row.index, "OnTrace", row.family), row.trace)));
        ASSERT_EQ(SetBoolean(M(row.index, "Delta", row.family), row.delta), S_OK);
        ASSERT_EQ(SetBoolean(M(row.index, "Valid", row.family), row.valid), S_OK);
        ASSERT_EQ(SetBoolean(M(row.index, "On", row.family), row.on), S_OK);
        EXPECT_EQ(Text(M(row.index, "Name", row.family)), row.name) << row.family << " " << row.index;
    }

    // The name is written only when its text changes.
    ASSERT_EQ(db_->RestartNotifications(), S_OK);
    CountingSink sink;
    ComPtr<IDatabaseObject> name = Get<IDatabaseObject>(M(0, "Name"));
    ASSERT_EQ(name->RegisterImmediateNotification(&sink), S_OK);
    ASSERT_EQ(SetBoolean(M(0, "Delta"), false), S_OK);
    EXPECT_EQ(sink.calls.load(), 0);
    ASSERT_EQ(SetInteger(M(0, "OnTrace"), 5), S_OK);
    EXPECT_EQ(sink.calls.load(), 1);
    ASSERT_EQ(name->UnregisterImmediateNotification(&sink), S_OK);
}

TEST_F(Markers, RelativeXFollowsTheReference) {
    SwitchOn(0);
    ASSERT_EQ(SetReal(M(0, "AbsX"), 1000), S_OK);
    SwitchOn(1);
    ASSERT_EQ(SetBoolean(M(1, "Delta"), true), S_OK);
    ASSERT_EQ(SetReal(M(1, "AbsX"), 10000), S_OK);
    EXPECT_EQ(Real(M(1, "X")), 9000);
    double limit = 0;
    ASSERT_EQ(Get<IParameterReal>(M(1, "X"))->get_Minimum(&limit), S_OK);
    EXPECT_EQ(limit, -1000);
    ASSERT_EQ(Get<IParameterReal>(M(1, "X"))->get_Maximum(&limit), S_OK);
    EXPECT_EQ(limit, 999999000000.0 - 1000);

    // On but not valid: X is not recomputed.
    ASSERT_EQ(SetBoolean(M(2, "On"), true), S_OK);
    ASSERT_EQ(SetReal(M(2, "AbsX"), 5000), S_OK);
    EXPECT_EQ(Real(M(2, "X")), 0);

    // The reference moves: a coupled delta marker keeps its distance, an
    // uncoupled one its place.
    SwitchOn(3);
    ASSERT_EQ(SetBoolean(M(3, "Delta"), true), S_OK);
    ASSERT_EQ(SetReal(M(3, "AbsX"), 10000), S_OK);
    ASSERT_EQ(SetBoolean(M(1, "Coupled"), true), S_OK);
    ASSERT_EQ(SetReal(M(0, "AbsX"), 2000), S_OK);
    EXPECT_EQ(Real(M(1, "X")), 9000);
    EXPECT_EQ(Real(M(1, "AbsX")), 11000);
    EXPECT_EQ(Real(M(3, "X")), 8000);
    EXPECT_EQ(Real(M(3, "AbsX")), 10000);
}

TEST_F(Markers, ClientXSnapsToTheTrace) {
    WriteTrace();
    SwitchOn(0);
    SwitchOn(1);
    ASSERT_EQ(SetBoolean(M(1, "Delta"), true), S_OK);
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
    for (const auto& row : rows) {
        ASSERT_EQ(SetInteger(kGraph, row.graph), S_OK);
        ASSERT_TRUE(SUCCEEDED(SetReal(M(row.index, "X"), row.x)));
        EXPECT_EQ(Real(M(row.index, "X")), row.expectedX) << row.x;
        EXPECT_EQ(Real(M(row.index, "AbsX")), row.expectedAbs) << row.x;
    }

    EXPECT_EQ(SetReal(M(0, "X"), -1), E_INVALIDARG);
    const SReportedError error = TakeError();
    EXPECT_EQ(error.source, "Markers.PhaseNoiseMarker[0].X");
    EXPECT_NE(error.description.find("below the lower limit 0 Hz"), std::string::npos) << error.description;
    EXPECT_EQ(Real(M(0, "X")), 150);
}

TEST_F(Markers, SteppingOnTracePoints) {
    WriteTrace();
    SwitchOn(0);
    ASSERT_EQ(SetReal(M(0, "X"), 200), S_OK);
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
        EXPECT_EQ(Real(M(0, "X")), row.expected);
        EXPECT_EQ(Real(M(0, "AbsX")), row.expected);
    }

    // Without trace points: a large step goes to the decade, a small one stays.
    ASSERT_EQ(SetInteger(M(0, "OnTrace"), 2), S_OK);
    ASSERT_EQ(SetReal(M(0, "X"), 150), S_OK);
    EXPECT_EQ(x->IncWithDepNoti(eSTEP_LARGE), S_OK);
    EXPECT_EQ(Real(M(0, "X")), 1000);
    EXPECT_EQ(x->DecWithDepNoti(eSTEP_SMALL), S_FALSE);
}

TEST_F(Markers, ReadingsAtTheMarkersPoint) {
    WriteTrace();
    SwitchOn(0);
    ASSERT_EQ(SetReal(M(0, "X"), 200), S_OK);
    EXPECT_EQ(Real(M(0, "Y")), -101);

    // A spur of the trace's spur list gives its level while the list is on.
    PutArray(kSpurs1 + "Frequency", {300});
    PutArray(kSpurs1 + "Power", {-50});
    ASSERT_EQ(SetReal(M(0, "X"), 300), S_OK);
    EXPECT_EQ(Real(M(0, "Y")), -102);
    ASSERT_EQ(SetBoolean(kSpurs1 + "On", true), S_OK);
    EXPECT_EQ(Real(M(0, "Y")), -50);

    // A new trace is read at once; an AbsX that is no point gives no reading.
    PutArray(kTrace1 + "Y", {-1, -2, -3, -4, -5, -6});
    ASSERT_EQ(SetBoolean(kSpurs1 + "On", false), S_OK);
    EXPECT_EQ(Real(M(0, "Y")), -3);
    ASSERT_EQ(SetReal(M(0, "AbsX"), 250), S_OK);
    double y = 0;
    EXPECT_EQ(Get<IParameterReal>(M(0, "Y"))->get_Value(&y), HRESULT_FROM_WIN32(ERROR_INVALID_DATA));

    // Another family reads its own arrays by the same rule.
    const std::string vco = "MeasurementResults.VCOResults.VCOTuningResults.VCOTuningDisplayTrace[0].";
    PutArray(vco + "Volt", {1, 2, 3});
    PutArray(vco + "Freq", {1e9, 2e9, 3e9});
    PutArray(vco + "FreqRel", {10, 20, 30});
    SwitchOn(0, "VCOTuningMarker");
    ASSERT_EQ(SetReal(M(0, "AbsVolt", "VCOTuningMarker"), 2), S_OK);
    EXPECT_EQ(Real(M(0, "Volt", "VCOTuningMarker")), 2);
    EXPECT_EQ(Real(M(0, "Freq2", "VCOTuningMarker")), 20);
    EXPECT_EQ(Real(M(0, "AbsFreq", "VCOTuningMarker")), 2e9);
}

TEST_F(Markers, TypeVisibleAndZoom) {
    const struct {
        int index;
        eMARKER type;
        HRESULT hr;
        bool on, delta;
    } rows[] = {
        {1, eMARKER_DELTA, S_OK, true, true},           {1, eMARKER_NORMAL, S_OK, true, false},
        {1, eMARKER_NORMAL, S_FALSE, true, false},      {1, eMARKER_OFF, S_OK, false, false},
        {0, eMARKER_DELTA, E_INVALIDARG, false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(SetInteger(M(row.index, "Type"), row.type), row.hr) << row.type;
        EXPECT_EQ(Boolean(M(row.index, "On")), row.on);
        EXPECT_EQ(Boolean(M(row.index, "Delta")), row.delta);
    }
    SwitchOn(2);
    EXPECT_EQ(Integer(M(2, "Type")), static_cast<ULONG>(eMARKER_NORMAL));

    // Visible: on, valid, on a trace with points, inside an active zoom.
    SwitchOn(0);
    EXPECT_FALSE(Boolean(M(0, "Visible")));
    WriteTrace();
    ASSERT_EQ(SetReal(M(0, "X"), 200), S_OK);
    EXPECT_TRUE(Boolean(M(0, "Visible")));
    ASSERT_EQ(SetReal(kZoom + "ZoomStart", 1500), S_OK);
    ASSERT_EQ(SetReal(kZoom + "ZoomStop", 5000), S_OK);
    ASSERT_EQ(SetBoolean(kZoom + "ZoomActive", true), S_OK);
    EXPECT_FALSE(Boolean(M(0, "Visible")));
    ASSERT_EQ(SetReal(M(0, "X"), 2000), S_OK);
    EXPECT_TRUE(Boolean(M(0, "Visible")));

    // The zoom never stays active over an empty window.
    ASSERT_EQ(SetReal(kZoom + "ZoomStart", 6000), S_OK);
    EXPECT_FALSE(Boolean(kZoom + "ZoomActive"));
    EXPECT_EQ(SetBoolean(kZoom + "ZoomActive", true), E_INVALIDARG);
    EXPECT_NE(TakeError().description.find("empty"), std::string::npos);
}

// A trace of 102400 points, logarithmic from 1 Hz to 1 GHz, written through
// IParameterRealArray; the marker lands on the points std::lower_bound
// finds.
TEST_F(Markers, OnAFullLengthTrace) {
    constexpr ULONG kPoints = 102400;
    ComPtr<IParameterRealArray> traceX = Get<IParameterRealArray>(kTrace1 + "X");
    ULONG capacity = 0;
    ASSERT_EQ(traceX->get_MaxSize(&capacity), S_OK);
    ASSERT_EQ(capacity, kPoints);
    std::vector<double> x(kPoints), y(kPoints);
    for (ULONG i = 0; i < kPoints; ++i) {
        x[i] = std::pow(10.0, 9.0 * i / (kPoints - 1));
        y[i] = -10.0 * std::log10(x[i]);
    }
    ASSERT_EQ(traceX->PutArray(kPoints, x.data()), S_OK);
    PutArray(kTrace1 + "Y", y);
    ASSERT_EQ(SetInteger(kGraph, eGRAPH_PNOISEANALYSER), S_OK);
    SwitchOn(0);

    const double target = 12345.678;
    const auto above = std::lower_bound(x.begin(), x.end(), target);
    const double nearest = target - *(above - 1) <= *above - target ? *(above - 1) : *above;
    ASSERT_EQ(SetReal(M(0, "X"), target), S_OK);
    EXPECT_EQ(Real(M(0, "X")), nearest);
    EXPECT_DOUBLE_EQ(Real(M(0, "Y")), -10.0 * std::log10(nearest));

    ComPtr<IParameterReal> marker = Get<IParameterReal>(M(0, "X"));
    ASSERT_EQ(marker->Increment(eSTEP_SMALL), S_OK);
    const auto at = std::find(x.begin(), x.end(), nearest);
    EXPECT_EQ(Real(M(0, "X")), *(at + 1));
    ASSERT_EQ(marker->Decrement(eSTEP_LARGE), S_OK);
    EXPECT_EQ(Real(M(0, "X")), *(std::upper_bound(x.begin(), x.end(), 10000.0) - 1));
    EXPECT_EQ(Real(M(0, "Y")), y[std::upper_bound(x.begin(), x.end(), 10000.0) - 1 - x.begin()]);
}

}  // namespace
