// The X axis of the phase-noise display: the offset range chosen from two
// fixed ladders, and the rules that keep it consistent.
//
// XAxisStart and XAxisStop (PhaseNoiseSettings) are enumerations over the
// start and stop ladders (25 offsets each, 0.01 Hz to 10 GHz and 0.03 Hz to
// 30 GHz, one step apart; member 25 is the end marker and never selectable).
// What a client may choose narrows with the noise measurement type
// (OptionStateInfo.NoiseMeasType) and the offset table
// (OtherSettings.FreqOffsetTable): each axis enumeration has a selectable
// range, and XAxisStartStrings / XAxisStopStrings hold the selectable
// entries as a colon-separated list for the user interface.
//
// The rules (docs/axes.md has the reasons):
//  - selection lists (the strings' rule): when the noise type or the offset
//    table changes, and once at every reset, the list is chosen, the axis
//    index clamped into it, and the selectable range set;
//  - start/stop (the axes' rule): when an axis, its partner, SignalFreq or
//    NoiseMeasType changes, start is kept at or below stop (set equal, never
//    swapped) and, for the PLL and analyser types, the partner is lowered
//    until SignalFreq plus the offset stays below MaximumFrequency.
// Rules write the indexes through the enumeration's own store and tell the
// dependants; only a client's write is held to the selectable range.
#pragma once

#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "parameters/ParameterString.h"
#include "schema/RuleBinding.h"

namespace vorn {

class CParameterVCOLoopBW;

// The offset ladders: the offset in hertz at `index`, 0 at 25 and beyond.
inline constexpr ULONG kLadderSize = 25;
double StartLadder(ULONG index) noexcept;
double StopLadder(ULONG index) noexcept;

enum class EAxisEnd { Start, Stop };

// An axis index: an enumeration with an adjustable lowest and highest
// selectable value. A client's choice (put_Value; AssignValue with bit 0) is E_INVALIDARG
// outside the selectable range, else the enumeration's checked store and,
// when it changed the value, the start/stop rule.
class CParameterXAxisIndex : public rules::CWrittenThrough<CParameterEnumSetting, ULONG> {
public:
    // The selectable range: 0 and 24 until the selection-list rule first
    // runs, then as that rule last set it (a reset leaves it alone; the
    // rule's run in the reset of the list sets it again).
    STDMETHODIMP get_Minimum(ULONG* pudwMinimum) override;
    STDMETHODIMP get_Maximum(ULONG* pudwMaximum) override;
    // Binds the partner, NoiseMeasType, SignalFreq and MaximumFrequency, and
    // follows all but the last.
    void PostConstruct() override;

    void SetSelectable(ULONG lowest, ULONG highest) noexcept;
    // A rule's write of the index (the selectable range is not consulted):
    // the enumeration's store and, with `propagate`, the dependants.
    void Adjust(ULONG index, bool propagate);

protected:
    explicit CParameterXAxisIndex(EAxisEnd end) noexcept : end_(end) {}

    // Runs last in every run of the start/stop rule under the PLL noise
    // type: the PLL's loop bandwidth follows the lowest offset shown
    // (CParameterVCOLoopBW, docs/coupling.md).
    void UpdatePllSettings();

private:
    HRESULT Write(ULONG index) override;
    // The start/stop rule; true when this index changed.
    bool Update(CDatabaseObjectImpl* source) override;
    // Start above stop, or stop below start.
    bool OutOfOrder() const noexcept;
    void Bound();

    EAxisEnd end_;
    ULONG lowest_ = 0;
    ULONG highest_ = kLadderSize - 1;
    bool enforcing_ = false;
    CParameterXAxisIndex* partner_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
    CParameterReal* signalFrequency_ = nullptr;
    CParameterReal* maximumFrequency_ = nullptr;
    CParameterVCOLoopBW* loopBandwidth_ = nullptr;
};

class CParameterXAxisStart final : public CParameterXAxisIndex {
public:
    CParameterXAxisStart() noexcept : CParameterXAxisIndex(EAxisEnd::Start) {}
};

class CParameterXAxisStop final : public CParameterXAxisIndex {
public:
    CParameterXAxisStop() noexcept : CParameterXAxisIndex(EAxisEnd::Stop) {}
};

// The selection list of an axis.
class CParameterXAxisStrings : public rules::CRecalculated<CParameterString> {
public:
    // Binds the axis, NoiseMeasType, FreqOffsetTable and MaximumFrequency,
    // and follows the last three.
    void PostConstruct() override;
    // The string's reset (it has no value of its own), then the rule's first
    // run, which takes the offset table as its default (eFREQOFFSET_30MHZ).
    STDMETHODIMP Reset() override;

protected:
    explicit CParameterXAxisStrings(EAxisEnd end) noexcept : end_(end) {}

private:
    // The rule; `source` null for the first run. True when the list was
    // written.
    bool Update(CDatabaseObjectImpl* source) override;

    EAxisEnd end_;
    ULONG lastType_ = 0;
    CParameterXAxisIndex* axis_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
    CParameterInteger* offsetTable_ = nullptr;
    CParameterReal* maximumFrequency_ = nullptr;
};

class CParameterXAxisStartStrings final : public CParameterXAxisStrings {
public:
    CParameterXAxisStartStrings() noexcept : CParameterXAxisStrings(EAxisEnd::Start) {}
};

class CParameterXAxisStopStrings final : public CParameterXAxisStrings {
public:
    CParameterXAxisStopStrings() noexcept : CParameterXAxisStrings(EAxisEnd::Stop) {}
};

}  // namespace vorn
