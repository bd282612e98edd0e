// The trace and spur export: see Export.h, and docs/export.md for the file.
#include "files/Export.h"

#include <locale.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <initializer_list>
#include <mutex>
#include <string_view>

#include "files/SystemSettings.h"
#include "files/TreeLinks.h"
#include "vorn/rt/diagnostic.h"

namespace vorn {

namespace exporting {

// How a line's value prints.
enum class EField {
    Real,         // a real parameter, %f or %e (times SRow::scale)
    RealOrText,   // as Real; a parameter without valid value writes names[0] as the line instead
    RealInteger,  // a real parameter rounded, %d
    Integer,      // an integer parameter, %d
    Decade,       // an integer parameter v, printed as the real 10^v (%f)
    OnOff,        // a Boolean parameter, "ON" or "OFF" (%s)
    Text,         // a string parameter (%s)
    Choice,       // an integer parameter naming names[v]; "" beyond them (%s)
    Model,        // the analyzer model's name of an eINSMODEL parameter (%s)
    Date,         // the local date, "%d %b %y" (%s)
    Time,         // the local time, "%H:%M:%S" (%s)
    Ordinal,      // the repeat's number, 1 for the first (%d)
};

// The measurement kinds (eGRAPH values) a line belongs to, as bits.
constexpr unsigned Kinds(std::initializer_list<int> kinds) noexcept {
    unsigned bits = 0;
    for (const int kind : kinds) bits |= 1u << kind;
    return bits;
}
constexpr unsigned kAll = ~0u;
constexpr unsigned kVCOKinds = Kinds({eGRAPH_VCOTUNING, eGRAPH_VCODC, eGRAPH_VCOHARMONIC});
constexpr unsigned kPhaseNoiseKinds = Kinds({eGRAPH_PNOISEPLL, eGRAPH_PNOISEANALYSER, eGRAPH_PNOISEXCORR});
constexpr unsigned kMeasurementKinds =
    kPhaseNoiseKinds | Kinds({eGRAPH_AMNOISE, eGRAPH_SNOISETUNING, eGRAPH_PNOISEBASEBAND, eGRAPH_RESIDUALPNOISE});
constexpr unsigned kLoopKinds = Kinds({eGRAPH_PNOISEPLL, eGRAPH_PNOISEXCORR, eGRAPH_SNOISETUNING});
constexpr unsigned kDetectorKinds = Kinds({eGRAPH_PNOISEBASEBAND, eGRAPH_RESIDUALPNOISE});

bool IsKind(unsigned kinds, ULONG kind) noexcept { return kind < 32 && (kinds >> kind & 1u) != 0; }

// One line: its text with one conversion for the value, the path of the
// parameter from the root ("#": the index of the repeat, "@": each trace,
// the exported one printing), how it prints and the kinds that write it.
// `when`: the line is written only when that Boolean reads `whenTrue`.
struct SRow {
    const char* format;
    const char* path;
    EField field;
    unsigned kinds = kAll;
    const char* const* names = nullptr;
    std::size_t count = 0;
    const char* when = nullptr;
    bool whenTrue = true;
    double scale = 1.0;
};

template <std::size_t N>
constexpr SRow Choose(const char* format, const char* path, const char* const (&names)[N], unsigned kinds = kAll) {
    return {format, path, EField::Choice, kinds, names, N};
}

// The conversion a field prints with.
constexpr char ConversionOf(EField field) noexcept {
    switch (field) {
        case EField::Real:
        case EField::RealOrText:
        case EField::Decade:
            return 'f';
        case EField::RealInteger:
        case EField::Integer:
        case EField::Ordinal:
            return 'd';
        default:
            return 's';
    }
}

// True when `row`'s text holds exactly one conversion and it fits the field
// (%e for a real too); "%%" prints a percent sign.
constexpr bool FitsFormat(const SRow& row) noexcept {
    int conversions = 0;
    for (const char* c = row.format; *c; ++c) {
        if (*c != '%') continue;
        if (*++c == '%') continue;
        while (*c == '.' || (*c >= '0' && *c <= '9')) ++c;
        const char want = ConversionOf(row.field);
        if (*c != want && !(want == 'f' && *c == 'e')) return false;
        ++conversions;
    }
    return conversions == 1;
}

template <std::size_t N>
constexpr bool AllFit(const SRow (&rows)[N]) noexcept {
    for (const SRow& row : rows)
        if (!FitsFormat(row)) return false;
    return true;
}

constexpr const char* kSwitches[] = {"Vcc1", "Vcc2", "Vaux", "Vtune1", "Vtune2", "None"};  // eSWITCH
constexpr const char* kDetectorCharacteristics[] = {"Sine (0dB)", "Linear (-3.9dB)"};      // eRPNPDCHAR
constexpr const char* kTransientModes[] = {"Frequency", "Phase", "Amplitude", "Power"};    // eTRANS
constexpr const char* kTriggers[] = {"Freerun", "External", "Power"};                      // eTRGMODE
constexpr const char* kSlopes[] = {"Positive", "Negative"};                                // eTRIGSLOPE
constexpr const char* kLowPasses[] = {"OFF", "5;%", "10;%", "25;%"};                       // eLOWPASS
constexpr const char* kWindows[] = {"Blackman Harris", "Rectangular", "Gaussian", "Chebychev"};
constexpr const char* kSetups[] = {"INT;INT;GEN",   "INT;INT;DUT", "EXT;INT;DUT",  "EXT;INT;EGEN",
                                   "DUT2;INT;DUT1", "EXT;EXT;DUT", "EXT;EXT;EGEN", "DUT2;EXT;DUT1",
                                   "DELAY;INT",     "DELAY;EXT",   "DIV;INT",      "DIV;EXT",
                                   "HARM;MIX",      "EXT;DOWN",    "EXT;MIX",      "INT;INT;GEN;XCORR"};  // ePNCONFIG
constexpr const char* kReferences[] = {"INT", "EXT"};                                                     // eRPNCONFIG
constexpr const char* kAuto[] = {"VBW;AUTO;"};
constexpr const char* kTraceModes[] = {"CLRWR", "MAXH", "MINH", "AVG", "VIEW"};  // eMODE

#define VORN_PORT(group, member) "UserSettings.DCSettings.PortSettings." group "." member
#define VORN_VALUES(group, member) "MeasurementResults.VCOResults.PortValues." group "." member
#define VORN_LOOP(member) "UserSettings.VCOLOOPSettings." member
#define VORN_AM(member) "UserSettings.VCOLOOPSettings.AmplitudeNoisePremeas." member
#define VORN_PN(member) "UserSettings.PhaseNoiseSettings." member
#define VORN_TRANSIENT(member) "UserSettings.TransientSettings." member
#define VORN_VCO(member) "UserSettings.VCOSettings." member
#define VORN_PN_EXT(member) "MeasurementResults.PhaseNoiseResults.ExtendedResults." member
#define VORN_RPN_EXT(member) "MeasurementResults.ResidualPhaseNoiseResults.ResidualPhaseNoiseExtendedResults." member

constexpr SRow kInstrument[] = {
    {"Type;%s;", "InstrumentConfigInfo.InstrumentModel", EField::Model},
    {"Part Number;%s;", "InstrumentConfigInfo.OrderNumber", EField::Text},
    {"Version;%s;", "OptionStateInfo.VersionID", EField::Text},
    {"Date;%s;", nullptr, EField::Date},
    {"Time;%s;", nullptr, EField::Time},
};

constexpr SRow kDCPorts[] = {
    {"Use Port;Port%d;", "UserSettings.DCSettings.UseDCPort", EField::Integer},
    {"DC Port 1;%s;", VORN_PORT("DCPort1", "EnablePort"), EField::OnOff},
    {"Vcc1 Min;%.3f;V", VORN_PORT("DCPort1", "SupplyVoltageMin"), EField::Real},
    {"Vcc1 Set;%.3f;V", VORN_PORT("DCPort1", "SupplyVoltageCurrent"), EField::Real},
    {"Vcc1 Max;%.3f;V", VORN_PORT("DCPort1", "SupplyVoltageMax"), EField::Real},
    {"Vcc1 Meas;%.3f;V", VORN_VALUES("DCPort1Values", "SupplyVoltageMeas"), EField::Real},
    {"Icc1 Max;%.6f;A", VORN_PORT("DCPort1", "SupplyCurrentMax"), EField::Real},
    {"Icc1 Meas;%.6f;A", VORN_VALUES("DCPort1Values", "SupplyCurrentMeas"), EField::Real},
    {"Vcc1 Pushing;%.3f;V", VORN_PORT("DCPort1", "PushingVoltage"), EField::Real},
    {"Tuning Port 1;%s;", VORN_PORT("TuningPort1", "EnablePort"), EField::OnOff},
    {"Vtune1 Min;%.3f;V", VORN_PORT("TuningPort1", "TuningVoltageMin"), EField::Real},
    {"Vtune1 Set;%.3f;V", VORN_PORT("TuningPort1", "TuningVoltageCurrent"), EField::Real},
    {"Vtune1 Max;%.3f;V", VORN_PORT("TuningPort1", "TuningVoltageMax"), EField::Real},
    {"Vtune1 Meas;%.3f;V", VORN_VALUES("TuningPort1Values", "TuningVoltageMeas"), EField::Real},
    {"Itune1 Meas;%.6f;A", VORN_VALUES("TuningPort1Values", "TuningCurrentMeas"), EField::Real},
    {"DC Port 2;%s;", VORN_PORT("DCPort2", "EnablePort"), EField::OnOff},
    {"Vcc2 Min;%.3f;V", VORN_PORT("DCPort2", "SupplyVoltageMin"), EField::Real},
    {"Vcc2 Set;%.3f;V", VORN_PORT("DCPort2", "SupplyVoltageCurrent"), EField::Real},
    {"Vcc2 Max;%.3f;V", VORN_PORT("DCPort2", "SupplyVoltageMax"), EField::Real},
    {"Vcc2 Meas;%.3f;V", VORN_VALUES("DCPort2Values", "SupplyVoltageMeas"), EField::Real},
    {"Icc2 Max;%.6f;A", VORN_PORT("DCPort2", "SupplyCurrentMax"), EField::Real},
    {"Icc2 Meas;%.6f;A", VORN_VALUES("DCPort2Values", "SupplyCurrentMeas"), EField::Real},
    {"Tuning Port 2;%s;", VORN_PORT("TuningPort2", "EnablePort"), EField::OnOff},
    {"Vtune2 Min;%.3f;V", VORN_PORT("TuningPort2", "TuningVoltageMin"), EField::Real},
    {"Vtune2 Set;%.3f;V", VORN_PORT("TuningPort2", "TuningVoltageCurrent"), EField::Real},
    {"Vtune2 Max;%.3f;V", VORN_PORT("TuningPort2", "TuningVoltageMax"), EField::Real},
    {"Vtune2 Meas;%.3f;V", VORN_VALUES("TuningPort2Values", "TuningVoltageMeas"), EField::Real},
    {"Itune2 Meas;%.6f;A", VORN_VALUES("TuningPort2Values", "TuningCurrentMeas"), EField::Real},
    {"AUX Port;%s;", VORN_PORT("AUXPort", "EnablePort"), EField::OnOff},
    {"Vaux Set;%.3f;V", VORN_PORT("AUXPort", "AuxVoltageCurrent"), EField::Real},
    {"Vaux Meas;%.3f;V", VORN_VALUES("AUXPortValues", "AuxVoltageMeas"), EField::Real},
    // The AUX port's current, under the labels the file has always carried.
    {"Itune2 Max;%.6f;A", VORN_PORT("AUXPort", "AuxCurrentMax"), EField::Real},
    {"Itune2 Meas;%.6f;A", VORN_VALUES("AUXPortValues", "AuxCurrentMeas"), EField::Real},
    {"DC Switch Sequence;%s;", VORN_PORT("DCSwitchingSequence", "Enable"), EField::OnOff},
};

// One step of the switching sequence, for each of its five steps.
constexpr SRow kDCStep[] = {
    {"Order;%d", VORN_PORT("DCSwitchingSequence", "DCSequence[#].Order"), EField::Integer},
    Choose("Voltage;%s;", VORN_PORT("DCSwitchingSequence", "DCSequence[#].Switch"), kSwitches),
    {"Delay;%.9f;s", VORN_PORT("DCSwitchingSequence", "DCSequence[#].Delay"), EField::Real},
};
constexpr int kDCSteps = 5;

// The PLL and detector lines: the loop's for the kinds measured with the
// phase-locked loop, the AM detector's for AM noise, the phase detector's
// voltages for baseband and residual noise.
constexpr SRow kLoop[] = {
    {"DUTFreq;%.6f;Hz", VORN_LOOP("DUTFreq"), EField::Real, kLoopKinds},
    {"DUTLevel;%.6f;dBm", VORN_LOOP("DUTLevel"), EField::Real, kLoopKinds},
    {"Phase Detector Slope;%.6f;V/rad", VORN_LOOP("PhaseDetSlope"), EField::Real, kLoopKinds},
    {"Phase Detector Level;%.6f;dBm", VORN_LOOP("PhaseDetLevel"), EField::Real, kLoopKinds},
    {"DC Offset;%.2f;V", VORN_LOOP("PhaseDetDCOffset"), EField::Real, kLoopKinds},
    {"Harmonic;%d", VORN_LOOP("PhaseDetHarmonic"), EField::Integer, kLoopKinds},
    {"Beat Note Freq;%.6f;Hz", VORN_LOOP("BeatNoteFrequency"), EField::Real, kLoopKinds},
    {"Gen Slope;%.6f;Hz/V", VORN_LOOP("GenSlope"), EField::Real, kLoopKinds},
    {"VCO Loop Gain;%.6f;dB", VORN_LOOP("VCOLoopGain"), EField::Real, kLoopKinds},
    {"LPN Phase Detector Slope;%.6f;V/rad", VORN_LOOP("LPNPhaseDetSlope"), EField::Real, kLoopKinds},
    {"LPN Phase Detector Level;%.6f;dBm", VORN_LOOP("LPNPhaseDetLevel"), EField::Real, kLoopKinds},
    {"LPN DC Offset;%.2f;V", VORN_LOOP("LPNPhaseDetDCOffset"), EField::Real, kLoopKinds},
    {"LPN Beat Note Freq;%.6f;Hz", VORN_LOOP("LPNBeatNoteFrequency"), EField::Real, kLoopKinds},
    {"LPN Gen Slope;%.6f;Hz/V", VORN_LOOP("LPNGenSlope"), EField::Real, kLoopKinds},
    {"LPN VCO Loop Gain;%.6f;dB", VORN_LOOP("LPNVCOLoopGain"), EField::Real, kLoopKinds},
    {"Modulation Index;%.6f", VORN_AM("ModulationIndex"), EField::Real, Kinds({eGRAPH_AMNOISE})},
    {"AM detector calibration file;%s", VORN_AM("CalibrationFile"), EField::Text, Kinds({eGRAPH_AMNOISE})},
    {"External LNA gain;%.6f;dB", VORN_AM("ExternalLNA"), EField::Real, Kinds({eGRAPH_AMNOISE})},
    {"AM Detector Output Voltage;%.2f;V", VORN_AM("DetectorOutputVoltage"), EField::Real, Kinds({eGRAPH_AMNOISE})},
    {"Estimated Input Level;%.6f;dBm", VORN_AM("DetectorInputLevel"), EField::Real, Kinds({eGRAPH_AMNOISE})},
    {"AM detector gain;%.6f;dB", VORN_AM("DetectorGain"), EField::Real, Kinds({eGRAPH_AMNOISE})},
    {"Max + Min Phase Detector Voltage;%s;", VORN_LOOP("RPNMaxAndMin"), EField::OnOff, kDetectorKinds},
    {"Max. Phase Detector Voltage;%.2f;V", VORN_LOOP("RPNMaxPhaseDet"), EField::Real, kDetectorKinds},
    {"Min. Phase Detector Voltage;%.2f;V", VORN_LOOP("RPNMinPhaseDet"), EField::Real, kDetectorKinds},
    Choose("Phase Detector Characteristic;%s;", VORN_LOOP("RPNPhaseDetChar"), kDetectorCharacteristics, kDetectorKinds),
    {"Phase Detector Slope;%.6f;V/rad", VORN_LOOP("PhaseDetSlope"), EField::Real, kDetectorKinds},
    {"Phase Detector Level;%.6f;dB", VORN_LOOP("PhaseDetLevel"), EField::Real, kDetectorKinds},
    {"Phase Detector DC Voltage;%.2f;V", VORN_LOOP("ZeroPDVoltage"), EField::Real, kDetectorKinds},
};

constexpr SRow kAttenuator[] = {
    {"Preamp Atten Auto;%s;", "UserSettings.LevelSettings.PreAmplAttenAuto", EField::OnOff},
    {"Preamplifier;%s;", "UserSettings.LevelSettings.PreAmplifierState", EField::OnOff},
    {"Rf Att;%.6f;dB", "UserSettings.LevelSettings.RFAtten", EField::Real},
};

constexpr SRow kVCO[] = {
    {"Freq Start;%.6f;Hz", VORN_VCO("CommonSettings.FreqStart"), EField::Real, kVCOKinds},
    {"Freq Stop;%.6f;Hz", VORN_VCO("CommonSettings.FreqStop"), EField::Real, kVCOKinds},
    {"Freq Center;%.6f;Hz", "MeasurementSettings.MeasVCOSettings.MeasVCOTuningSettings.FreqCentre", EField::Real,
     kVCOKinds},
    {"Settling Time;%.6f;s", VORN_VCO("CommonSettings.TuneSettlingTime"), EField::Real,
     Kinds({eGRAPH_VCOTUNING, eGRAPH_VCOHARMONIC})},
    {"Settling Time;%.6f;s", VORN_VCO("CommonSettings.DCSettlingTime"), EField::Real, Kinds({eGRAPH_VCODC})},
    {"Meas Time;%.6f;s", VORN_VCO("CommonSettings.MeasTime"), EField::Real, kVCOKinds},
    {"Pushing;%s;", VORN_VCO("VCOTuningSettings.VCOPushing"), EField::OnOff, kVCOKinds},
    {"Pulling;%s;", VORN_VCO("VCOTuningSettings.VCOPulling"), EField::OnOff, kVCOKinds},
    {"Relative Traces;%s;", "GuiSettings.VCOPushPullRelative", EField::OnOff, kVCOKinds},
    {"Counter Resolution;%.6f;Hz", VORN_VCO("CommonSettings.FreqRes"), EField::Decade, kVCOKinds},
};

constexpr unsigned kTransient = Kinds({eGRAPH_TRANSIENT});
constexpr SRow kTransientLines[] = {
    Choose("Mode;%s;", VORN_TRANSIENT("TransientMode"), kTransientModes, kTransient),
    Choose("Trigger;%s;", VORN_TRANSIENT("TransientTriggerSettings.TriggerMode"), kTriggers, kTransient),
    Choose("Trigger Slope;%s;", VORN_TRANSIENT("TransientTriggerSettings.TriggerSlope"), kSlopes, kTransient),
    {"Trigger Offset;%.6f;s", VORN_TRANSIENT("TransientTriggerSettings.TriggerOffset"), EField::Real, kTransient},
    {"IF PowerLevel;%.6f;dBm", VORN_TRANSIENT("TransientTriggerSettings.IFPowerLevel"), EField::Real, kTransient},
    {"Ext. Trigger Level;%.6f;V", VORN_TRANSIENT("TransientTriggerSettings.ExtTriggerLevel"), EField::Real, kTransient},
    {"Frequency;%.6f;Hz", "MeasurementSettings.MeasTransientSettings.Frequency", EField::Real, kTransient},
    {"RefLevel;%.6f;dBm", "MeasurementSettings.MeasTransientSettings.RefLevel", EField::Real, kTransient},
    {"DemodBW;%.6f;Hz", VORN_TRANSIENT("TransientBandwidthSettings.DemodBW"), EField::Real, kTransient},
    Choose("LowPass;%s", VORN_TRANSIENT("TransientBandwidthSettings.LowPass"), kLowPasses, kTransient),
    {"MeasTime;%.6f;s", VORN_TRANSIENT("TransientBandwidthSettings.MeasTime"), EField::Real, kTransient},
    {"SquelchEnabled;%s", VORN_TRANSIENT("TransientSquelchSettings.SquelchEnabled"), EField::OnOff, kTransient},
    {"SquelchLevel;%.6f;dBm", VORN_TRANSIENT("TransientSquelchSettings.SquelchLevel"), EField::Real, kTransient},
};

constexpr unsigned kM = kMeasurementKinds;
constexpr unsigned kResidual = Kinds({eGRAPH_RESIDUALPNOISE});
constexpr unsigned kBaseband = Kinds({eGRAPH_PNOISEBASEBAND});
constexpr SRow kMeasurement[] = {
    {"Signal Frequency;%.6f;Hz", VORN_PN("SignalFreq"), EField::Real, kM},
    {"Frequency Multiplier;%d", VORN_PN("SignalMultiplier"), EField::RealInteger, kM},
    {"Signal Level;%.6f;dBm", VORN_PN("SignalLevel"), EField::Real, kM},
    {"Trace Offset;%.6f;dB", VORN_PN("PhTraceSettings.TraceOffset"), EField::Real, kM},
    {"Rf Att;%.6f;dB", "MeasurementSettings.CommonMeasSettings.RFAtten", EField::Real, kM},
    {"Start;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.XAxisStart", EField::Real, kM},
    {"Stop;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.XAxisStop", EField::Real, kM},
    {"Optimize XCorr;%s;", VORN_PN("XCorrOptimisation"), EField::OnOff, kM},
    Choose("Window Type;%s;", VORN_PN("FFTWindow"), kWindows, kM),
    {"Pulsed Phase Noise;%s;", VORN_PN("PulsedPhaseNoise.Enabled"), EField::OnOff, kM},
    {"Duty Cycle;%.2f;%%", VORN_PN("PulsedPhaseNoise.DutyCycle"), EField::Real, kM},
    {"Pulse Repetition Freq;%.6f;Hz", VORN_PN("PulsedPhaseNoise.PulseRepetitionFreq"), EField::Real, kM},
    {"Gated Sweep;%s;", VORN_PN("PulsedPhaseNoise.GatedSweep"), EField::OnOff, kM},
    {"Loop Gain;%.6f;dB", "MeasurementSettings.MeasPhaseNoiseSettings.PLLSettings.VCOLoopGain", EField::Real, kM},
    {"Loop BW;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.PLLSettings.VCOLoopBW", EField::Real, kM},
    {"LNA Gain;%.6f;dB", "GuiSettings.DisplayedLNAGain", EField::Real, kM},
    {"AFC;%s;", VORN_PN("AFCOn"), EField::OnOff, kM},
    {"AFC Target Freq;%.6f;Hz", VORN_PN("AFCTargetFreq"), EField::Real, kM},
    {"AFC Tolerance Auto;%s;", VORN_PN("AFCToleranceAuto"), EField::OnOff, kM},
    {"AFC Tolerance Relative;%s;", VORN_PN("AFCToleranceRel"), EField::OnOff, kM},
    {"AFC Tolerance;%.6f;Hz", VORN_PN("AFCTolerance"), EField::Real, kM, nullptr, 0, VORN_PN("AFCToleranceRel"), false},
    {"AFC Tolerance;%.6f;%%", VORN_PN("AFCTolerance"), EField::Real, kM, nullptr, 0, VORN_PN("AFCToleranceRel"), true},
    {"AFC Max Iterations;%d", VORN_PN("AFCMaxIterations"), EField::Integer, kM},
    // The integrated results of the phase-noise kinds and of residual noise.
    {"Evaluation Start;%.6f;Hz", VORN_PN_EXT("ResidualStart"), EField::Real, kPhaseNoiseKinds},
    {"Evaluation Stop;%.6f;Hz", VORN_PN_EXT("ResidualEnd"), EField::Real, kPhaseNoiseKinds},
    {"Residual Phase Modulation;%.6f;deg", VORN_PN_EXT("ResidualPhaseModulation"), EField::Real, kPhaseNoiseKinds},
    {"Residual Frequency Modulation;%.6f;Hz", VORN_PN_EXT("ResidualFrequencyModulation"), EField::Real,
     kPhaseNoiseKinds},
    {"RMS Jitter;%.6f;ps", VORN_PN_EXT("RMSJitterRaw"), EField::Real, kPhaseNoiseKinds, nullptr, 0, nullptr, true,
     1e12},
    {"Integrated Phase Noise;%.6f;dBc", VORN_PN_EXT("IntegratedPhaseNoise"), EField::Real, kPhaseNoiseKinds},
    {"Evaluation Start;%.6f;Hz", VORN_RPN_EXT("ResidualStart"), EField::Real, kResidual},
    {"Evaluation Stop;%.6f;Hz", VORN_RPN_EXT("ResidualEnd"), EField::Real, kResidual},
    {"Residual Phase Modulation;%.6f;deg", VORN_RPN_EXT("ResidualPhaseModulation"), EField::Real, kResidual},
    {"Residual Frequency Modulation;%.6f;Hz", VORN_RPN_EXT("ResidualFrequencyModulation"), EField::Real, kResidual},
    {"RMS Jitter;%.6f;ps", VORN_RPN_EXT("RMSJitterRaw"), EField::Real, kResidual, nullptr, 0, nullptr, true, 1e12},
    {"Integrated Phase Noise;%.6f;dBc", VORN_RPN_EXT("IntegratedPhaseNoise"), EField::Real, kResidual},
    // Baseband noise: the evaluation lines, the exported trace's integral
    // and the result text.
    {"Evaluation Start;%.6f;Hz", "ResidualCalculations.PhaseNoiseBasebandResidual.EvaluationLine1", EField::Real,
     kBaseband},
    {"Evaluation Stop;%.6f;Hz", "ResidualCalculations.PhaseNoiseBasebandResidual.EvaluationLine2", EField::Real,
     kBaseband},
    {"Integrated Noise;%.6f;dBV",
     "MeasurementResults.PhaseNoiseBasebandResults.PhaseNoiseBasebandDisplayTrace[@].IntegratedPN_DBV", EField::Real,
     kBaseband},
    {"Integrated Noise;%s",
     "MeasurementResults.PhaseNoiseBasebandResults.PhaseNoiseBasebandExtendedResults.IntegratedPNString_V",
     EField::Text, kBaseband},
};

// One band of the sweep table, for each band the measurement ran.
constexpr SRow kSweep[] = {
    {"SubSweep;%d;", nullptr, EField::Ordinal, kM},
    {"Start;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].Start", EField::Real, kM},
    {"Stop;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].Stop", EField::Real, kM},
    {"RBW;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].RBW", EField::Real, kM},
    {"Sweep Count;%d;", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].SweepCount", EField::Integer,
     kM},
    {"FFTFilter;%s;", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].UseFFTFilter", EField::OnOff,
     kM},
    {"Meas Time;%.6f;s", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].MeasTime", EField::Real, kM},
    {"Ref Level;%.6f;dBm", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].RefLevel", EField::Real,
     kM},
    {"VBW;%.6f;Hz", "MeasurementSettings.MeasPhaseNoiseSettings.MeasSweepSettings[#].VBW", EField::RealOrText, kM,
     kAuto, 1},
};
constexpr char kSweepCount[] = "MeasurementSettings.MeasPhaseNoiseSettings.ValidMeasSweepSettings";
constexpr int kSweepBands = 25;

