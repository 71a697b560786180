#include "source/access_list.h"

#include <gtest/gtest.h>

#include <string>

namespace kx::velmor {
namespace {

TEST(AccessListTest, StandsInForTheOpenListOnly)
{
    const AccessList list({{ZOO_PERM_ALL, "auth", ""}, {ZOO_PERM_READ, "world", "anyone"}});
    const ACL_vector used = list.InPlaceOf(ZOO_OPEN_ACL_UNSAFE);
    ASSERT_EQ(used.count, 2);
    EXPECT_EQ(used.data[0].perms, ZOO_PERM_ALL);
    EXPECT_EQ(std::string(used.data[0].id.scheme), "auth");
    EXPECT_EQ(std::string(used.data[0].id.id), "");
    EXPECT_EQ(used.data[1].perms, ZOO_PERM_READ);
    EXPECT_EQ(std::string(used.data[1].id.scheme), "world");
    EXPECT_EQ(std::string(used.data[1].id.id), "anyone");

    for (const ACL_vector& asked : {ZOO_READ_ACL_UNSAFE, ZOO_CREATOR_ALL_ACL, used})
    {
        EXPECT_EQ(list.InPlaceOf(asked).data, asked.data);
    }
}

TEST(AccessListTest, OpenListIsKnownByWhatItGrants)
{
    const AccessList list({{ZOO_PERM_ALL, "auth", ""}});
    char scheme[] = "world";
    char id[] = "anyone";
    ACL open[] = {{ZOO_PERM_ALL, {scheme, id}}};
    EXPECT_STREQ(list.InPlaceOf(ACL_vector{1, open}).data[0].id.scheme, "auth");

    char somebody[] = "somebody";
    ACL other[] = {{ZOO_PERM_ALL, {scheme, somebody}}};
    EXPECT_EQ(list.InPlaceOf(ACL_vector{1, other}).data, other);
}

TEST(AccessListTest, NoRulesReplaceNothing)
{
    const AccessList none({});
    EXPECT_EQ(none.InPlaceOf(ZOO_OPEN_ACL_UNSAFE).data, ZOO_OPEN_ACL_UNSAFE.data);
}

}  // namespace
}  // namespace kx::velmor
