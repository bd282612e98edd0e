// What every parameter shares: the invalid start, the status rule and the
// notification value, plain versus setting writes, SetValueNoCallback, the
// type codes and COM faces, the rule that a failing write leaves value,
// status, limits and notification value as they were and tells nobody, and
// the reason every failure leaves as error information.
#include <cmath>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <thread>
#include <utility>

#include "ParameterTestTree.h"
#include "parameters/ParameterArray.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterBuffer.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterString.h"
#include "support/ErrorInfo.h"

namespace vorn::test {
namespace {

constexpr SDefaultsRealValue kLine{.unit = eUNIT_HZ, .value = 1e6};
constexpr SDefaultsRealValueMinMax kAtten{.unit = eUNIT_DB, .value = 5.0, .minimum = 0.0, .maximum = 75.0};
constexpr SDefaultsRealValueMinMax kFreq{.unit = eUNIT_HZ, .value = 1000.0, .minimum = 20.0, .maximum = 5000.0};
constexpr SDefaultsRealSettingIncDec kSmoothing{
    .unit = eUNIT_RATIO, .value = 20.0, .minimum = 1.0, .maximum = 20.0, .smallStep = 1.0, .largeStep = 5.0};
constexpr SDefaultsIntegerValueMinMax kPort{.value = 1, .minimum = 1, .maximum = 2};
constexpr SDefaultsEnumValue kInput{.count = 2, .value = 0};
constexpr SDefaultsBooleanValue kTrue{.value = 1};
constexpr SDefaultsStringValue kFile{.value = u"dc_settings"};
constexpr SDefaultsNone kNone{};

// Everything a failing write must leave alone, as one text.
std::string Snapshot(CParameterReal& p) {
    double minimum = 0.0, maximum = 0.0;
    p.get_Minimum(&minimum);
    p.get_Maximum(&maximum);
    char text[160];
    std::snprintf(text, sizeof text, "value=%.17g status=%d min=%.17g max=%.17g ", p.Value(),
                  static_cast<int>(p.Status()), minimum, maximum);
    return text + VariantText(p.CallbackData());
}
std::string Snapshot(CParameterInteger& p) {
    ULONG minimum = 0, maximum = 0;
    p.get_Minimum(&minimum);
    p.get_Maximum(&maximum);
    char text[160];
    std::snprintf(text, sizeof text, "value=%u status=%d min=%u max=%u ", p.Value(), static_cast<int>(p.Status()),
                  minimum, maximum);
    return text + VariantText(p.CallbackData());
}

using ParameterBase = ParameterTest;

TEST_F(ParameterBase, InvalidUntilResetAndAFailedReadLeavesTheOutput) {
    CParameterReal line;
    CParameterBoolean flag;
    CParameterString file;
    Add(line, "Line", &kLine, false);
    Add(flag, "Flag", &kTrue, false);
    Add(file, "File", &kFile, false);

    double value = 42.0;
    EXPECT_EQ(line.get_Value(&value), static_cast<HRESULT>(0x8007000D));
    EXPECT_EQ(value, 42.0);
    VARIANT_BOOL b = 7;
    EXPECT_EQ(flag.get_Value(&b), static_cast<HRESULT>(0x8007000D));
    EXPECT_EQ(b, 7);
    BSTR text = nullptr;
    EXPECT_EQ(file.get_Value(&text), static_cast<HRESULT>(0x8007000D));
    EXPECT_EQ(text, nullptr);
    eSTATUS status = eSTATUS_VALID;
    EXPECT_EQ(line.get_Status(&status), S_OK);
    EXPECT_EQ(status, eSTATUS_INVALID);
    EXPECT_EQ(line.CallbackData().vt, VT_EMPTY);

    EXPECT_EQ(line.Reset(), S_OK);
    EXPECT_EQ(line.get_Value(&value), S_OK);
    EXPECT_EQ(value, 1e6);
    EXPECT_EQ(log_.Take(), Events{"s:Line=1000000"});
}

TEST_F(ParameterBase, StatusRuleEmptiesOrRepublishesAndAlwaysTells) {
    CParameterReal line;
    Add(line, "Line", &kLine);
    EXPECT_EQ(line.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(line.CallbackData().vt, VT_EMPTY);
    double value = 0.0;
    EXPECT_EQ(line.get_Value(&value), static_cast<HRESULT>(0x8007000D));
    EXPECT_EQ(line.put_Status(eSTATUS_VALID), S_OK);
    EXPECT_EQ(line.get_Value(&value), S_OK);
    EXPECT_EQ(value, 1e6);
    EXPECT_EQ(log_.Take(), (Events{"s:Line=empty", "s:Line=1000000"}));

    // Only the two statuses exist.
    EXPECT_EQ(line.put_Status(static_cast<eSTATUS>(2)), E_INVALIDARG);
    EXPECT_EQ(line.Status(), eSTATUS_VALID);
    EXPECT_EQ(log_.Take(), Events{});

    // Invalidating a string frees the copy held by the notification value.
    CParameterString file;
    Add(file, "File", &kFile);
    ASSERT_EQ(file.CallbackData().vt, VT_BSTR);
    EXPECT_EQ(file.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(file.CallbackData().vt, VT_EMPTY);
    EXPECT_EQ(log_.Take(), Events{"s:File=empty"});
}

TEST_F(ParameterBase, PlainWritesRepeatNotificationsSettingsDoNot) {
    CParameterReal line;
    CParameterRealSetting atten;
    CParameterBoolean flag;
    CParameterBooleanSetting flagSetting;
    Add(line, "Line", &kLine);
    Add(atten, "Atten", &kAtten);
    Add(flag, "Flag", &kTrue);
    Add(flagSetting, "FlagSetting", &kTrue);

    EXPECT_EQ(line.put_Value(1e6), S_OK);
    EXPECT_EQ(atten.put_Value(5.0), S_FALSE);
    EXPECT_EQ(flag.put_Value(VARIANT_TRUE), S_OK);
    EXPECT_EQ(flagSetting.put_Value(VARIANT_TRUE), S_FALSE);
    EXPECT_EQ(log_.Take(), (Events{"s:Line=1000000", "s:Flag=true"}));

    // An invalid setting takes its old value again as a change.
    EXPECT_EQ(atten.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(atten.put_Value(5.0), S_OK);
    EXPECT_EQ(log_.Take(), (Events{"s:Atten=empty", "s:Atten=5"}));
}

TEST_F(ParameterBase, SetValueNoCallbackStoresTheValueOnly) {
    CParameterRealSetting atten;
    Add(atten, "Atten", &kAtten);
    ASSERT_EQ(atten.put_Status(eSTATUS_INVALID), S_OK);
    log_.Take();
    // No check, no status, no notification value, no notification.
    EXPECT_EQ(atten.SetValueNoCallback(500.0), S_OK);
    EXPECT_EQ(atten.Value(), 500.0);
    EXPECT_EQ(atten.Status(), eSTATUS_INVALID);
    EXPECT_EQ(atten.CallbackData().vt, VT_EMPTY);
    EXPECT_EQ(log_.Take(), Events{});
    EXPECT_EQ(atten.put_Status(eSTATUS_VALID), S_OK);
    EXPECT_EQ(log_.Take(), Events{"s:Atten=500"});
}

// Every failure leaves value, status, limits and notification value as they
// were, tells nobody, and gives its reason as error information.
TEST_F(ParameterBase, FailuresLeaveEverythingTellNobodyAndGiveTheirReason) {
    CParameterRealSetting atten;
    CParameterHertz freq;
    CParameterRealSettingIncDec smoothing;
    CParameterNonNullRealSettingIncDec multiplier;
    CParameterIntegerSetting port;
    CParameterEnum input;
    CParameterReal line;
    CParameterIntegerArray config;
    Add(atten, "Atten", &kAtten);
    Add(freq, "Freq", &kFreq);
    Add(smoothing, "Smoothing", &kSmoothing);
    Add(multiplier, "Multiplier", &kSmoothing);
    Add(port, "Port", &kPort);
    Add(input, "Input", &kInput);
    Add(line, "Line", &kLine);
    Add(config, "Config", &kNone);
    ASSERT_EQ(port.put_Value(2), S_OK);
    ASSERT_EQ(atten.put_Value(75.0), S_OK);
    ASSERT_EQ(freq.put_Value(5000.0), S_OK);
    log_.Take();
    double real = 0.0;
    ULONG integer = 0;

    const struct {
        std::function<HRESULT()> call;
        HRESULT hr;
        CParameter& parameter;
        const IID& iid;
        const char* reason;
    } cases[] = {
        {[&] { return atten.put_Value(75.1); }, E_INVALIDARG, atten, IID_IParameterReal,
         "75.1 dB is above the upper limit 75 dB"},
        {[&] { return atten.put_Value(-0.5); }, E_INVALIDARG, atten, IID_IParameterReal,
         "-0.5 dB is below the lower limit 0 dB"},
        {[&] { return atten.AssignValue(80.0, 1); }, E_INVALIDARG, atten, IID_IParameterReal, "above the upper limit"},
        {[&] { return atten.AssignValue(-0.5, 3); }, E_INVALIDARG, atten, IID_IParameterReal, "below the lower limit"},
        {[&] { return atten.put_Value(std::nan("")); }, E_INVALIDARG, atten, IID_IParameterReal, "NaN is not a value"},
        {[&] { return freq.put_Value(5000.6); }, E_INVALIDARG, freq, IID_IParameterReal,
         "above the upper limit 5 kHz"},  // rounded to 5001 first
        {[&] { return freq.put_Value(19.4); }, E_INVALIDARG, freq, IID_IParameterReal, "below the lower limit"},
        {[&] { return freq.put_Value(6e9); }, E_INVALIDARG, freq, IID_IParameterReal,
         "6 GHz is above the upper limit 5 kHz"},
        {[&] { return freq.Increment(eSTEP_SMALL); }, E_INVALIDARG, freq, IID_IParameterReal,
         "the value already sits on the upper limit 5 kHz"},
        {[&] { return smoothing.Increment(eSTEP_SMALL); }, E_INVALIDARG, smoothing, IID_IParameterReal,
         "21 is above the upper limit 20"},
        {[&] { return multiplier.put_Value(0.0); }, E_INVALIDARG, multiplier, IID_IParameterReal,
         "the value must not be 0"},
        {[&] { return port.put_Value(3); }, E_INVALIDARG, port, IID_IParameterInteger, "3 is above the upper limit 2"},
        {[&] { return port.put_Value(0); }, E_INVALIDARG, port, IID_IParameterInteger, "below the lower limit 1"},
        {[&] { return port.Increment(eSTEP_SMALL); }, E_INVALIDARG, port, IID_IParameterInteger,
         "already sits on the upper limit"},
        {[&] { return input.put_Value(2); }, E_INVALIDARG, input, IID_IParameterInteger,
         "2 is not a member of the enumeration (0 .. 1)"},
        {[&] { return input.AssignValue(0xFFFFFFFFu, 3); }, E_INVALIDARG, input, IID_IParameterInteger,
         "is not a member of the enumeration"},
        {[&] { return input.put_Status(static_cast<eSTATUS>(2)); }, E_INVALIDARG, input, IID_IParameterInteger,
         "2 is not a status"},
        {[&] { return line.get_Minimum(&real); }, E_NOTIMPL, line, IID_IParameterReal, "has no limits"},
        {[&] { return line.put_Units(static_cast<eUNIT>(99)); }, E_INVALIDARG, line, IID_IParameterReal,
         "99 is not a unit"},
        {[&] { return line.get_Value(nullptr); }, E_POINTER, line, IID_IParameterReal, "out pointer is null"},
        {[&] { return config.get_Value(5, &integer); }, E_INVALIDARG, config, IID_IParameterIntegerArray,
         "index 5 is not below the size 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        auto* r = dynamic_cast<CParameterReal*>(&c.parameter);
        auto* i = dynamic_cast<CParameterInteger*>(&c.parameter);
        const auto state = [&] { return r ? Snapshot(*r) : i ? Snapshot(*i) : std::string(); };
        const std::string before = state();
        EXPECT_EQ(c.call(), c.hr);
        const SReportedError error = TakeError();
        EXPECT_EQ(state(), before);
        EXPECT_EQ(log_.Take(), Events{});
        EXPECT_EQ(error.source, c.parameter.Name());
        EXPECT_EQ(error.guid, c.iid);
        EXPECT_NE(error.description.find(c.reason), std::string::npos) << error.description;
    }
    // A null string fails too; it also invalidates (tests/parameters/test_string_array.cpp).
    CParameterString file;
    Add(file, "File", &kFile);
    EXPECT_EQ(file.put_Value(nullptr), E_INVALIDARG);
    EXPECT_NE(TakeError().description.find("the string is null"), std::string::npos);

    ComPtr<ISupportErrorInfo> support;
    ASSERT_EQ(line.QueryInterface(IID_ISupportErrorInfo, support.put_void()), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IParameterReal), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IDatabaseObject), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IParameterInteger), S_FALSE);
}

TEST_F(ParameterBase, TypeCodesAndFaces) {
    CParameterBoolean flag;
    CParameterInteger count;
    CParameterEnum input;
    CParameterReal line;
    CParameterString file;
    CParameterIntegerArray config;
    CParameterRealArray trace;
    CParameterBuffer samples;
    const std::pair<IParameter*, USHORT> expected[] = {
        {&flag, 11}, {&count, 19},    {&input, 19},   {&line, 5},
        {&file, 8},  {&config, 4115}, {&trace, 4101}, {&samples, 40964},
    };
    for (const auto& [parameter, code] : expected) {
        USHORT type = 0;
        EXPECT_EQ(parameter->get_type(&type), S_OK);
        EXPECT_EQ(type, code);
    }
    EXPECT_EQ(config.get_type(nullptr), E_POINTER);
    EXPECT_EQ(samples.get_type(nullptr), E_POINTER);

    // The value interface and IParameter are one face; IUnknown and
    // IDatabaseObject are the node's identity; other value interfaces are
    // not there.
    ComPtr<IParameter> asParameter;
    ASSERT_EQ(line.QueryInterface(IID_IParameter, asParameter.put_void()), S_OK);
    EXPECT_EQ(static_cast<void*>(asParameter.get()), static_cast<void*>(static_cast<IParameterReal*>(&line)));
    ComPtr<IUnknown> identity;
    ASSERT_EQ(static_cast<IParameterReal*>(&line)->QueryInterface(IID_IUnknown, identity.put_void()), S_OK);
    EXPECT_EQ(identity.get(), line.Identity());
    ComPtr<IParameterInteger> wrong;
    EXPECT_EQ(line.QueryInterface(IID_IParameterInteger, wrong.put_void()), E_NOINTERFACE);
    EXPECT_EQ(wrong.get(), nullptr);
}

TEST_F(ParameterBase, RecordWithoutValueLeavesEveryClassInvalid) {
    CParameterBoolean flag;
    CParameterIntegerSetting port;
    CParameterEnum input;
    CParameterRealSettingIncDec smoothing;
    CParameterString file;
    Add(flag, "Flag", &kNone);
    Add(port, "Port", &kNone);
    Add(input, "Input", &kNone);
    Add(smoothing, "Smoothing", &kNone);
    Add(file, "File", &kNone);
    for (CParameter* p : std::initializer_list<CParameter*>{&flag, &port, &input, &smoothing, &file})
        EXPECT_EQ(p->Status(), eSTATUS_INVALID) << p->Name();
    // A record of the wrong kind counts as none.
    CParameterRealSetting atten;
    Add(atten, "Atten", &kPort);
    EXPECT_EQ(atten.Status(), eSTATUS_INVALID);
    EXPECT_EQ(atten.Unit(), eUNIT_NONE);
}

TEST_F(ParameterBase, ConcurrentWritersAndReadersSeeWholeChanges) {
    CParameterRealSetting atten;
    CRecordingRule follower(log_, 100.0);
    Add(atten, "Atten", &kAtten);
    Add(follower, "Follower", &kLine);
    ASSERT_EQ(atten.AddDependant(&follower), S_OK);
    CRecordingSink queued(log_, "q");
    ASSERT_EQ(atten.RegisterNotification(&queued), S_OK);
    log_.Take();

    constexpr int kWrites = 300;
    auto writer = [&](double base) {
        for (int i = 0; i < kWrites; ++i) EXPECT_EQ(atten.put_Value(base + i * 0.01), S_OK);
    };
    std::thread first(writer, 10.0), second(writer, 40.0);
    std::thread reader([&] {
        for (int i = 0; i < kWrites; ++i) {
            double value = 0.0;
            EXPECT_EQ(atten.get_Value(&value), S_OK);
            EXPECT_TRUE(value == 5.0 || (value >= 10.0 && value < 43.0)) << value;
        }
    });
    first.join();
    second.join();
    reader.join();
    FlushNotifications();

    // Every write was one change: its immediate and queued callbacks and
    // one propagation, with the follower derived from the final value.
    size_t immediate = 0, fromQueue = 0, propagated = 0;
    for (const std::string& event : log_.Take()) {
        immediate += event.rfind("s:Atten=", 0) == 0;
        fromQueue += event.rfind("q:Atten=", 0) == 0;
        propagated += event == "dep Follower(Atten)";
    }
    EXPECT_EQ(immediate, 2u * kWrites);
    EXPECT_EQ(fromQueue, 2u * kWrites);
    EXPECT_EQ(propagated, 2u * kWrites);
    EXPECT_EQ(follower.Value(), atten.Value() + 100.0);
    EXPECT_EQ(atten.UnregisterNotification(&queued), S_OK);
}

}  // namespace
}  // namespace vorn::test
