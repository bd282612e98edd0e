// String and array parameters: the null write that invalidates and still
// fails, copies that keep embedded NULs, array capacity from the record with
// storage allocated once, size changes that expose old elements, element
// writes that leave the status, PutArray's two notifications, and the
// arrays' own AssignValue flags.
#include <cstring>

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
    CParameterString name;
    Add(name, "Name", &kSaveFileName);
    BSTR value = nullptr;
    ASSERT_EQ(name.get_Value(&value), S_OK);
    EXPECT_EQ(std::u16string(value, SysStringLen(value)), u"dc_settings");
    SysFreeString(value);

    const Text withNul(u"a\0b", 3);
    EXPECT_EQ(name.put_Value(withNul.bstr), S_OK);
    EXPECT_EQ(name.put_Value(withNul.bstr), S_OK);
    ASSERT_EQ(name.get_Value(&value), S_OK);
    EXPECT_EQ(SysStringLen(value), 3u);
    EXPECT_EQ(std::memcmp(value, u"a\0b", 3 * sizeof(OLECHAR)), 0);
    EXPECT_NE(value, name.Value());  // the caller's own copy
    SysFreeString(value);
    EXPECT_EQ(log_.Take().size(), 2u);
}

TEST_F(StringArray, NullStringInvalidatesAndStillFails) {
    CParameterString name;
    Add(name, "Name", &kSaveFileName);
    CRecordingRule rule(log_, 0.0);
    root_.Add(rule, "Rule");
    ASSERT_EQ(name.AddDependant(&rule), S_OK);

    EXPECT_EQ(name.put_Value(nullptr), E_INVALIDARG);
    EXPECT_EQ(name.Status(), eSTATUS_INVALID);
    EXPECT_EQ(name.Value(), nullptr);
    EXPECT_EQ(name.CallbackData().vt, VT_EMPTY);
    // The sinks hear of the invalidation, the dependants do not.
    EXPECT_EQ(log_.Take(), Events{"s:Name=empty"});
    // Again on an invalid parameter: nothing left to tell.
    EXPECT_EQ(name.put_Value(nullptr), E_INVALIDARG);
    EXPECT_EQ(log_.Take(), Events{});

    // A silent raw write of a null string: valid and empty.
    EXPECT_EQ(name.AssignValue(nullptr, 0), S_OK);
    BSTR value = nullptr;
    ASSERT_EQ(name.get_Value(&value), S_OK);
    EXPECT_EQ(SysStringLen(value), 0u);
    SysFreeString(value);
    EXPECT_EQ(log_.Take(), Events{});
}

