// The analyzer's read-only tuning values, mirrored from the registry into
// InstrumentConfigInfo: what the analyzer under the application can do
// (frequency range, RBW range, IF power range, attenuator step, sweep points,
// baseband gain). The installation writes them under
//   HKEY_LOCAL_MACHINE\SOFTWARE\Zelmwerk\VORN\Analyzer
// as values named like the parameters: REG_DWORD for the integers
// (AttStepSize, MaxSweepPoints), REG_SZ decimal text in the C locale for the
// reals ("50e9", "-50"; white space around the number allowed, nothing else).
// The database never writes them.
//
// Each parameter reads its value once, in PostConstruct; every reset (each
// preset, the first one included) then gives it that value instead of its
// record's. A value that is missing, like the key, is the normal case: the
// record's default stands. A value of another type, or text that is no
// finite number, is malformed: the default stands and a diagnostic line
// naming the registry value and the parameter goes to OutputDebugStringA
// (standard error). A client may still write the parameters; the next
// preset brings back the registry's value.
// docs/system-settings.md lists them.
#pragma once

#include <string>

#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"

namespace vorn {

inline constexpr char kAnalyzerTuningKey[] = "SOFTWARE\\Zelmwerk\\VORN\\Analyzer";

// The tuning value `name` from the registry. S_OK with `value`; S_FALSE when
// it is missing; E_INVALIDARG with `problem` ("a REG_DWORD value, where a
// REG_SZ number is expected") when it is malformed or cannot be read.
HRESULT ReadTuningValue(const char* name, ULONG& value, std::string& problem);
HRESULT ReadTuningValue(const char* name, double& value, std::string& problem);

template <class Base, class Value>
class CTuningValueT : public Base {
public:
    void PostConstruct() override {
        Base::PostConstruct();
        std::string problem;
        const char* name = this->BaseName() ? this->BaseName() : "";
        const HRESULT hr = ReadTuningValue(name, registry_, problem);
        mirrored_ = hr == S_OK;
        if (FAILED(hr)) Diagnose(name, problem);
    }

    // The base class's reset, then the registry's value (the plain integer
    // and real classes take any value).
    STDMETHODIMP Reset() override {
        return this->UnderWriteLock([&]() -> HRESULT {
            const HRESULT hr = Base::Reset();
            if (SUCCEEDED(hr) && mirrored_) this->SetValue(registry_);
            return hr;
        });
    }

private:
    void Diagnose(const char* name, const std::string& problem) const {
        const std::string line = "vorndb: the registry value HKEY_LOCAL_MACHINE\\" + std::string(kAnalyzerTuningKey) +
                                 "\\" + name + " is " + problem + "; " + this->FullName() + " keeps its default\n";
        OutputDebugStringA(line.c_str());
    }

    Value registry_{};
    bool mirrored_ = false;
};

class CParameterTuningInteger : public CTuningValueT<CParameterInteger, ULONG> {};
class CParameterTuningReal : public CTuningValueT<CParameterReal, double> {};

}  // namespace vorn