// The test setup: the configuration each measurement ran with; residual
// noise by its reference.
constexpr SRow kSetup[] = {
    Choose("TSetup;%s;", "MeasurementSettings.MeasVCOSettings.MeasVCOTuningSettings.SelectedConfig", kSetups,
           Kinds({eGRAPH_VCOTUNING})),
    Choose("TSetup;%s;", "MeasurementSettings.MeasVCOSettings.MeasVCODCSettings.SelectedConfig", kSetups,
           Kinds({eGRAPH_VCODC})),
    Choose("TSetup;%s;", "MeasurementSettings.MeasPhaseNoiseSettings.SelectedConfig", kSetups, kPhaseNoiseKinds),
    Choose("TSetup;%s;", VORN_PN("UserPLLSettings.RPNSelectedConfig"), kReferences, kResidual),
};

static_assert(AllFit(kInstrument) && AllFit(kDCPorts) && AllFit(kDCStep) && AllFit(kLoop) && AllFit(kAttenuator) &&
              AllFit(kVCO) && AllFit(kTransientLines) && AllFit(kMeasurement) && AllFit(kSweep) && AllFit(kSetup));

#undef VORN_PORT
#undef VORN_VALUES
#undef VORN_LOOP
#undef VORN_AM
#undef VORN_PN
#undef VORN_TRANSIENT
#undef VORN_VCO
#undef VORN_PN_EXT
#undef VORN_RPN_EXT

