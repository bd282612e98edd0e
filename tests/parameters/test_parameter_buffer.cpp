// Buffer parameters: attaching a client-built buffer by its cookie, the
// reference counts that attaching, re-attaching and releasing leave, copying
// with Assign, null cookies, and the buffer Reset builds from its record.
#include "ParameterTestTree.h"
#include "parameters/ParameterBuffer.h"

namespace vorn::test {
namespace {

constexpr SDefaultsBuffer kIData{.leading = {1, 4, 1}, .firstExtent = 0, .secondExtent = 0};
constexpr SDefaultsBuffer kShaped{.leading = {1, 4, 1}, .firstExtent = 8, .secondExtent = 2};

using Buffer = CBuffer<float, 4>;
using BufferParameter = ParameterTest;

TEST_F(BufferParameter, AttachHoldsAReferenceAndMakesTheParameterValid) {
    CParameterBuffer iData;
    Add(iData, "IData", &kIData);
    VARIANT_BOOL empty = VARIANT_FALSE;
    EXPECT_EQ(iData.IsEmpty(&empty), S_OK);
    EXPECT_EQ(empty, VARIANT_TRUE);
    ULONG_PTR cookie = 1;
    EXPECT_EQ(iData.GetDescriptor(&cookie), E_UNEXPECTED);

    Buffer samples(CDim(4), CDim(2));
    for (int i = 0; i < 8; ++i) samples.Data()[i] = static_cast<float>(i);
    samples.SetUsedCount(3);
    EXPECT_EQ(iData.Attach(samples.Cookie()), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    EXPECT_EQ(iData.Status(), eSTATUS_VALID);
    EXPECT_EQ(log_.Take(), Events{"s:IData=empty"});
    EXPECT_EQ(iData.GetDescriptor(&cookie), S_OK);
    EXPECT_EQ(cookie, samples.Cookie());
    EXPECT_EQ(iData.IsEmpty(&empty), S_OK);
    EXPECT_EQ(empty, VARIANT_FALSE);

    // Attaching the same buffer again: the release and the new reference
    // meet on one object.
    EXPECT_EQ(iData.Attach(samples.Cookie()), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    EXPECT_NE(samples.Data(), nullptr);

    EXPECT_EQ(iData.AddRefDescriptor(), S_OK);
    EXPECT_EQ(samples.RefCount(), 3u);
    EXPECT_EQ(iData.ReleaseDescriptor(), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
    EXPECT_EQ(iData.GetDescriptor(&cookie), E_UNEXPECTED);
    EXPECT_EQ(iData.ReleaseDescriptor(), S_OK);  // nothing attached: accepted
    EXPECT_EQ(iData.AddRefDescriptor(), S_OK);
    EXPECT_EQ(samples.RefCount(), 2u);
}

TEST_F(BufferParameter, ReattachingTheLastReferenceFreesTheSamplesFirst) {
    CParameterBuffer iData;
    Add(iData, "IData", &kIData);
    Buffer samples(CDim(4), CDim(2));
    ASSERT_EQ(iData.Attach(samples.Cookie()), S_OK);
    samples.Release();  // the client lets go of its own reference
    EXPECT_EQ(samples.RefCount(), 1u);
    EXPECT_EQ(iData.Attach(samples.Cookie()), S_OK);
    EXPECT_EQ(samples.RefCount(), 1u);
    EXPECT_EQ(samples.Data(), nullptr);
}

TEST_F(BufferParameter, NullCookiesChangeNothing) {
    CParameterBuffer iData;
    Add(iData, "IData", &kIData);
    EXPECT_EQ(iData.Attach(0), E_UNEXPECTED);
    EXPECT_EQ(iData.Assign(0), E_UNEXPECTED);
    EXPECT_EQ(iData.Attached(), nullptr);
    EXPECT_EQ(iData.Status(), eSTATUS_INVALID);
    // Assign without an attached buffer does nothing and succeeds.
    Buffer samples(CDim(1), CDim(1));
    EXPECT_EQ(iData.Assign(samples.Cookie()), S_OK);
    EXPECT_EQ(iData.Status(), eSTATUS_INVALID);
    EXPECT_EQ(log_.Take(), Events{});
    EXPECT_EQ(samples.RefCount(), 1u);
}

TEST_F(BufferParameter, AssignCopiesOntoTheAttachedBuffer) {
    CParameterBuffer iData;
    Add(iData, "IData", &kIData);
    Buffer attached(CDim(1), CDim(1));
    Buffer fresh(CDim(2), CDim(3));
    for (int i = 0; i < 6; ++i) fresh.Data()[i] = 0.25f * static_cast<float>(i);
    fresh.SetUsedCount(2);
    ASSERT_EQ(iData.Attach(attached.Cookie()), S_OK);
    ASSERT_EQ(iData.put_Status(eSTATUS_INVALID), S_OK);
    log_.Take();

    EXPECT_EQ(iData.Assign(fresh.Cookie()), S_OK);
    EXPECT_EQ(iData.Status(), eSTATUS_VALID);
    EXPECT_EQ(attached.UsedCount(), 2u);
    EXPECT_EQ(attached.SecondExtent(), 3u);
    EXPECT_EQ(attached.Data()[5], 1.25f);
    EXPECT_EQ(attached.RefCount(), 2u);
    ULONG_PTR cookie = 0;
    EXPECT_EQ(iData.GetDescriptor(&cookie), S_OK);
    EXPECT_EQ(cookie, attached.Cookie());
    // Assigning the attached buffer to itself only republishes it.
    EXPECT_EQ(iData.Assign(attached.Cookie()), S_OK);
    EXPECT_EQ(log_.Take(), (Events{"s:IData=empty", "s:IData=empty"}));

    EXPECT_EQ(iData.ClearBuffer(), S_OK);
    EXPECT_EQ(attached.Data(), nullptr);
    VARIANT_BOOL empty = VARIANT_FALSE;
    EXPECT_EQ(iData.IsEmpty(&empty), S_OK);
    EXPECT_EQ(empty, VARIANT_TRUE);
    EXPECT_EQ(iData.ReleaseDescriptor(), S_OK);
}

TEST_F(BufferParameter, ResetBuildsFromTheRecordAndLeavesTheStatus) {
    CParameterBuffer shaped;
    Add(shaped, "Shaped", &kShaped);
    Buffer* built = shaped.Attached();
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(built->FirstExtent(), 8u);
    EXPECT_EQ(built->SecondExtent(), 2u);
    EXPECT_EQ(built->RefCount(), 1u);
    EXPECT_EQ(shaped.Status(), eSTATUS_INVALID);

    built->SetUsedCount(5);
    ASSERT_EQ(shaped.put_Status(eSTATUS_VALID), S_OK);
    EXPECT_EQ(shaped.Reset(), S_OK);
    EXPECT_EQ(shaped.Attached(), built);
    EXPECT_EQ(built->UsedCount(), 0u);
    EXPECT_EQ(shaped.Status(), eSTATUS_VALID);
}

}  // namespace
}  // namespace vorn::test
