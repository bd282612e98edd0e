// String and array parameters: the null write that invalidates and still
// fails, copies that keep embedded NULs, array capacity from the record with
// storage allocated once, size changes that expose old elements, element
// writes that leave the status, PutArray's two notifications, and the
// arrays' own AssignValue flags.
#include <string>
#include <tuple>
#include <vector>

#include "ParameterTestTree.h"
#include "parameters/ParameterArray.h"
#include "parameters/ParameterString.h"

namespace vorn::test {
namespace {

constexpr SDefaultsStringValue kSaveFileName{.value = u"dc_settings"};
constexpr SDefaultsIntegerArray kScreenTraceConfig{.maxSize = 2, .unit = eUNIT_NONE};
constexpr SDefaultsRealArray kTrace{.maxSize = 4, .unit = eUNIT_HZ};

// A BSTR owned by the test.
struct Text {
    explicit Text(const OLECHAR* text, UINT length) : bstr(SysAllocStringLen(text, length)) {}
    ~Text() { SysFreeString(bstr); }
    BSTR bstr;
};

using StringArray = ParameterTest;

TEST_F(StringArray, StringWritesNotifyEvenWhenUnchanged) {
    auto& name = Make<CParameterString>("Name", &kSaveFileName);
    EXPECT_EQ(State(name), "'dc_settings' valid 'dc_settings'");
    const Text withNul(u"a\0b", 3);
    EXPECT_EQ((Results{name.put_Value(withNul.bstr), name.put_Value(withNul.bstr)}), (Results{S_OK, S_OK}));
    BSTR value = nullptr;
    ASSERT_EQ(name.get_Value(&value), S_OK);
    EXPECT_EQ(std::u16string(value, SysStringLen(value)), std::u16string(u"a\0b", 3));
    EXPECT_NE(value, name.Value());  // the caller's own copy
    SysFreeString(value);
    EXPECT_EQ(log_.Take().size(), 2u);
}

TEST_F(StringArray, NullStringInvalidatesAndStillFails) {
    CRecordingRule rule(log_, 0.0);
    auto& name = Make<CParameterString>("Name", &kSaveFileName);
    root_.Add(rule, "Rule");
    ASSERT_EQ(name.AddDependant(&rule), S_OK);

    EXPECT_EQ(After(name.put_Value(nullptr), name), std::tuple(E_INVALIDARG, "'' invalid empty"));
    EXPECT_EQ(name.Value(), nullptr);
    // The sinks hear of the invalidation, the dependants do not.
    EXPECT_EQ(log_.Take(), Events{"s:Name=empty"});
    // Again on an invalid parameter: nothing left to tell.
    EXPECT_EQ(Told(name.put_Value(nullptr)), std::pair(E_INVALIDARG, Events{}));

    // A silent raw write of a null string: valid and empty.
    EXPECT_EQ(name.AssignValue(nullptr, 0), S_OK);
    BSTR value = nullptr;
    ASSERT_EQ(name.get_Value(&value), S_OK);
    EXPECT_EQ(SysStringLen(value), 0u);
    SysFreeString(value);
    EXPECT_EQ(log_.Take(), Events{});
}

TEST_F(StringArray, AppendsStopAtTheCapacity) {
    auto& config = Make<CParameterIntegerArray>("ScreenTraceConfig", &kScreenTraceConfig);
    EXPECT_EQ(Read(config, &CParameterIntegerArray::get_Size, ULONG{9}), std::pair(S_OK, ULONG{0}));
    EXPECT_EQ(Read(config, &CParameterIntegerArray::get_MaxSize), std::pair(S_OK, ULONG{2}));
    EXPECT_EQ((Results{config.AppendValue(7), config.AppendValue(8), config.AppendValue(9)}),
              (Results{S_OK, S_OK, E_OUTOFMEMORY}));
    EXPECT_EQ(Read(config, &CParameterIntegerArray::get_Size), std::pair(S_OK, ULONG{2}));
    const ULONG more[] = {1, 2};
    EXPECT_EQ((Results{config.put_Size(1), config.AppendArray(2, more), config.AppendArray(1, more),
                       config.AppendArray(0, nullptr)}),
              (Results{S_OK, E_OUTOFMEMORY, S_OK, E_POINTER}));
    EXPECT_EQ(std::vector(config.Elements(), config.Elements() + config.Size()), (std::vector<ULONG>{7, 1}));
    // The elements were written without making the array valid.
    EXPECT_EQ(config.Status(), eSTATUS_INVALID);
    EXPECT_EQ(log_.Take(), Events(4, "s:ScreenTraceConfig=empty"));
}

TEST_F(StringArray, SizeChangesKeepTheElements) {
    auto& trace = Make<CParameterRealArray>("Trace", &kTrace);
    const double samples[] = {1.5, 2.5, 3.5, 4.5};
    ASSERT_EQ(trace.PutArray(2, samples), S_OK);
    const double* storage = trace.Elements();
    double value = 0.0;
    // The index is checked before the out pointer.
    EXPECT_EQ((Results{trace.put_Size(0), trace.get_Value(0, &value), trace.put_Value(0, 9.0), trace.put_Size(2),
                       trace.get_Value(1, &value), trace.put_Size(5), trace.get_Value(2, nullptr),
                       trace.get_Value(1, nullptr)}),
              (Results{S_OK, E_INVALIDARG, E_INVALIDARG, S_OK, S_OK, E_INVALIDARG, E_INVALIDARG, E_POINTER}));
    EXPECT_EQ(value, 2.5);

    // GetArray copies no more than asked.
    double copy[4] = {-1.0, -1.0, -1.0, -1.0};
    EXPECT_EQ(trace.GetArray(1, copy), S_OK);
    EXPECT_EQ(std::vector(copy, copy + 2), (std::vector{1.5, -1.0}));
    EXPECT_EQ((Results{trace.GetArray(3, copy), trace.GetArray(1, nullptr)}), (Results{E_INVALIDARG, E_POINTER}));

    // A second reset keeps the storage and empties the array.
    EXPECT_EQ(trace.Reset(), S_OK);
    EXPECT_EQ(std::tuple(trace.Elements(), trace.Size(), trace.Status()), std::tuple(storage, ULONG{0}, eSTATUS_VALID));
    EXPECT_EQ(Read(trace, &CParameterRealArray::get_Units, eUNIT_NONE), std::pair(S_OK, eUNIT_HZ));
}

TEST_F(StringArray, PutArrayNotifiesTwiceAndPropagatesOnce) {
    CParameterRealArray unreset;
    CRecordingRule rule(log_, 0.0);
    auto& trace = Make<CParameterRealArray>("Trace", &kTrace);
    Add(unreset, "Unreset", &kTrace, false);
    root_.Add(rule, "Rule");
    ASSERT_EQ(trace.AddDependant(&rule), S_OK);
    const double samples[] = {1.0, 2.0, 3.0, 4.0, 5.0};
    // Without storage before the first Reset, PutArray fails.
    EXPECT_EQ((Results{trace.PutArray(5, samples), trace.PutArray(4, nullptr), unreset.PutArray(1, samples)}),
              (Results{E_INVALIDARG, E_POINTER, E_POINTER}));
    EXPECT_EQ(trace.Status(), eSTATUS_INVALID);
    EXPECT_EQ(log_.Take(), Events{});

    EXPECT_EQ(Told(trace.PutArray(4, samples)),
              std::pair(S_OK, Events{"s:Trace=empty", "s:Trace=empty", "dep Rule(Trace)"}));
    EXPECT_EQ(trace.Status(), eSTATUS_VALID);
}

TEST_F(StringArray, ArrayAssignValueFlagsNotifyAndPropagate) {
    CRecordingRule rule(log_, 0.0);
    auto& config = Make<CParameterIntegerArray>("Config", &kScreenTraceConfig);
    root_.Add(rule, "Rule");
    ASSERT_EQ(config.AddDependant(&rule), S_OK);
    const ULONG values[] = {1, 2};
    ASSERT_EQ(config.PutArray(2, values), S_OK);
    log_.Take();

    EXPECT_EQ(Told(config.AssignValue(0, 10, 0)), std::pair(S_OK, Events{}));
    EXPECT_EQ(Told(config.AssignValue(0, 11, 1)), std::pair(S_OK, Events{"s:Config=empty"}));
    EXPECT_EQ(Told(config.AssignValue(0, 12, 2)), std::pair(S_OK, Events{"dep Rule(Config)"}));
    EXPECT_EQ(Told(config.AssignValue(2, 13, 3)), std::pair(E_INVALIDARG, Events{}));
    EXPECT_EQ(std::vector(config.Elements(), config.Elements() + config.Size()), (std::vector<ULONG>{12, 2}));
}

}  // namespace
}  // namespace vorn::test