// The arrays a result trace may hold, by name.
enum EArray {
    kX,
    kY,
    kVolt,
    kFreq,
    kSens,
    kLevel,
    kCurrent,
    kFreqRel,
    kSensRel,
    kLevelRel,
    kCurrentRel,
    kTime,
    kFrequencyUpper,
    kPhaseUpper,
    kAmplitudeUpper,
    kPowerUpper,
    kVoltage,
    kSpotNoise,
    kArrayCount,
    kNoArray = kArrayCount
};
constexpr const char* kArrayNames[kArrayCount] = {
    "X",       "Y",        "Volt",       "Freq", "Sens",           "Level",      "Current",        "FreqRel",
    "SensRel", "LevelRel", "CurrentRel", "Time", "FrequencyUpper", "PhaseUpper", "AmplitudeUpper", "PowerUpper",
    "Voltage", "SpotNoise"};

// The result traces of one graph family: the results group and its display
// traces, the display settings group with the trace settings and the
// selected trace, the shared smoothing window where the traces hold none,
// and the spur list.
struct STraceFamily {
    const char* results;
    const char* trace;
    const char* display;
    const char* info;
    const char* smoothing;
    const char* spurs;
    const char* spurList;
    const char* spurCount;
};

constexpr STraceFamily kFamilies[] = {
    {"MeasurementResults.PhaseNoiseResults", "DisplayTrace", "DisplaySettings.PhaseNoiseTrace", "Trace", nullptr,
     "MeasurementResults.PhaseNoiseResults.PLLResults", "SpurList", "SpurListLength"},
    {"MeasurementResults.AMNoiseResults", "AMDisplayTrace", "DisplaySettings.AMNoiseTrace", "AMTrace", nullptr,
     "MeasurementResults.AMNoiseResults", "AMSpurList", "AMSpurListLength"},
    {"MeasurementResults.SNoiseTuningResults", "SNoiseTuningDisplayTrace", "DisplaySettings.SpotNoiseTuningTrace",
     "SpotNoiseTraceInfo", "UserSettings.SpotNoiseSettings.Smoothing", nullptr, nullptr, nullptr},
    {"MeasurementResults.PhaseNoiseBasebandResults", "PhaseNoiseBasebandDisplayTrace",
     "DisplaySettings.PhaseNoiseBasebandTrace", "PhaseNoiseBasebandTraceInfo", nullptr,
     "MeasurementResults.PhaseNoiseBasebandResults", "PhaseNoiseBasebandSpurList", "PhaseNoiseBasebandSpurListLength"},
    {"MeasurementResults.ResidualPhaseNoiseResults", "ResidualPhaseNoiseDisplayTrace",
     "DisplaySettings.ResidualPhaseNoiseTrace", "ResidualPhaseNoiseTraceInfo", nullptr,
     "MeasurementResults.ResidualPhaseNoiseResults", "ResidualPhaseNoiseSpurList", "ResidualPhaseNoiseSpurListLength"},
    {"MeasurementResults.VCOResults.VCOTuningResults", "VCOTuningDisplayTrace",
     "DisplaySettings.VCOTraces.VCOTuningTrace", "VCOTuningTraceInfo",
     "UserSettings.VCOSettings.VCOTuningSettings.Smoothing", nullptr, nullptr, nullptr},
    {"MeasurementResults.VCOResults.VCODCResults", "VCODCDisplayTrace", "DisplaySettings.VCOTraces.VCODCTrace",
     "VCODCTraceInfo", "UserSettings.VCOSettings.VCODCSettings.Smoothing", nullptr, nullptr, nullptr},
    {"MeasurementResults.VCOResults.VCOHarmonicResults", "VCOHarmonicDisplayTrace",
     "DisplaySettings.VCOTraces.VCOHarmonicTrace", "VCOHarmonicTraceInfo",
     "UserSettings.VCOSettings.VCOHarmonicSettings.Smoothing", nullptr, nullptr, nullptr},
    {"MeasurementResults.TransientResults", "TransientDisplayTrace", "DisplaySettings.TransientTrace",
     "TransientTraceInfo", nullptr, nullptr, nullptr, nullptr},
};
constexpr int kFamilyCount = static_cast<int>(std::size(kFamilies));

