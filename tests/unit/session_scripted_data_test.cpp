#include "tests/unit/session_scripted_fixture.h"

#include <cstdint>

namespace kx::velmor::testing_support {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;

/// Reads of data.
class DataOfASession : public SessionScripted
{
protected:
    static Reply Data(std::string data)
    {
        Reply reply;
        reply.data = std::move(data);
        return reply;
    }
};

TEST_F(DataOfASession, IsWhatTheServerGave)
{
    const auto session = OpenConnected();
    Reply reply = Data(std::string("a\0b", 3));
    reply.ephemeralOwner = 77;
    library.Expect(Sent::GetData, "/n", reply);
    std::string data = "old";
    Stat stat{};
    EXPECT_EQ(session->GetData("/n", data, &stat), ZOK);
    EXPECT_EQ(data, std::string("a\0b", 3));
    EXPECT_EQ(stat.ephemeralOwner, 77);
}

class TransactionsOfASession : public SessionScripted
{
protected:
    static Reply Paths(std::vector<std::string> created)
    {
        Reply reply;
        reply.created = std::move(created);
        return reply;
    }

    static Reply RefusedAt(std::size_t index, int rc)
    {
        Reply reply;
        reply.rc = rc;
        reply.refused = index;
        return reply;
    }
};

TEST_F(TransactionsOfASession, HandOverAllOperationsAndGiveTheCreatedPaths)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, "create /a=x ephemeral sequential, set /b=y v3, delete /c, check /d v0",
                   Paths({"/a0000000007"}));
    TransactionResult result;
    EXPECT_EQ(session->Transact({Operation::Create("/a", "x", NodeMode::EphemeralSequential),
                                 Operation::Set("/b", "y", 3), Operation::Delete("/c"), Operation::Check("/d", 0)},
                                result),
              ZOK);
    EXPECT_THAT(result.created, ElementsAre("/a0000000007", "", "", ""));
    EXPECT_EQ(result.refused, std::nullopt);
}

TEST_F(TransactionsOfASession, TellWhichOperationWasRefused)
{
    const auto session = OpenConnected();
    for (std::size_t index = 0; index < 3; ++index)
    {
        library.Expect(Sent::Transact, "check /a, check /b, check /c", RefusedAt(index, ZNONODE));
        TransactionResult result;
        result.created = {"old"};
        EXPECT_EQ(session->Transact({Operation::Check("/a"), Operation::Check("/b"), Operation::Check("/c")}, result),
                  ZNONODE);
        EXPECT_THAT(result.refused, Optional(index));
        EXPECT_THAT(result.created, IsEmpty());
    }
}

}  // namespace
}  // namespace kx::velmor::testing_support
