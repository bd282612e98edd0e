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
#include <vector>

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

// Everything a failing write must leave alone, as one text: the state and,
// for real and integer parameters, the limits.
std::string Snapshot(CParameter& p) {
    char limits[80] = "";
    if (auto* r = dynamic_cast<CParameterReal*>(&p)) {
        std::snprintf(limits, sizeof limits, "%.17g %.17g", Read(*r, &CParameterReal::get_Minimum).second,
                      Read(*r, &CParameterReal::get_Maximum).second);
    } else if (auto* i = dynamic_cast<CParameterInteger*>(&p)) {
        std::snprintf(limits, sizeof limits, "%u %u", Read(*i, &CParameterInteger::get_Minimum).second,
                      Read(*i, &CParameterInteger::get_Maximum).second);
    }
    return State(p) + " " + limits;
}

using ParameterBase = ParameterTest;

// Invalid until reset, and a failed read leaves the output; the status rule
// empties or republishes the notification value and always tells.
TEST_F(ParameterBase, InvalidUntilResetThenTheStatusRule) {
    CParameterReal line;
    CParameterBoolean flag;
    CParameterString file;
    Add(line, "Line", &kLine, false);
    Add(flag, "Flag", &kTrue, false);
    Add(file, "File", &kFile, false);
    EXPECT_EQ(Read(line, &CParameterReal::get_Value, 42.0), std::pair(kInvalid, 42.0));
    EXPECT_EQ(Read(flag, &CParameterBoolean::get_Value, VARIANT_BOOL{7}), std::pair(kInvalid, VARIANT_BOOL{7}));
    EXPECT_EQ(Read(file, &CParameterString::get_Value), std::pair(kInvalid, BSTR{}));
    EXPECT_EQ(Read(line, &CParameterReal::get_Status, eSTATUS_VALID), std::pair(S_OK, eSTATUS_INVALID));
    EXPECT_EQ(line.CallbackData().vt, VT_EMPTY);
    EXPECT_EQ((Results{line.Reset(), file.Reset()}), (Results{S_OK, S_OK}));
    EXPECT_EQ(Read(line, &CParameterReal::get_Value), std::pair(S_OK, 1e6));
    EXPECT_EQ(log_.Take(), (Events{"s:Line=1000000", "s:File='dc_settings'"}));

    EXPECT_EQ(line.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(State(line), "1000000 invalid empty");
    EXPECT_EQ(Read(line, &CParameterReal::get_Value), std::pair(kInvalid, 0.0));
    EXPECT_EQ(line.put_Status(eSTATUS_VALID), S_OK);
    EXPECT_EQ(State(line), "1000000 valid 1000000");
    // Invalidating a string frees the copy held by the notification value.
    EXPECT_EQ(State(file), "'dc_settings' valid 'dc_settings'");
    EXPECT_EQ(file.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(State(file), "'dc_settings' invalid empty");
    EXPECT_EQ(log_.Take(), (Events{"s:Line=empty", "s:Line=1000000", "s:File=empty"}));
}

TEST_F(ParameterBase, PlainWritesRepeatNotificationsSettingsDoNotAndSetValueNoCallbackTellsNothing) {
    auto& line = Make<CParameterReal>("Line", &kLine);
    auto& atten = Make<CParameterRealSetting>("Atten", &kAtten);
    auto& flag = Make<CParameterBoolean>("Flag", &kTrue);
    auto& flagSetting = Make<CParameterBooleanSetting>("FlagSetting", &kTrue);
    EXPECT_EQ((Results{line.put_Value(1e6), atten.put_Value(5.0), flag.put_Value(VARIANT_TRUE),
                       flagSetting.put_Value(VARIANT_TRUE)}),
              (Results{S_OK, S_FALSE, S_OK, S_FALSE}));
    EXPECT_EQ(log_.Take(), (Events{"s:Line=1000000", "s:Flag=true"}));

    // An invalid setting takes its old value again as a change.
    EXPECT_EQ((Results{atten.put_Status(eSTATUS_INVALID), atten.put_Value(5.0)}), (Results{S_OK, S_OK}));
    EXPECT_EQ(log_.Take(), (Events{"s:Atten=empty", "s:Atten=5"}));

    // SetValueNoCallback: no check, no status, no notification value, no
    // notification.
    ASSERT_EQ(atten.put_Status(eSTATUS_INVALID), S_OK);
    log_.Take();
    EXPECT_EQ(atten.SetValueNoCallback(500.0), S_OK);
    EXPECT_EQ(State(atten), "500 invalid empty");
    EXPECT_EQ(log_.Take(), Events{});
    EXPECT_EQ(Told(atten.put_Status(eSTATUS_VALID)), std::pair(S_OK, Events{"s:Atten=500"}));
}

// Every failure leaves value, status, limits and notification value as they
// were, tells nobody, and gives its reason as error information.
TEST_F(ParameterBase, FailuresLeaveEverythingTellNobodyAndGiveTheirReason) {
    auto& atten = Make<CParameterRealSetting>("Atten", &kAtten);
    auto& freq = Make<CParameterHertz>("Freq", &kFreq);
    auto& smoothing = Make<CParameterRealSettingIncDec>("Smoothing", &kSmoothing);
    auto& multiplier = Make<CParameterNonNullRealSettingIncDec>("Multiplier", &kSmoothing);
    auto& port = Make<CParameterIntegerSetting>("Port", &kPort);
    auto& input = Make<CParameterEnum>("Input", &kInput);
    auto& line = Make<CParameterReal>("Line", &kLine);
    auto& config = Make<CParameterIntegerArray>("Config", &kNone);
    ASSERT_EQ((Results{port.put_Value(2), atten.put_Value(75.0), freq.put_Value(5000.0)}), Results(3, S_OK));
    log_.Take();
    double real = 0.0;
    ULONG integer = 0;

    const struct {
        std::function<HRESULT()> call;
        HRESULT hr;
        CParameter& parameter;
        const char* reason;
    } cases[] = {
        {[&] { return atten.put_Value(75.1); }, E_INVALIDARG, atten, "75.1 dB is above the upper limit 75 dB"},
        {[&] { return atten.put_Value(-0.5); }, E_INVALIDARG, atten, "-0.5 dB is below the lower limit 0 dB"},
        {[&] { return atten.AssignValue(80.0, 1); }, E_INVALIDARG, atten, "above the upper limit"},
        {[&] { return atten.AssignValue(-0.5, 3); }, E_INVALIDARG, atten, "below the lower limit"},
        {[&] { return atten.put_Value(std::nan("")); }, E_INVALIDARG, atten, "NaN is not a value"},
        {[&] { return freq.put_Value(5000.6); }, E_INVALIDARG, freq,
         "above the upper limit 5 kHz"},  // rounded to 5001 first
        {[&] { return freq.put_Value(19.4); }, E_INVALIDARG, freq, "below the lower limit"},
        {[&] { return freq.put_Value(6e9); }, E_INVALIDARG, freq, "6 GHz is above the upper limit 5 kHz"},
        {[&] { return freq.Increment(eSTEP_SMALL); }, E_INVALIDARG, freq,
         "the value already sits on the upper limit 5 kHz"},
        {[&] { return smoothing.Increment(eSTEP_SMALL); }, E_INVALIDARG, smoothing, "21 is above the upper limit 20"},
        {[&] { return multiplier.put_Value(0.0); }, E_INVALIDARG, multiplier, "the value must not be 0"},
        {[&] { return port.put_Value(3); }, E_INVALIDARG, port, "3 is above the upper limit 2"},
        {[&] { return port.put_Value(0); }, E_INVALIDARG, port, "below the lower limit 1"},
        {[&] { return port.Increment(eSTEP_SMALL); }, E_INVALIDARG, port, "already sits on the upper limit"},
        {[&] { return input.put_Value(2); }, E_INVALIDARG, input, "2 is not a member of the enumeration (0 .. 1)"},
        {[&] { return input.AssignValue(0xFFFFFFFFu, 3); }, E_INVALIDARG, input, "is not a member of the enumeration"},
        {[&] { return input.put_Status(static_cast<eSTATUS>(2)); }, E_INVALIDARG, input, "2 is not a status"},
        {[&] { return line.get_Minimum(&real); }, E_NOTIMPL, line, "has no limits"},
        {[&] { return line.put_Units(static_cast<eUNIT>(99)); }, E_INVALIDARG, line, "99 is not a unit"},
        {[&] { return line.get_Value(nullptr); }, E_POINTER, line, "out pointer is null"},
        {[&] { return config.get_Value(5, &integer); }, E_INVALIDARG, config, "index 5 is not below the size 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const std::string before = Snapshot(c.parameter);
        EXPECT_EQ(c.call(), c.hr);
        const SReportedError error = TakeError();
        EXPECT_EQ(Snapshot(c.parameter), before);
        EXPECT_EQ(log_.Take(), Events{});
        EXPECT_EQ(error.source, c.parameter.Name());
        const IID& iid = dynamic_cast<CParameterReal*>(&c.parameter)      ? IID_IParameterReal
                         : dynamic_cast<CParameterInteger*>(&c.parameter) ? IID_IParameterInteger
                                                                          : IID_IParameterIntegerArray;
        EXPECT_EQ(error.guid, iid);
        EXPECT_NE(error.description.find(c.reason), std::string::npos) << error.description;
    }
    // A null string fails too; it also invalidates (tests/parameters/test_string_array.cpp).
    auto& file = Make<CParameterString>("File", &kFile);
    EXPECT_EQ(file.put_Value(nullptr), E_INVALIDARG);
    EXPECT_NE(TakeError().description.find("the string is null"), std::string::npos);

    ComPtr<ISupportErrorInfo> support;
    ASSERT_EQ(line.QueryInterface(IID_ISupportErrorInfo, support.put_void()), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IParameterReal), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IDatabaseObject), S_OK);
    EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IParameterInteger), S_FALSE);
}