// The family of each kind (eGRAPH value), -1 for none: summary and low pass
// export the AM noise traces that their measurement name announces.
constexpr int kFamilyOfKind[] = {-1, 5, 6, 8, 0, 0, 7, 0, 1, 1, 2, 3, 1, 4};

int FamilyOf(ULONG kind) noexcept { return kind < std::size(kFamilyOfKind) ? kFamilyOfKind[kind] : -1; }

// The axes of the exported trace: which arrays, the units, the name.
struct SAxes {
    EArray x = kNoArray;
    EArray y = kNoArray;
    const char* xUnit = "Hz;";
    const char* yUnit = "dBm;";
    std::string name;
};

// The fixed axes of the kinds whose axes do not follow a setting.
SAxes FixedAxes(ULONG kind) {
    switch (kind) {
        case eGRAPH_PNOISEPLL:
            return {kX, kY, "Hz;", "dBc/Hz;", "PNoise;PLL"};
        case eGRAPH_PNOISEANALYSER:
            return {kX, kY, "Hz;", "dBc/Hz;", "PNoise;Spectrum"};
        case eGRAPH_PNOISEXCORR:
            return {kX, kY, "Hz;", "dBc/Hz;", "PNoise;CCorelation"};
        case eGRAPH_LOWPASS:
        case eGRAPH_AMNOISE:
        case eGRAPH_SUMMARY:
            return {kX, kY, "Hz;", "dBc/Hz;", "ANoise"};
        case eGRAPH_SNOISETUNING:
            return {kVoltage, kSpotNoise, "V;", "dBc/Hz;", "PNoise;SNTuning"};
        case eGRAPH_PNOISEBASEBAND:
            return {kX, kY, "Hz;", "dBV/Hz;", "PNoise;Baseband"};
        case eGRAPH_RESIDUALPNOISE:
            return {kX, kY, "Hz;", "dBc/Hz;", "PNoise;Residual"};
        default:
            return {};
    }
}

