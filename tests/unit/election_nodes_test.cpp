#include "source/election_nodes.h"

#include <kx/velmor/error.h>

#include <gtest/gtest.h>

#include <limits>

namespace kx::velmor {
namespace {

TEST(ElectionNodesTest, NamesWhatStandsBesideTheElectionPath)
{
    EXPECT_EQ(ElectionPath("a//b/"), "/a/b");
    EXPECT_EQ(IdentitiesPath("/a/b"), "/a/b-identities");
    EXPECT_EQ(ClaimPath("/a/b"), "/a/b-identities/leader");
    EXPECT_EQ(IdentityPath("/a/b", "c-0000000042", 0x100003e8f2a0001), "/a/b-identities/c-0000000042-0100003e8f2a0001");
    EXPECT_THROW(ElectionPath("/"), VelmorError);
}

TEST(ElectionNodesTest, IdentityTellsItsSession)
{
    const std::int64_t negative = std::numeric_limits<std::int64_t>::min() + 5;
    EXPECT_EQ(SessionOfIdentity("c-0000000042-" + SessionText(negative)), SessionText(negative));
    EXPECT_EQ(SessionOfIdentity("leader"), "");
    EXPECT_EQ(SessionOfIdentity(""), "");
    EXPECT_EQ(SessionOfIdentity("0100003e8f2a0001"), "");
    EXPECT_EQ(SessionOfIdentity("a very long name that is no identity"), "");
}

TEST(ElectionNodesTest, SignatureIsReadAsItWasWritten)
{
    const Signature read = DecodeSignature(Encode({"0123", "host name: 7 "}));
    EXPECT_EQ(read.instance, "0123");
    EXPECT_EQ(read.identity, "host name: 7 ");
    EXPECT_EQ(DecodeSignature("nonsense").identity, "");
    EXPECT_EQ(DecodeSignature("").instance, "");
}

TEST(ElectionNodesTest, EpochIsReadAsItWasWritten)
{
    EXPECT_EQ(DecodeEpoch(EncodeEpoch(std::numeric_limits<std::int64_t>::max())),
              std::numeric_limits<std::int64_t>::max());
    for (const char* const none : {"", "x", "12x", " 12", "99999999999999999999"})
    {
        EXPECT_EQ(DecodeEpoch(none), 0) << none;
    }
}

}  // namespace
}  // namespace kx::velmor
