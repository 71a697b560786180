#include "tests/unit/candidate_fixture.h"

#include <iomanip>
#include <sstream>

namespace kx::velmor {

namespace {

std::mutex& OpenMutex(CandidateImpl& candidate);

// An explicit instantiation may name a private member, and a friend that is defined in it can be called from outside.
template <std::mutex CandidateImpl::*Member>
struct Opener
{
    friend std::mutex& OpenMutex(CandidateImpl& candidate) { return candidate.*Member; }
};

template struct Opener<&CandidateImpl::mutex_>;

}  // namespace

std::mutex& MutexOf(CandidateImpl& candidate)
{
    return OpenMutex(candidate);
}

namespace testing_support {

std::string Node(int n)
{
    std::ostringstream path;
    path << "/e/c-" << std::setw(10) << std::setfill('0') << n;
    return path.str();
}

CandidateTest::CandidateTest()
    : log(journal), service(journal), connection(service.Open()), others(service.Open("others"))
{}

std::shared_ptr<CandidateImpl> CandidateTest::MakeCandidate()
{
    return MakeCandidate(connection);
}

std::shared_ptr<CandidateImpl> CandidateTest::MakeCandidate(const std::shared_ptr<ScriptedConnection>& session)
{
    return std::make_shared<CandidateImpl>(
        session, "/e", [this] { journal.Note("leader"); }, [this] { journal.Note("next leader"); });
}

void CandidateTest::AddOthers(int count)
{
    for (int n = 0; n < count; ++n)
    {
        service.Add(Node(n), *others);
    }
}

std::shared_ptr<CandidateImpl> CandidateTest::StartBehind(int count)
{
    AddOthers(count);
    auto candidate = MakeCandidate();
    candidate->Start();
    journal.Take();
    return candidate;
}

}  // namespace testing_support
}  // namespace kx::velmor