// Values print as zero (OFF, "") for a parameter that is missing or holds
// no valid value: ValueOr(p, 0), TextOf(p).
// An eTUNING value held as a real (the shown characteristic), 0 beyond.
ULONG CharacteristicOf(double value) noexcept {
    return value >= 0 && value <= 3.0 ? static_cast<ULONG>(std::lround(value)) : ULONG{eTUNING_FREQ};
}

// The C locale of formatting: "%.6f" writes a point whatever the process's
// locale, so that DotDecimalStyle alone decides.
locale_t CLocale() noexcept {
    static const locale_t c = newlocale(LC_ALL_MASK, "C", locale_t{});
    return c;
}

// Collects the file's lines: CR LF after each, "." as "," when asked, no
// more than kMaxExportBytes (beyond, every further line is dropped and
// Overflowed() tells).
class CExportWriter {
public:
    explicit CExportWriter(bool commas) : commas_(commas) {}

    void Line(std::string_view line) {
        if (line.empty() || overflowed_) return;
        const bool bare = line == "\r\n";
        if (text_.size() + line.size() + 2 > kMaxExportBytes) {
            overflowed_ = true;
            return;
        }
        const std::size_t at = text_.size();
        text_.append(line);
        if (commas_)
            for (std::size_t i = at; i < text_.size(); ++i)
                if (text_[i] == '.') text_[i] = ',';
        if (!bare) text_.append("\r\n");
    }
    // A line of `format` with one value.
    template <class T>
    void Format(const char* format, T value) {
        char line[512];
        const int n = std::snprintf(line, sizeof line, format, value);
        if (n > 0) Line(std::string_view(line, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof line - 1)));
    }

    bool Overflowed() const noexcept { return overflowed_; }
    std::string& Text() noexcept { return text_; }

private:
    std::string text_;
    bool commas_;
    bool overflowed_ = false;
};

}  // namespace exporting