// Type codes and faces; a record without a value, or of the wrong kind,
// leaves every class invalid.
TEST_F(ParameterBase, TypeCodesFacesAndRecordsWithoutValue) {
    auto& flag = Make<CParameterBoolean>("Flag", &kNone);
    auto& port = Make<CParameterIntegerSetting>("Port", &kNone);
    auto& input = Make<CParameterEnum>("Input", &kNone);
    auto& smoothing = Make<CParameterRealSettingIncDec>("Smoothing", &kNone);
    auto& file = Make<CParameterString>("File", &kNone);
    auto& atten = Make<CParameterRealSetting>("Atten", &kPort);  // the wrong kind counts as none
    for (CParameter* p : std::initializer_list<CParameter*>{&flag, &port, &input, &smoothing, &file, &atten})
        EXPECT_EQ(p->Status(), eSTATUS_INVALID) << p->Name();
    EXPECT_EQ(atten.Unit(), eUNIT_NONE);

    CParameterInteger count;
    CParameterReal line;
    CParameterIntegerArray config;
    CParameterRealArray trace;
    CParameterBuffer samples;
    const std::pair<IParameter*, USHORT> expected[] = {
        {&flag, 11}, {&count, 19},    {&input, 19},   {&line, 5},
        {&file, 8},  {&config, 4115}, {&trace, 4101}, {&samples, 40964},
    };
    for (const auto& [parameter, code] : expected)
        EXPECT_EQ(Read(*parameter, &IParameter::get_type), std::pair(S_OK, code));
    EXPECT_EQ((Results{config.get_type(nullptr), samples.get_type(nullptr)}), (Results{E_POINTER, E_POINTER}));

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

TEST_F(ParameterBase, ConcurrentWritersAndReadersSeeWholeChanges) {
    auto& atten = Make<CParameterRealSetting>("Atten", &kAtten);
    auto& follower = Make<CRecordingRule>("Follower", &kLine, log_, 100.0);
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