TEST_F(StringArray, AppendsStopAtTheCapacity) {
    CParameterIntegerArray config;
    Add(config, "ScreenTraceConfig", &kScreenTraceConfig);
    ULONG size = 9, capacity = 0;
    EXPECT_EQ(config.get_Size(&size), S_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(config.get_MaxSize(&capacity), S_OK);
    EXPECT_EQ(capacity, 2u);
    EXPECT_EQ(config.AppendValue(7), S_OK);
    EXPECT_EQ(config.AppendValue(8), S_OK);
    EXPECT_EQ(config.AppendValue(9), E_OUTOFMEMORY);
    EXPECT_EQ(config.get_Size(&size), S_OK);
    EXPECT_EQ(size, 2u);
    const ULONG more[] = {1, 2};
    EXPECT_EQ(config.put_Size(1), S_OK);
    EXPECT_EQ(config.AppendArray(2, more), E_OUTOFMEMORY);
    EXPECT_EQ(config.AppendArray(1, more), S_OK);
    ULONG value = 0;
    EXPECT_EQ(config.get_Value(1, &value), S_OK);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(config.AppendArray(0, nullptr), E_POINTER);
    // The elements were written without making the array valid.
    EXPECT_EQ(config.Status(), eSTATUS_INVALID);
    EXPECT_EQ(log_.Take(), (Events{"s:ScreenTraceConfig=empty", "s:ScreenTraceConfig=empty",
                                   "s:ScreenTraceConfig=empty", "s:ScreenTraceConfig=empty"}));
}

TEST_F(StringArray, SizeChangesKeepTheElements) {
    CParameterRealArray trace;
    Add(trace, "Trace", &kTrace);
    const double samples[] = {1.5, 2.5, 3.5, 4.5};
    ASSERT_EQ(trace.PutArray(2, samples), S_OK);
    const double* storage = trace.Elements();

    EXPECT_EQ(trace.put_Size(0), S_OK);
    double value = 0.0;
    EXPECT_EQ(trace.get_Value(0, &value), E_INVALIDARG);
    EXPECT_EQ(trace.put_Value(0, 9.0), E_INVALIDARG);
    EXPECT_EQ(trace.put_Size(2), S_OK);
    EXPECT_EQ(trace.get_Value(1, &value), S_OK);
    EXPECT_EQ(value, 2.5);
    EXPECT_EQ(trace.put_Size(5), E_INVALIDARG);
    // The index is checked before the out pointer.
    EXPECT_EQ(trace.get_Value(2, nullptr), E_INVALIDARG);
    EXPECT_EQ(trace.get_Value(1, nullptr), E_POINTER);

    // GetArray copies no more than asked.
    double copy[4] = {-1.0, -1.0, -1.0, -1.0};
    EXPECT_EQ(trace.GetArray(1, copy), S_OK);
    EXPECT_EQ(copy[0], 1.5);
    EXPECT_EQ(copy[1], -1.0);
    EXPECT_EQ(trace.GetArray(3, copy), E_INVALIDARG);
    EXPECT_EQ(trace.GetArray(1, nullptr), E_POINTER);

    // A second reset keeps the storage and empties the array.
    EXPECT_EQ(trace.Reset(), S_OK);
    EXPECT_EQ(trace.Elements(), storage);
    EXPECT_EQ(trace.Size(), 0u);
    EXPECT_EQ(trace.Status(), eSTATUS_VALID);
    eUNIT unit = eUNIT_NONE;
    EXPECT_EQ(trace.get_Units(&unit), S_OK);
    EXPECT_EQ(unit, eUNIT_HZ);
}

TEST_F(StringArray, PutArrayNotifiesTwiceAndPropagatesOnce) {
    CParameterRealArray trace, unreset;
    CRecordingRule rule(log_, 0.0);
    Add(trace, "Trace", &kTrace);
    Add(unreset, "Unreset", &kTrace, false);
    root_.Add(rule, "Rule");
    ASSERT_EQ(trace.AddDependant(&rule), S_OK);
    const double samples[] = {1.0, 2.0, 3.0, 4.0, 5.0};

    EXPECT_EQ(trace.PutArray(5, samples), E_INVALIDARG);
    EXPECT_EQ(trace.PutArray(4, nullptr), E_POINTER);
    EXPECT_EQ(unreset.PutArray(1, samples), E_POINTER);  // no storage before the first Reset
    EXPECT_EQ(trace.Status(), eSTATUS_INVALID);
    EXPECT_EQ(log_.Take(), Events{});

    EXPECT_EQ(trace.PutArray(4, samples), S_OK);
    EXPECT_EQ(trace.Status(), eSTATUS_VALID);
    EXPECT_EQ(log_.Take(), (Events{"s:Trace=empty", "s:Trace=empty", "dep Rule(Trace)"}));
}

TEST_F(StringArray, ArrayAssignValueFlagsNotifyAndPropagate) {
    CParameterIntegerArray config;
    CRecordingRule rule(log_, 0.0);
    Add(config, "Config", &kScreenTraceConfig);
    root_.Add(rule, "Rule");
    ASSERT_EQ(config.AddDependant(&rule), S_OK);
    const ULONG values[] = {1, 2};
    ASSERT_EQ(config.PutArray(2, values), S_OK);
    log_.Take();

    EXPECT_EQ(config.AssignValue(0, 10, 0), S_OK);
    EXPECT_EQ(log_.Take(), Events{});
    EXPECT_EQ(config.AssignValue(0, 11, 1), S_OK);
    EXPECT_EQ(log_.Take(), Events{"s:Config=empty"});
    EXPECT_EQ(config.AssignValue(0, 12, 2), S_OK);
    EXPECT_EQ(log_.Take(), Events{"dep Rule(Config)"});
    EXPECT_EQ(config.AssignValue(2, 13, 3), E_INVALIDARG);
    EXPECT_EQ(log_.Take(), Events{});
    ULONG value = 0;
    EXPECT_EQ(config.get_Value(0, &value), S_OK);
    EXPECT_EQ(value, 12u);
}

}  // namespace
}  // namespace vorn::test