using namespace exporting;

namespace {

// Binds the rows to their parameters (the parameter of the class the field
// reads, else null), `#` standing for `index`.
void Bind(const CDatabaseObjectImpl& from, std::vector<CParameterExportData::SLine>& lines, const SRow* rows,
          std::size_t count, int index = 0) {
    for (const SRow* row = rows; row != rows + count; ++row) {
        CParameterExportData::SLine line;
        line.row = row;
        line.index = index;
        for (int t = 0; t < 8 && row->path; ++t) {
            std::string path = row->path;
            if (const auto hash = path.find('#'); hash != std::string::npos)
                path.replace(hash, 1, std::to_string(index));
            const auto at = path.find('@');
            if (at == std::string::npos && t > 0) break;
            if (at != std::string::npos) path.replace(at, 1, std::to_string(t));
            CParameter* p = FromRoot<CParameter>(from, path);
            switch (row->field) {
                case EField::Real:
                case EField::RealOrText:
                case EField::RealInteger:
                    p = dynamic_cast<CParameterReal*>(p);
                    break;
                case EField::Integer:
                case EField::Decade:
                case EField::Choice:
                case EField::Model:
                    p = dynamic_cast<CParameterInteger*>(p);
                    break;
                case EField::OnOff:
                    p = dynamic_cast<CParameterBoolean*>(p);
                    break;
                case EField::Text:
                    p = dynamic_cast<CParameterString*>(p);
                    break;
                default:
                    p = nullptr;
                    break;
            }
            line.at[t] = p;
        }
        if (row->when) line.when = FromRoot<CParameterBoolean>(from, row->when);
        lines.push_back(line);
    }
}

template <std::size_t N>
void Bind(const CDatabaseObjectImpl& from, std::vector<CParameterExportData::SLine>& lines, const SRow (&rows)[N],
          int index = 0) {
    Bind(from, lines, rows, N, index);
}

// The local time formatted, "" when that fails.
std::string Now(const char* format) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[128];
    if (!localtime_r(&now, &local) || std::strftime(text, sizeof text, format, &local) == 0) return {};
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------
// Binding
// ---------------------------------------------------------------------------
void CParameterExportData::BindAll() {
    type_ = FromRoot<CParameterInteger>(*this, "OtherSettings.NewDataFileType");
    traceFile_ = FromRoot<CParameterString>(*this, "OtherSettings.NewTraceFile");
    spursFile_ = FromRoot<CParameterString>(*this, "OtherSettings.NewSpursFile");
    dotDecimal_ = FromRoot<CParameterBoolean>(*this, "OtherSettings.DotDecimalStyle");
    header_ = FromRoot<CParameterBoolean>(*this, "OtherSettings.TraceExportHeader");
    allTraces_ = FromRoot<CParameterBoolean>(*this, "OtherSettings.TraceExportAllTraces");
    graph_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.CurrentGraphType");

    headerLines_.clear();
    Bind(*this, headerLines_, kInstrument);
    Bind(*this, headerLines_, kDCPorts);
    for (int step = 0; step < kDCSteps; ++step) Bind(*this, headerLines_, kDCStep, step);
    Bind(*this, headerLines_, kLoop);
    Bind(*this, headerLines_, kAttenuator);
    Bind(*this, headerLines_, kVCO);
    Bind(*this, headerLines_, kTransientLines);
    Bind(*this, headerLines_, kMeasurement);
    sweepLines_.clear();
    for (int band = 0; band < kSweepBands; ++band) Bind(*this, sweepLines_, kSweep, band);
    sweepCount_ = FromRoot<CParameterInteger>(*this, kSweepCount);
    setupLines_.clear();
    Bind(*this, setupLines_, kSetup);

    traces_.assign(kFamilyCount, {});
    selected_.assign(kFamilyCount, nullptr);
    spurs_.assign(kFamilyCount, {});
    spurCounts_.assign(kFamilyCount, nullptr);
    for (int f = 0; f < kFamilyCount; ++f) {
        const STraceFamily& family = kFamilies[f];
        auto* results = FromRoot<CGroupImpl>(*this, family.results);
        auto* display = FromRoot<CGroupImpl>(*this, family.display);
        auto* shared = family.smoothing ? FromRoot<CParameterReal>(*this, family.smoothing) : nullptr;
        selected_[f] = ChildOf<CParameterInteger>(display, "SelectedTrace");
        for (LONG t = 0; t < 8; ++t) {
            STrace& trace = traces_[f][t];
            auto* group = ChildOf<CGroupImpl>(results, family.trace, t);
            auto* info = ChildOf<CGroupImpl>(display, family.info, t);
            trace.arrays.resize(kArrayCount);
            for (int a = 0; a < kArrayCount; ++a) trace.arrays[a] = ChildOf<CParameterRealArray>(group, kArrayNames[a]);
            trace.mode = ChildOf<CParameterInteger>(group, "TraceMode");
            trace.harmonic = ChildOf<CParameterInteger>(group, "HarmonicMode");
            trace.smoothingOn = ChildOf<CParameterBoolean>(info, "SmoothingOn");
            trace.smoothing = shared ? shared : ChildOf<CParameterReal>(group, "SmoothingValue");
        }
        if (!family.spurs) continue;
        auto* spurs = FromRoot<CGroupImpl>(*this, family.spurs);
        spurCounts_[f] = ChildOf<CParameterInteger>(spurs, family.spurCount);
        for (LONG s = 0;; ++s) {
            auto* entry = ChildOf<CGroupImpl>(spurs, family.spurList, s);
            if (!entry) break;
            spurs_[f].push_back(
                {ChildOf<CParameterReal>(entry, "SpurFrequency"), ChildOf<CParameterReal>(entry, "SpurPower")});
        }
    }

    tuningShown_ = FromRoot<CParameterReal>(*this, "UserSettings.VCOSettings.VCOTuningSettings.TuningCharacteristic");
    dcShown_ = FromRoot<CParameterReal>(*this, "UserSettings.VCOSettings.VCODCSettings.PushingCharacteristic");
    screens_ = FromRoot<CParameterIntegerArray>(*this, "DisplaySettings.ScreenTraceConfig");
    voltageOnX_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.VCOVoltageOnXAxis");
    relative_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.VCOPushPullRelative");
    split_ = FromRoot<CParameterBoolean>(*this, "DisplaySettings.SplitScreen");
    transientMode_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.TransientMode");
    pmUnit_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.PMUnit");
    constexpr char kTuning[] = "MeasurementSettings.MeasVCOSettings.MeasVCOTuningSettings.";
    pullingOn_ = FromRoot<CParameterBoolean>(*this, std::string(kTuning) + "PullingOn");
    termination_ = FromRoot<CParameterInteger>(*this, std::string(kTuning) + "VCOTuningSubSweepSettings.Termination");
    pushingOn_ = FromRoot<CParameterBoolean>(*this, std::string(kTuning) + "PushingOn");
    pushing_ = FromRoot<CParameterReal>(*this, std::string(kTuning) + "VPushing");
    squelch_ =
        FromRoot<CParameterBoolean>(*this, "UserSettings.TransientSettings.TransientSquelchSettings.SquelchEnabled");
    blankBefore_ = FromRoot<CParameterInteger>(*this, "MeasurementResults.TransientResults.SquelchSweepLimitIdx");
    blankAfter_ = FromRoot<CParameterInteger>(*this, "MeasurementResults.TransientResults.SquelchMeasLimitIdx");
}

// ---------------------------------------------------------------------------
// Assignments
// ---------------------------------------------------------------------------
STDMETHODIMP CParameterExportData::put_Value(VARIANT_BOOL bValue) {
    const HRESULT hr = CParameterBoolean::put_Value(bValue);
    return FAILED(hr) ? hr : hr | Export();
}

STDMETHODIMP CParameterExportData::AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) {
    const HRESULT hr = CParameterBoolean::AssignValue(bValue, udwCtrlFlags);
    return FAILED(hr) ? hr : hr | Export();
}

