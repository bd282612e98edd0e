// COM basics: initialisation counting per thread; GUID text (the Windows
// format); the snapshot enumerator (references held by the snapshot and
// handed out by Next, S_OK/S_FALSE on full and short reads); the error
// object and the per-thread error slot.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <tuple>

#include "platform/test_util.h"
#include "support/Text.h"

namespace {

using vorn::ComPtr;

TEST(CoInitialize, CountsPerThreadAndKeepsTheFirstModel) {
    CoUninitialize();  // nothing to undo
    int reserved = 0;
    EXPECT_EQ(CoInitializeEx(&reserved, COINIT_MULTITHREADED), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, 0x100), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK) << "a refused call was counted";
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED | COINIT_DISABLE_OLE1DDE), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);  // not counted

    HRESULT otherThread = E_FAIL;
    std::thread([&] {
        otherThread = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        CoUninitialize();
    }).join();
    EXPECT_EQ(otherThread, S_OK) << "another thread's state leaked in";

    CoUninitialize();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE) << "one call still counted";
    CoUninitialize();
    // Fully uninitialised: the thread may choose again.
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    CoUninitialize();
}

constexpr GUID kSample = {0x0123ABCD, 0x4E5F, 0x6A7B, {0x8C, 0x9D, 0xAE, 0xBF, 0x00, 0x11, 0xF2, 0x03}};

TEST(Guid, FormatsLikeWindows) {
    OLECHAR text[39];
    EXPECT_EQ(StringFromGUID2(kSample, text, 39), 39);
    EXPECT_EQ(std::u16string(text), u"{0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203}");
    EXPECT_EQ(StringFromGUID2(kSample, text, 38), 0);
}

// The reference count of an object, read through AddRef and Release.
ULONG RefsOf(IUnknown* object) {
    object->AddRef();
    return object->Release();
}

TEST(ErrorInfo, TheSlotIsPerThreadAndGetHandsTheReferenceOver) {
    ComPtr<ICreateErrorInfo> create;
    ASSERT_EQ(CreateErrorInfo(create.put()), S_OK);
    ASSERT_EQ(create->SetGUID(kSample), S_OK);
    ASSERT_EQ(create->SetDescription(const_cast<LPOLESTR>(u"5 THz is above the upper limit 1 THz")), S_OK);
    ComPtr<IErrorInfo> info;
    ASSERT_EQ(create.As(&info), S_OK);
    const ULONG held = RefsOf(info.get());

    EXPECT_EQ(SetErrorInfo(1, info.get()), E_INVALIDARG);
    ASSERT_EQ(SetErrorInfo(0, info.get()), S_OK);
    EXPECT_EQ(RefsOf(info.get()), held + 1) << "the slot holds one reference";
    IErrorInfo* taken = nullptr;
    EXPECT_EQ(GetErrorInfo(1, &taken), E_INVALIDARG);
    EXPECT_EQ(GetErrorInfo(0, nullptr), E_INVALIDARG);

    HRESULT elsewhere = E_FAIL;
    std::thread([&] {
        IErrorInfo* none = info.get();
        elsewhere = GetErrorInfo(0, &none);
        if (none) elsewhere = E_UNEXPECTED;
        SetErrorInfo(0, info.get());  // released when the thread ends
    }).join();
    EXPECT_EQ(elsewhere, S_FALSE) << "another thread saw this thread's slot";
    EXPECT_EQ(RefsOf(info.get()), held + 1) << "the ended thread's slot kept its reference";

    ASSERT_EQ(GetErrorInfo(0, &taken), S_OK);
    ASSERT_EQ(taken, info.get());
    EXPECT_EQ(RefsOf(info.get()), held + 1) << "the slot's reference was not handed over";
    BSTR description = nullptr, source = nullptr;
    GUID guid{};
    EXPECT_EQ(std::tuple(taken->GetDescription(&description), taken->GetGUID(&guid), taken->GetSource(&source)),
              std::tuple(S_OK, S_OK, S_OK));
    EXPECT_EQ(vorn::test::TakeText(description), "5 THz is above the upper limit 1 THz");
    EXPECT_EQ(guid, kSample);
    EXPECT_EQ(source, nullptr) << "a text never set";
    taken->Release();
    EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE) << "the slot was not emptied";
    EXPECT_EQ(taken, nullptr);

    ASSERT_EQ(SetErrorInfo(0, info.get()), S_OK);
    ASSERT_EQ(SetErrorInfo(0, nullptr), S_OK);
    EXPECT_EQ(RefsOf(info.get()), held);
    EXPECT_EQ(GetErrorInfo(0, &taken), S_FALSE);
}

// The items are error objects, whose references RefsOf counts.
TEST(EnumUnknown, SnapshotHoldsOneReferenceAndNextHandsOutMoreWithSFalseOnShortReads) {
    ComPtr<ICreateErrorInfo> items[3];
    for (auto& item : items) ASSERT_EQ(CreateErrorInfo(item.put()), S_OK);
    IUnknown* const a = items[0].get();
    IUnknown* const b = items[1].get();
    IUnknown* const c = items[2].get();
    const ULONG held = RefsOf(a);
    ComPtr<IEnumUnknown> snapshot;
    IUnknown* list[] = {a, b, c};
    ASSERT_EQ(VornCreateEnumUnknown(list, 3, snapshot.put()), S_OK);
    auto next = [&](ULONG celt, IUnknown** out) {
        ULONG fetched = 99;
        const HRESULT hr = snapshot->Next(celt, out, &fetched);
        return std::make_pair(hr, fetched);
    };
    EXPECT_EQ(RefsOf(a), held + 1);
    IUnknown* out[4] = {};
    EXPECT_EQ(next(2, out), std::make_pair(S_OK, 2u));
    EXPECT_EQ((std::array{out[0], out[1]}), (std::array{a, b}));
    EXPECT_EQ(RefsOf(a), held + 2);
    out[0]->Release();
    out[1]->Release();
    EXPECT_EQ(next(4, out), std::make_pair(S_FALSE, 1u));
    EXPECT_EQ(out[0], c);
    out[0]->Release();
    EXPECT_EQ(next(1, out), std::make_pair(S_FALSE, 0u));
    EXPECT_EQ(next(0, out), std::make_pair(S_OK, 0u));

    // One item may be asked for without a count, more may not.
    ASSERT_EQ(snapshot->Reset(), S_OK);
    EXPECT_EQ(snapshot->Next(2, out, nullptr), E_INVALIDARG);
    EXPECT_EQ(snapshot->Next(1, out, nullptr), S_OK);
    EXPECT_EQ(out[0], a);
    out[0]->Release();
    snapshot.reset();
    EXPECT_EQ((std::array{RefsOf(a), RefsOf(b), RefsOf(c)}), (std::array{held, held, held}));

    // An empty snapshot (a node without dependencies).
    ASSERT_EQ(VornCreateEnumUnknown(nullptr, 0, snapshot.put()), S_OK);
    EXPECT_EQ(next(1, out), std::make_pair(S_FALSE, 0u));
}

}  // namespace
