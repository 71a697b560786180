#include "tests/simulation/replica.h"

#include "tests/simulation/trial.h"

namespace kx::velmor::simulation {

Replica::Replica()
{
    // Every server has it, from before its first transaction.
    std::string created;
    tree_.Create("/zookeeper", 0, false, created);
}

Replica::Effect Replica::Apply(const Proposal& proposal)
{
    tree_.BeginTransaction(proposal.time);
    Effect effect;
    switch (proposal.kind)
    {
        case Proposal::Kind::CreateSession:
            sessions_[proposal.session] = proposal.timeout;
            break;
        case Proposal::Kind::CloseSession:
            CloseSession(proposal.session, effect.changes);
            break;
        case Proposal::Kind::Write:
            return Write(proposal);
        case Proposal::Kind::Refusal:
            effect.rc = proposal.rc;
            break;
    }
    return effect;
}

Replica::Effect Replica::Write(const Proposal& proposal)
{
    Effect effect;
    const std::vector<Step>& steps = proposal.request->steps;
    if (proposal.request->transaction)
    {
        Trial trial(tree_);
        for (const Step& step : steps)
        {
            // Behind the refused step there are none that were looked at.
            effect.outcomes.push_back(
                StepOutcome{effect.rc == ZOK ? trial.Try(step) : static_cast<int>(ZRUNTIMEINCONSISTENCY), {}, {}});
            effect.rc = effect.rc == ZOK ? effect.outcomes.back().rc : effect.rc;
        }
        if (effect.rc != ZOK)
        {
            return effect;
        }
        effect.outcomes.clear();
    }
    for (const Step& step : steps)
    {
        effect.outcomes.push_back(Do(step, proposal.session, effect.changes));
        effect.rc = effect.outcomes.back().rc;
    }
    return effect;
}

StepOutcome Replica::Do(const Step& step, SessionId session, std::vector<Change>& changes)
{
    StepOutcome outcome;
    switch (step.kind)
    {
        case Step::Kind::Create:
            outcome.rc =
                tree_.Create(step.path, step.ephemeral ? session : 0, step.sequential, outcome.createdPath, step.data);
            if (outcome.rc == ZOK)
            {
                changes.push_back(Change{ZOO_CREATED_EVENT, outcome.createdPath});
            }
            break;
        case Step::Kind::Delete:
            outcome.rc = tree_.Delete(step.path, step.version);
            if (outcome.rc == ZOK)
            {
                changes.push_back(Change{ZOO_DELETED_EVENT, step.path});
            }
            break;
        case Step::Kind::Set:
            outcome.rc = tree_.Set(step.path, step.data, step.version);
            if (outcome.rc == ZOK)
            {
                outcome.stat = StatOf(*tree_.Find(step.path));
                changes.push_back(Change{ZOO_CHANGED_EVENT, step.path});
            }
            break;
        case Step::Kind::Check:
            outcome.rc = tree_.Check(step.path, step.version);
            break;
        case Step::Kind::DeleteTree:
            return DeleteTree(step.path, changes);
    }
    return outcome;
}

StepOutcome Replica::DeleteTree(const std::string& path, std::vector<Change>& changes)
{
    std::vector<std::string> children;
    StepOutcome outcome;
    outcome.rc = tree_.Children(path, children);
    for (const std::string& child : children)
    {
        DeleteTree(path + "/" + child, changes);
    }
    if (outcome.rc == ZOK)
    {
        outcome.rc = tree_.Delete(path);
        changes.push_back(Change{ZOO_DELETED_EVENT, path});
    }
    return outcome;
}

void Replica::CloseSession(SessionId session, std::vector<Change>& changes)
{
    sessions_.erase(session);
    for (const std::string& path : tree_.OwnedBy(session))
    {
        tree_.Delete(path);
        changes.push_back(Change{ZOO_DELETED_EVENT, path});
    }
}

}  // namespace kx::velmor::simulation