STDMETHODIMP CParameterExportData::SetValueNoCallback(VARIANT_BOOL bValue) {
    const HRESULT hr = CParameterBoolean::SetValueNoCallback(bValue);
    return FAILED(hr) ? hr : hr | Export();
}

HRESULT CParameterExportData::Export() {
    std::string path;
    std::string text;
    std::string reason;
    const HRESULT hr = Guarded([&]() -> HRESULT {
        // The tree's shape never changes after creation: the binding needs no lock.
        std::call_once(bound_, [this] { BindAll(); });
        CReadLock lock;
        const ULONG type = ValueOr(type_, 0);
        const CParameterString* file = type == 0 ? traceFile_ : type == 1 ? spursFile_ : nullptr;
        if (!file) {
            reason = "NewDataFileType " + std::to_string(type) + " selects no export file (0 traces, 1 spurs)";
            return kExportFailed;
        }
        path = TextOf(file);
        if (path.empty()) return S_OK;
        if (!Compose(type, text)) {
            reason = "the export file " + path + " would exceed " + std::to_string(kMaxExportBytes >> 20) +
                     " MiB; nothing was written";
            return kExportFailed;
        }
        return S_OK;
    });
    if (hr == E_OUTOFMEMORY) {
        Fail(hr, "no memory for the export file " + path + "; nothing was written");
        return kExportFailed;
    }
    if (hr != S_OK) {
        if (FAILED(hr)) reason = "the export failed (" + std::to_string(hr) + ")";
        Fail(FAILED(hr) ? hr : E_FAIL, reason);
        return kExportFailed;
    }
    if (path.empty()) return S_OK;
    // The file is written outside the lock: the text is complete.
    if (!VornReplaceFileA(path.c_str(), text.data(), static_cast<DWORD>(text.size()), 0)) {
        const DWORD error = GetLastError();
        const std::string why = LastErrorText();
        Fail(error ? HRESULT_FROM_WIN32(error) : E_FAIL, "the export file " + path +
                                                             " cannot be written: " + (why.empty() ? "" : why + " ") +
                                                             "(Win32 error " + std::to_string(error) + ")");
        return kExportFailed;
    }
    return S_OK;
}

// ---------------------------------------------------------------------------
// Content
// ---------------------------------------------------------------------------
bool CParameterExportData::Compose(ULONG type, std::string& text) const {
    const locale_t c = CLocale();
    const locale_t previous = c ? uselocale(c) : locale_t{};
    struct SRestore {
        locale_t previous;
        ~SRestore() {
            if (previous) uselocale(previous);
        }
    } restore{previous};

    CWriter out(!IsTrue(dotDecimal_));
    const ULONG kind = ValueOr(graph_, 0);
    const ULONG active = ActiveTrace(kind);
    if (IsTrue(header_)) WriteHeader(out, kind, active);
    if (type == 0) {
        if (IsTrue(allTraces_))
            for (ULONG t = 0; t < 8; ++t) WriteTraceBlock(out, kind, t);
        else
            WriteTraceBlock(out, kind, active);
    } else {
        WriteSpurBlock(out, kind);
    }
    if (out.Overflowed()) return false;
    text = std::move(out.Text());
    return true;
}

ULONG CParameterExportData::ActiveTrace(ULONG kind) const {
    const int family = FamilyOf(kind);
    const ULONG selected = family < 0 ? 0 : ValueOr(selected_[family], 0);
    return selected >= 1 && selected <= 8 ? selected - 1 : 0;
}

void CParameterExportData::WriteLines(CWriter& out, const std::vector<SLine>& lines, ULONG kind, ULONG trace,
                                      int repeats) const {
    for (const SLine& line : lines) {
        const SRow& row = *line.row;
        if (!IsKind(row.kinds, kind) || line.index >= repeats) continue;
        if (row.when && IsTrue(line.when) != row.whenTrue) continue;
        CParameter* p = line.at[trace < 8 ? trace : 0];
        if (!p) p = line.at[0];
        switch (row.field) {
            case EField::Real:
                out.Format(row.format, ValueOr(static_cast<CParameterReal*>(p), 0.0) * row.scale);
                break;
            case EField::RealOrText:
                if (p && p->IsValid())
                    out.Format(row.format, ValueOr(static_cast<CParameterReal*>(p), 0.0) * row.scale);
                else
                    out.Line(row.names[0]);
                break;
            case EField::RealInteger:
                out.Format(row.format, static_cast<int>(std::lround(ValueOr(static_cast<CParameterReal*>(p), 0.0))));
                break;
            case EField::Integer:
                out.Format(row.format, static_cast<int>(ValueOr(static_cast<CParameterInteger*>(p), 0)));
                break;
            case EField::Decade:
                out.Format(row.format,
                           std::pow(10.0, static_cast<double>(ValueOr(static_cast<CParameterInteger*>(p), 0))));
                break;
            case EField::OnOff:
                out.Format(row.format, IsTrue(static_cast<CParameterBoolean*>(p)) ? "ON" : "OFF");
                break;
            case EField::Text:
                out.Format(row.format, TextOf(static_cast<CParameterString*>(p)).c_str());
                break;
            case EField::Choice: {
                const ULONG v = ValueOr(static_cast<CParameterInteger*>(p), 0);
                out.Format(row.format, v < row.count ? row.names[v] : "");
                break;
            }
            case EField::Model:
                out.Format(row.format, InstrumentModelName(ValueOr(static_cast<CParameterInteger*>(p), 0)));
                break;
            case EField::Date:
                out.Format(row.format, Now("%d %b %y").c_str());
                break;
            case EField::Time:
                out.Format(row.format, Now("%H:%M:%S").c_str());
                break;
            case EField::Ordinal:
                out.Format(row.format, line.index + 1);
                break;
        }
    }
}

void CParameterExportData::WriteHeader(CWriter& out, ULONG kind, ULONG trace) const {
    WriteLines(out, headerLines_, kind, trace);
    WriteLines(out, sweepLines_, kind, trace, static_cast<int>(std::min<ULONG>(ValueOr(sweepCount_, 0), kSweepBands)));
    WriteLines(out, setupLines_, kind, trace);
}

