// A small tree for the tests of the settings stream format: an unnamed root
// holding the group Settings, with one parameter of every payload kind (the
// k...Default records below give their classes and defaults), and the
// indexed groups Table[0] and Table[1], each with a real Gain of 0 dB.
//
// The tree is reset on construction; no notification thread runs, so no sink
// is told of anything.
#pragma once

#include <vector>

#include "parameters/ParameterArray.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterBuffer.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "parameters/ParameterString.h"
#include "stream/NodeStream.h"
#include "stream/StreamBytes.h"
#include "support/TreeSupport.h"

namespace persist_test {

VORN_DEFINE_GUID(IID_IPersistTestGroup, 0x3f7a92c4, 0x5b1e, 0x4d08, 0x8e, 0x61, 0x27, 0xc9, 0x0a, 0x4b, 0xd3, 0x15);
struct IPersistTestGroup : IGroup {};

// A group whose children are added in order.
using CTestGroup = vorn::test::CAddedChildren<vorn::CStreamGroupTemplate<IPersistTestGroup, &IID_IPersistTestGroup>>;

inline constexpr SDefaultsBooleanValue kFlagDefault{.value = 1};
inline constexpr SDefaultsIntegerValue kCountDefault{.value = 7};
inline constexpr SDefaultsEnumValue kModeDefault{.count = 3, .value = 1};
inline constexpr SDefaultsIntegerValueMinMax kIndexDefault{.value = 2, .minimum = 0, .maximum = 10};
inline constexpr SDefaultsRealValue kLevelDefault{.unit = eUNIT_DBM, .value = -10.0};
inline constexpr SDefaultsRealValueMinMax kFreqDefault{.unit = eUNIT_HZ, .value = 1e6, .minimum = 0, .maximum = 1e9};
inline constexpr SDefaultsStringValue kTitleDefault{.value = u"abc"};
inline constexpr SDefaultsIntegerArray kIntsDefault{.maxSize = 4, .unit = eUNIT_NONE};
inline constexpr SDefaultsRealArray kTraceDefault{.maxSize = 8, .unit = eUNIT_DB};
inline constexpr SDefaultsBuffer kSamplesDefault{.leading = {1, 4, 1}, .firstExtent = 0, .secondExtent = 0};
inline constexpr SDefaultsRealValue kGainDefault{.unit = eUNIT_DB, .value = 0.0};

// The whole stream node.Save() writes.
inline std::vector<BYTE> Saved(vorn::CDatabaseObjectImpl& node) {
    vorn::ComPtr<IStream> stream;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, stream.put())) || FAILED(node.Save(stream.get()))) return {};
    return ContentsOf(stream.get());
}

// node.Load() of a stream holding `bytes`.
inline HRESULT Load(vorn::CDatabaseObjectImpl& node, const CBytes& bytes) { return node.Load(NewStream(bytes).get()); }

// A stream of the Settings group's record holding `records`.
inline CBytes SettingsStream(const std::vector<CBytes>& records) {
    return Stream(Record("Settings", GroupPayload(records)));
}

struct SampleTree {
    SampleTree() {
        root.SetName(nullptr, -1, -1, nullptr);
        root.Add(settings, "Settings");
        Bind(flag, "Flag", &kFlagDefault);
        Bind(count, "Count", &kCountDefault);
        Bind(mode, "Mode", &kModeDefault);
        Bind(index, "Index", &kIndexDefault);
        Bind(level, "Level", &kLevelDefault);
        Bind(freq, "Freq", &kFreqDefault);
        Bind(title, "Title", &kTitleDefault);
        Bind(ints, "Ints", &kIntsDefault);
        Bind(trace, "Trace", &kTraceDefault);
        Bind(samples, "Samples", &kSamplesDefault);
        for (LONG i = 0; i < 2; ++i) {
            root.Add(table[i], "Table", i, 2);
            table[i].Add(gain[i], "Gain");
            gain[i].SetDefaults(&kGainDefault);
        }
        root.Reset();
    }

    // Load() of a stream of the Settings group's record holding `records`.
    HRESULT LoadSettings(const std::vector<CBytes>& records) { return Load(settings, SettingsStream(records)); }

    template <class P>
    void Bind(P& parameter, const char* name, vorn::CDefaultsRef defaults) {
        settings.Add(parameter, name);
        parameter.SetDefaults(defaults);
    }

    CTestGroup root;
    CTestGroup settings;
    vorn::CParameterBoolean flag;
    vorn::CParameterInteger count;
    vorn::CParameterEnum mode;
    vorn::CParameterIntegerSetting index;
    vorn::CParameterReal level;
    vorn::CParameterRealSetting freq;
    vorn::CParameterString title;
    vorn::CParameterIntegerArray ints;
    vorn::CParameterRealArray trace;
    vorn::CParameterBuffer samples;
    CTestGroup table[2];
    vorn::CParameterReal gain[2];
};

}  // namespace persist_test
