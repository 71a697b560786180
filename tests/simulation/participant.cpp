#include "tests/simulation/participant.h"

#include <thread>
#include <utility>

namespace kx::velmor::simulation {

Participant::Participant(VirtualMachine& machine, Checks& checks, Checks::Participant number, std::size_t slot,
                         ParticipantOptions options)
    : machine_(machine),
      checks_(checks),
      number_(number),
      slot_(slot),
      options_(std::move(options)),
      process_(machine.AddProcess())
{}

void Participant::Enqueue(std::function<void()> command)
{
    commands_.push_back(std::move(command));
    if (!running_)
    {
        running_ = true;
        machine_.Start(process_, [this] { RunCommands(); });
    }
}

void Participant::RunCommands()
{
    while (!commands_.empty())
    {
        const std::function<void()> command = std::move(commands_.front());
        commands_.pop_front();
        command();
    }
    running_ = false;
}

void Participant::Open()
{
    Enqueue([this] {
        SessionOptions session;
        session.servers = options_.servers;
        session.sessionTimeout = options_.sessionTimeout;
        session_ = Session::OpenInBackground(session);
        candidate_ = std::make_unique<Candidate>(session_, MakeCandidateOptions());
        candidate_->Start();
    });
}

void Participant::Resign(Time pause)
{
    Enqueue([this, pause] {
        candidate_->Stop();
        std::this_thread::sleep_for(pause);
        candidate_->Start();
    });
}

void Participant::Stop()
{
    Enqueue([this] {
        if (candidate_)
        {
            candidate_->Stop();
        }
    });
}

void Participant::Start()
{
    Enqueue([this] {
        if (candidate_)
        {
            candidate_->Start();
        }
    });
}

void Participant::Exit()
{
    exiting_ = true;
    Enqueue([this] {
        if (candidate_)
        {
            candidate_.reset();
            checks_.Destroyed(machine_.Now(), number_);
            leadership_.reset();
        }
        if (session_)
        {
            session_->Close();
            session_.reset();
        }
    });
}

void Participant::Discard()
{
    Enqueue([this] {
        if (session_)
        {
            session_->Close();
        }
        leadership_.reset();
        candidate_.reset();
        session_.reset();
    });
}

void Participant::Kill()
{
    killed_ = true;
    checks_.Killed(number_);
    machine_.Pause(process_);
}

bool Participant::Leads() const noexcept
{
    return (candidate_ && candidate_->IsLeader()) || (leadership_ && leadership_->Stands());
}

Participant::ForkFinding Participant::CheckInForkedChild() const
{
    if (candidate_ && candidate_->IsLeader())
    {
        return ForkFinding::Leads;
    }
    if (candidate_ && candidate_->LeaseLeft() != kNoLease)
    {
        return ForkFinding::HasLease;
    }
    if (leadership_ && leadership_->Stands())
    {
        return ForkFinding::Stands;
    }
    return ForkFinding::None;
}

void Participant::EndInForkedChild()
{
    if (candidate_)
    {
        candidate_->Stop();
    }
    candidate_.reset();
    leadership_.reset();
    if (session_)
    {
        session_->Close();
    }
    session_.reset();
}

void Participant::Tell(Callback callback, const std::function<void()>& action)
{
    const bool stands = leadership_ && leadership_->Stands();
    checks_.Begin(machine_.Now(), number_, callback, leadership_ ? leadership_->Epoch() : 0, stands);
    if (action)
    {
        action();
    }
    checks_.End(machine_.Now(), number_, callback);
}

CandidateOptions Participant::MakeCandidateOptions()
{
    CandidateOptions options;
    options.electionPath = options_.electionPath;
    options.identity = "p" + std::to_string(slot_) + "#" + std::to_string(number_);
    options.mostRejoinDelay = options_.maxRejoinDelay;
    options.onLeader = [this](const Leadership& leadership) {
        leadership_ = leadership;
        Tell(Callback::Leader);
    };
    options.onLeaderLost = [this](LossReason /*reason*/) {
        Tell(Callback::LeaderLost, [this] {
            const Time takes = std::exchange(nextLossTakes_, Time());
            if (takes > Time())
            {
                std::this_thread::sleep_for(takes);
            }
        });
    };
    options.onNextLeader = [this] { Tell(Callback::NextLeader); };
    options.onNextLeaderLost = [this] { Tell(Callback::NextLeaderLost); };
    options.onRoleChange = [this](Role role) {
        role_ = role;
        Tell(Callback::RoleChange);
    };
    return options;
}

}  // namespace kx::velmor::simulation
