#include "benchmarks/drivers/contender.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <stdexcept>
#include <utility>

namespace kx::velmor::benchmarks {

namespace {

class CandidateContender final : public Contender
{
public:
    CandidateContender(const Election& election, Gained gained)
        : session_(Session::Open({election.servers, {}, election.sessionTimeout})),
          candidate_(session_, Options(election, std::move(gained)))
    {}

    void Join() override
    {
        candidate_.Start();
        if (candidate_.WaitForChange(Role::Joining, kPatience) == Role::Joining)
        {
            throw std::runtime_error("a candidate has no place in the queue");
        }
    }

    void Leave() override { candidate_.Stop(); }

private:
    static CandidateOptions Options(const Election& election, Gained gained)
    {
        CandidateOptions options;
        options.electionPath = election.path;
        options.onLeader = [gained = std::move(gained)](const Leadership&) { gained(); };
        return options;
    }

    const std::shared_ptr<Session> session_;
    Candidate candidate_;
};

}  // namespace

std::unique_ptr<Contender> MakeCandidate(const Election& election, Contender::Gained gained)
{
    return std::make_unique<CandidateContender>(election, std::move(gained));
}

}  // namespace kx::velmor::benchmarks
