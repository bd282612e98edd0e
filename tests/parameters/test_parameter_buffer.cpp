// Buffer parameters: attaching a client-built buffer by its cookie, the
// reference counts that attaching, re-attaching and releasing leave, copying
// with Assign, null cookies, and the buffer Reset builds from its record.
#include <tuple>
#include <vector>

#include "ParameterTestTree.h"
#include "parameters/ParameterBuffer.h"

namespace vorn::test {
namespace {

constexpr SDefaultsBuffer kIData{.leading = {1, 4, 1}, .firstExtent = 0, .secondExtent = 0};
constexpr SDefaultsBuffer kShaped{.leading = {1, 4, 1}, .firstExtent = 8, .secondExtent = 2};

using Buffer = CBuffer<float, 4>;
using BufferParameter = ParameterTest;

// IsEmpty and GetDescriptor of `p` with their outputs (7 and 1 if left).
std::tuple<HRESULT, VARIANT_BOOL, HRESULT, ULONG_PTR> Descriptor(CParameterBuffer& p) {
    const auto empty = Read(p, &CParameterBuffer::IsEmpty, VARIANT_BOOL{7});
    const auto cookie = Read(p, &CParameterBuffer::GetDescriptor, ULONG_PTR{1});
    return {empty.first, empty.second, cookie.first, cookie.second};
}

TEST_F(BufferParameter, AttachHoldsAReferenceAndMakesTheParameterValid) {
    auto& iData = Make<CParameterBuffer>("IData", &kIData);
    EXPECT_EQ(Descriptor(iData), std::tuple(S_OK, VARIANT_TRUE, E_UNEXPECTED, ULONG_PTR{1}));

    Buffer samples(CDim(4), CDim(2));
    samples.SetUsedCount(3);
    EXPECT_EQ(iData.Attach(samples.Cookie()), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    EXPECT_EQ(iData.Status(), eSTATUS_VALID);
    EXPECT_EQ(log_.Take(), Events{"s:IData=empty"});
    EXPECT_EQ(Descriptor(iData), std::tuple(S_OK, VARIANT_FALSE, S_OK, samples.Cookie()));

    // Attaching the same buffer again: the release and the new reference
    // meet on one object. Without an attached buffer, ReleaseDescriptor and
    // AddRefDescriptor are accepted and do nothing.
    EXPECT_EQ(iData.Attach(samples.Cookie()), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    EXPECT_NE(samples.Data(), nullptr);
    EXPECT_EQ(iData.AddRefDescriptor(), S_OK);
    EXPECT_EQ(samples.RefCount(), 3u);
    EXPECT_EQ(iData.ReleaseDescriptor(), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    ULONG_PTR cookie = 0;
    EXPECT_EQ((Results{iData.GetDescriptor(&cookie), iData.ReleaseDescriptor(), iData.AddRefDescriptor()}),
              (Results{E_UNEXPECTED, S_OK, S_OK}));
    EXPECT_EQ(samples.RefCount(), 2u);

    // Re-attaching the last reference frees the samples first.
    Buffer last(CDim(4), CDim(2));
    ASSERT_EQ(iData.Attach(last.Cookie()), S_OK);
    last.Release();  // the client lets go of its own reference
    EXPECT_EQ(last.RefCount(), 1u);
    EXPECT_EQ(iData.Attach(last.Cookie()), S_OK);
    EXPECT_EQ(std::pair(last.RefCount(), last.Data()), std::pair(1u, static_cast<float*>(nullptr)));
}

TEST_F(BufferParameter, NullCookiesChangeNothing) {
    auto& iData = Make<CParameterBuffer>("IData", &kIData);
    // Assign without an attached buffer does nothing and succeeds.
    Buffer samples(CDim(1), CDim(1));
    EXPECT_EQ((Results{iData.Attach(0), iData.Assign(0), iData.Assign(samples.Cookie())}),
              (Results{E_UNEXPECTED, E_UNEXPECTED, S_OK}));
    EXPECT_EQ(std::pair(iData.Attached(), iData.Status()), std::pair(static_cast<Buffer*>(nullptr), eSTATUS_INVALID));
    EXPECT_EQ(log_.Take(), Events{});
    EXPECT_EQ(samples.RefCount(), 1u);
}

TEST_F(BufferParameter, AssignCopiesOntoTheAttachedBuffer) {
    auto& iData = Make<CParameterBuffer>("IData", &kIData);
    Buffer attached(CDim(1), CDim(1));
    Buffer fresh(CDim(2), CDim(3));
    for (int i = 0; i < 6; ++i) fresh.Data()[i] = 0.25f * static_cast<float>(i);
    fresh.SetUsedCount(2);
    ASSERT_EQ((Results{iData.Attach(attached.Cookie()), iData.put_Status(eSTATUS_INVALID)}), Results(2, S_OK));
    log_.Take();

    EXPECT_EQ(iData.Assign(fresh.Cookie()), S_OK);
    EXPECT_EQ(iData.Status(), eSTATUS_VALID);
    EXPECT_EQ(std::tuple(attached.UsedCount(), attached.SecondExtent(), attached.Data()[5], attached.RefCount()),
              std::tuple(2u, 3u, 1.25f, 2u));
    EXPECT_EQ(Descriptor(iData), std::tuple(S_OK, VARIANT_FALSE, S_OK, attached.Cookie()));
    // Assigning the attached buffer to itself only republishes it.
    EXPECT_EQ(Told(iData.Assign(attached.Cookie())), std::pair(S_OK, Events{"s:IData=empty", "s:IData=empty"}));

    EXPECT_EQ(iData.ClearBuffer(), S_OK);
    EXPECT_EQ(attached.Data(), nullptr);
    EXPECT_EQ(Read(iData, &CParameterBuffer::IsEmpty), std::pair(S_OK, VARIANT_TRUE));
    EXPECT_EQ(iData.ReleaseDescriptor(), S_OK);
}

TEST_F(BufferParameter, ResetBuildsFromTheRecordAndLeavesTheStatus) {
    auto& shaped = Make<CParameterBuffer>("Shaped", &kShaped);
    Buffer* built = shaped.Attached();
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(std::tuple(built->FirstExtent(), built->SecondExtent(), built->RefCount(), shaped.Status()),
              std::tuple(8u, 2u, 1u, eSTATUS_INVALID));

    built->SetUsedCount(5);
    ASSERT_EQ(shaped.put_Status(eSTATUS_VALID), S_OK);
    EXPECT_EQ(shaped.Reset(), S_OK);
    EXPECT_EQ(std::tuple(shaped.Attached(), built->UsedCount(), shaped.Status()), std::tuple(built, 0u, eSTATUS_VALID));
}

}  // namespace
}  // namespace vorn::test
