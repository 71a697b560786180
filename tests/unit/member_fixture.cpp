#include "tests/unit/member_fixture.h"

#include <algorithm>
#include <mutex>
#include <optional>

namespace kx::velmor::testing_support {

struct Member::Shared
{
    std::mutex mutex;
    std::optional<Leadership> last;
};

Member::Member(testing::MemoryService& service, std::string name, const Change& change,
               std::chrono::milliseconds sessionTimeout)
    : journal_(std::make_shared<Journal>()), shared_(std::make_shared<Shared>())
{
    testing::MemorySessionOptions sessionOptions;
    sessionOptions.sessionTimeout = sessionTimeout;
    session_ = service.Open(sessionOptions);

    CandidateOptions options;
    options.electionPath = "/election";
    options.identity = std::move(name);
    options.firstRejoinDelay = std::chrono::milliseconds(100);
    options.mostRejoinDelay = std::chrono::milliseconds(1'000);
    options.onRoleChange = [journal = journal_](Role role) { journal->Note(std::string("role ") + ToString(role)); };
    options.onLeader = [journal = journal_, shared = shared_](const Leadership& leadership) {
        {
            const std::lock_guard<std::mutex> lock(shared->mutex);
            shared->last = leadership;
        }
        journal->Note("gained");
    };
    options.onLeaderLost = [journal = journal_](LossReason reason) {
        journal->Note(std::string("lost: ") + ToString(reason));
    };
    options.onNextLeader = [journal = journal_] { journal->Note("next"); };
    options.onNextLeaderLost = [journal = journal_] { journal->Note("no longer next"); };
    if (change)
    {
        change(options);
    }
    candidate_ = std::make_unique<Candidate>(session_, std::move(options));
}

void Member::Become(Role role)
{
    candidate_->Start();
    ASSERT_TRUE(candidate_->WaitForRole(role, kPatience)) << ToString(candidate_->CurrentRole());
}

Leadership Member::LastLeadership() const
{
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->last.value();
}

void MemberTest::QueueUp(const std::vector<Member*>& members)
{
    const std::vector<Role> first{Role::Leader, Role::NextLeader};
    for (std::size_t i = 0; i < members.size(); ++i)
    {
        members[i]->Become(i < first.size() ? first[i] : Role::Follower);
    }
}

std::vector<std::string> MemberTest::Queue() const
{
    return service_.Has("/election") ? service_.Children("/election") : std::vector<std::string>();
}

std::vector<std::string> MemberTest::Identities() const
{
    std::vector<std::string> names =
        service_.Has("/election-identities") ? service_.Children("/election-identities") : std::vector<std::string>();
    names.erase(std::remove(names.begin(), names.end(), "lease"), names.end());
    return names;
}

std::string MemberTest::LeftLease() const
{
    return service_.Has("/election-identities/lease") ? service_.Data("/election-identities/lease") : "";
}

void MemberTest::ExpectNobody() const
{
    EXPECT_THAT(Queue(), ::testing::IsEmpty());
    EXPECT_THAT(Identities(), ::testing::IsEmpty());
}

void MemberTest::ExpectWhole(const std::vector<Member*>& members)
{
    Await("one leader", [&] {
        return std::count_if(members.begin(), members.end(), [](Member* member) { return (*member)->IsLeader(); }) == 1;
    });
    Await("a whole queue", [&] { return Queue().size() == members.size(); });
    Await("all identities, and the claim", [&] { return Identities().size() == members.size() + 1; });
}

bool MemberTest::Logged(const std::string& part) const
{
    const std::vector<std::string> lines = logJournal_.Lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

void MemberTest::AdvanceUntil(const std::string& what, const std::function<bool()>& condition)
{
    Await(what, [&] {
        if (condition())
        {
            return true;
        }
        service_.Advance(std::chrono::milliseconds(50));
        return false;
    });
}

}  // namespace kx::velmor::testing_support
