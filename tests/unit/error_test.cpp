#include <kx/velmor/error.h>

#include <gtest/gtest.h>
#include <zookeeper/zookeeper.h>

#include <stdexcept>
#include <type_traits>

namespace kx::velmor {
namespace {

using Family = details::ExceptionWrapper<VelmorErrorTag, std::runtime_error>;

static_assert(std::is_same_v<VelmorError, Family>);
static_assert(std::is_convertible_v<Family*, std::runtime_error*>, "a public base");
static_assert(std::is_convertible_v<ZooError*, Family*>, "a public base");
static_assert(sizeof(Family) == sizeof(std::runtime_error), "the wrapper adds no fields");
static_assert(std::has_virtual_destructor_v<ZooError>);
static_assert(std::is_constructible_v<Family, const char*>);
static_assert(std::is_constructible_v<ZooError, int>);
static_assert(std::is_nothrow_copy_constructible_v<ZooError>, "as whatever is thrown should be");

struct ForeignTag
{};

class Code : public ::testing::TestWithParam<int>
{};

TEST_P(Code, IsKeptAndItsTextIsTheWholeMessage)
{
    const ZooError error(GetParam());
    EXPECT_EQ(error.Code(), GetParam());
    EXPECT_STREQ(error.what(), zerror(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Codes, Code,
                         ::testing::Values(ZNONODE, ZCONNECTIONLOSS, ZSESSIONEXPIRED, ZOPERATIONTIMEOUT, ZNOAUTH,
                                           ZSYSTEMERROR, -9999));

TEST(ZooErrorTest, NoNodeSaysSo)
{
    EXPECT_STREQ(ZooError(-101).what(), "no node");
    EXPECT_EQ(ZooError(-101).Code(), -101);
}

TEST(ZooErrorTest, CopyKeepsCodeAndMessage)
{
    const ZooError original(ZCONNECTIONLOSS);
    ZooError copy(ZNONODE);
    copy = original;
    EXPECT_EQ(copy.Code(), ZCONNECTIONLOSS);
    EXPECT_STREQ(copy.what(), "connection loss");
    EXPECT_EQ(ZooError(original).Code(), ZCONNECTIONLOSS);
}

TEST(ZooErrorTest, HandlerOfTheFamilyCatchesIt)
{
    try
    {
        throw ZooError(ZNONODE);
    }
    catch (const Family& error)
    {
        EXPECT_STREQ(error.what(), "no node");
        EXPECT_NE(dynamic_cast<const ZooError*>(&error), nullptr);
    }
}

TEST(ZooErrorTest, HandlerOfRuntimeErrorsCatchesBoth)
{
    EXPECT_THROW(throw ZooError(ZNONODE), std::runtime_error);
    EXPECT_THROW(throw Family("message"), std::runtime_error);
}

TEST(VelmorErrorTest, CarriesItsMessageAndNoCode)
{
    const Family error("Failed to find own node");
    EXPECT_STREQ(error.what(), "Failed to find own node");
    const std::runtime_error& base = error;
    EXPECT_EQ(dynamic_cast<const ZooError*>(&base), nullptr);
    EXPECT_NE(dynamic_cast<const Family*>(&base), nullptr);
}

TEST(VelmorErrorTest, OtherFamiliesAreStrangers)
{
    using Strangers = details::ExceptionWrapper<ForeignTag, std::runtime_error>;
    static_assert(!std::is_convertible_v<Strangers*, Family*>);
    try
    {
        throw Strangers("not ours");
    }
    catch (const Family&)
    {
        ADD_FAILURE() << "an error of another family was caught";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_STREQ(error.what(), "not ours");
    }
}

TEST(VelmorErrorTest, WrapsOtherBasesToo)
{
    const details::ExceptionWrapper<VelmorErrorTag, std::logic_error> error("logic");
    EXPECT_STREQ(error.what(), "logic");
    static_assert(!std::is_convertible_v<decltype(error)*, const Family*>);
}

}  // namespace
}  // namespace kx::velmor