SAxes CParameterExportData::Axes(ULONG kind, int screen) const {
    const bool voltageOnX = IsTrue(voltageOnX_);
    switch (kind) {
        case eGRAPH_VCOTUNING: {
            ULONG shown = CharacteristicOf(ValueOr(tuningShown_, 0.0));
            if (screen == 1 && screens_ && screens_->IsValid() && screens_->Size() >= 2 &&
                screens_->Elements()[1] <= eTUNING_CURRENT)
                shown = screens_->Elements()[1];
            const bool relative = IsTrue(relative_);
            SAxes axes{voltageOnX ? kVolt : kFreq, kNoArray, voltageOnX ? "V;" : "Hz;", "", "VCO;TChar"};
            switch (shown) {
                case eTUNING_SENS:
                    axes.y = relative ? kSensRel : kSens;
                    axes.yUnit = "Hz/V;";
                    axes.name = "VCO;TSensitivity";
                    break;
                case eTUNING_LEVEL:
                    axes.y = relative ? kLevelRel : kLevel;
                    axes.yUnit = "dBm;";
                    axes.name = "VCO;RFPower";
                    break;
                case eTUNING_CURRENT:
                    axes.y = relative ? kCurrentRel : kCurrent;
                    axes.yUnit = "A;";
                    break;
                default:
                    // The tuning characteristic itself: frequency over
                    // voltage, or voltage over frequency.
                    axes.y = voltageOnX ? (relative ? kFreqRel : kFreq) : kVolt;
                    axes.yUnit = voltageOnX ? "Hz;" : "V;";
                    break;
            }
            return axes;
        }
        case eGRAPH_VCODC: {
            const bool level = CharacteristicOf(ValueOr(dcShown_, 0.0)) == eTUNING_LEVEL;
            return {kVolt, level ? kLevel : kFreq, "V;", level ? "dBm;" : "Hz;", "VCO;DCChar"};
        }
        case eGRAPH_VCOHARMONIC:
            return {voltageOnX ? kVolt : kFreq, kLevel, voltageOnX ? "V;" : "Hz;", "dBm;", "VCO;HPower"};
        case eGRAPH_TRANSIENT: {
            static constexpr EArray kUpper[] = {kFrequencyUpper, kPhaseUpper, kAmplitudeUpper, kPowerUpper};
            static constexpr const char* kUnits[] = {"Hz;", "deg;", "%;", "dBm;"};
            ULONG mode = ValueOr(transientMode_, 0);
            if (mode >= std::size(kUpper)) mode = eTRANS_FM;
            const char* unit = mode == eTRANS_PM && ValueOr(pmUnit_, 0) == ePMUNIT_RAD ? "rad;" : kUnits[mode];
            return {kTime, kUpper[mode], "s;", unit, std::string("Transient;") + kTransientModes[mode]};
        }
        default:
            return FixedAxes(kind);
    }
}

void CParameterExportData::WriteTraceBlock(CWriter& out, ULONG kind, ULONG trace) const {
    const bool split = kind == eGRAPH_VCOTUNING && IsTrue(split_);
    out.Format("Measurement;%s", Axes(kind, 0).name.c_str());
    out.Format(split ? "Trace;%d;ScreenA" : "Trace;%d;", static_cast<int>(trace + 1));
    WriteTraceBody(out, kind, trace, 0);
    if (!split) return;
    out.Format("Measurement;%s", Axes(kind, 1).name.c_str());
    out.Format("Trace;%d;ScreenB", static_cast<int>(trace + 1));
    WriteTraceBody(out, kind, trace, 1);
}

void CParameterExportData::WriteTraceBody(CWriter& out, ULONG kind, ULONG index, int screen) const {
    const SAxes axes = Axes(kind, screen);
    const int family = FamilyOf(kind);
    const STrace* trace = family >= 0 && index < 8 ? &traces_[family][index] : nullptr;
    const auto points = [&](EArray a) -> const CParameterRealArray* {
        const CParameterRealArray* array = trace && a != kNoArray ? trace->arrays[a] : nullptr;
        return array && array->IsValid() && array->Elements() ? array : nullptr;
    };
    const CParameterRealArray* x = points(axes.x);
    const CParameterRealArray* y = points(axes.y);
    const ULONG n = x && y ? std::min(x->Size(), y->Size()) : 0;
    if (n == 0) {
        out.Line("No trace Data");
        return;
    }

    const ULONG mode = ValueOr(trace->mode, 0);
    out.Format("Trace Mode;%s;", mode < std::size(kTraceModes) ? kTraceModes[mode] : "Unknown Mode");
    out.Format("Smoothing;%s;", IsTrue(trace->smoothingOn) ? "ON" : "OFF");
    out.Format("Smoothing Window;%.2f;%%", ValueOr(trace->smoothing, 0.0));
    if (IsKind(kVCOKinds, kind)) {
        const ULONG term = IsTrue(pullingOn_) ? ValueOr(termination_, 0) : ULONG{eTERMINATION_NONE};
        out.Line(term == eTERMINATION_TERM1   ? "Pulling;TERM1;"
                 : term == eTERMINATION_TERM2 ? "Pulling;TERM2;"
                                              : "Pulling;OFF;");
        const double pushing = ValueOr(pushing_, 0.0);
        if (!IsTrue(pushingOn_))
            out.Line("Pushing;OFF;");
        else
            out.Format(pushing < 0 ? "Pushing;-%.6f;V" : "Pushing;+%.6f;V", std::fabs(pushing));
    }
    if (kind == eGRAPH_VCOHARMONIC) {
        const ULONG harmonic = ValueOr(trace->harmonic, 0);
        if (harmonic <= eHARMONIC_1)
            out.Line("Harmonic Mode;Fundamental");
        else
            out.Format("Harmonic Mode;Harmonic;%d", static_cast<int>(harmonic));
    }
    out.Line(std::string("x-Unit;") + axes.xUnit);
    out.Line(std::string("y-Unit;") + axes.yUnit);
    out.Format("Values;%d;", static_cast<int>(n));

    // The points: "%.6f;%.6f;", transient traces "%.6e;%.6e;" with the
    // squelched points blanked.
    const bool transient = kind == eGRAPH_TRANSIENT;
    const auto format = transient ? std::chars_format::scientific : std::chars_format::fixed;
    const bool squelch = transient && IsTrue(squelch_);
    const ULONG before = squelch ? ValueOr(blankBefore_, 0) : 0;
    const ULONG after = squelch ? ValueOr(blankAfter_, 0) : 0;
    constexpr double kBlank = 9.91e37;
    const double* xs = x->Elements();
    const double* ys = y->Elements();
    char line[1024];
    for (ULONG k = 0; k < n && !out.Overflowed(); ++k) {
        const double value = (before > 0 && k < before) || (after > 0 && k > after) ? kBlank : ys[k];
        char* end = std::to_chars(line, line + 500, xs[k], format, 6).ptr;
        *end++ = ';';
        end = std::to_chars(end, end + 500, value, format, 6).ptr;
        *end++ = ';';
        out.Line(std::string_view(line, static_cast<std::size_t>(end - line)));
    }
}

void CParameterExportData::WriteSpurBlock(CWriter& out, ULONG kind) const {
    out.Line("x-Unit;Hz;");
    out.Line(kind == eGRAPH_PNOISEBASEBAND ? "y-Unit;dBV;" : "y-Unit;dBc;");
    out.Format("Measurement;%s", Axes(kind, 0).name.c_str());
    const int family = FamilyOf(kind);
    const std::vector<SSpur>* spurs = family >= 0 ? &spurs_[family] : nullptr;
    const ULONG count = spurs ? std::min<ULONG>(ValueOr(spurCounts_[family], 0), spurs->size()) : 0;
    if (count == 0) {
        out.Line("No spurs");
        return;
    }
    out.Format("Spurs;%d;", static_cast<int>(count));
    for (ULONG s = 0; s < count; ++s) {
        char line[800];
        const int n = std::snprintf(line, sizeof line, "%.6f;%.6f;", ValueOr((*spurs)[s].frequency, 0.0),
                                    ValueOr((*spurs)[s].level, 0.0));
        if (n > 0)
            out.Line(std::string_view(line, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof line - 1)));
    }
}

}  // namespace vorn
