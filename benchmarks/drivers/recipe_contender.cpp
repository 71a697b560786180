#include "benchmarks/drivers/contender.h"
#include "source/candidate_impl.h"

#include <kx/velmor/session.h>

#include <utility>

namespace kx::velmor::benchmarks {

namespace {

class RecipeContender final : public Contender
{
public:
    RecipeContender(const Election& election, Gained gained)
        : session_(Session::Open({election.servers, {}, election.sessionTimeout})),
          candidate_(std::make_shared<CandidateImpl>(session_, election.path, std::move(gained), [] {}))
    {}

    ~RecipeContender() override { session_->Close(); }

    void Join() override { candidate_->Start(); }
    void Leave() override { candidate_->Stop(); }

private:
    const std::shared_ptr<Session> session_;
    const std::shared_ptr<CandidateImpl> candidate_;
};

}  // namespace

std::unique_ptr<Contender> MakeRecipe(const Election& election, Contender::Gained gained)
{
    return std::make_unique<RecipeContender>(election, std::move(gained));
}

}  // namespace kx::velmor::benchmarks
