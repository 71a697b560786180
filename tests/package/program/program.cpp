// Uses what is public, across the border of the library: errors thrown there are caught here, by the class that they
// are and by the one that they are derived from, and a session and a candidate work together as far as they get without
// a server.

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/error.h>
#include <kx/velmor/participants.h>
#include <kx/velmor/path.h>
#include <kx/velmor/session.h>
#include <kx/velmor/transaction.h>

#include <chrono>
#include <iostream>
#include <memory>

namespace {

bool IsCaught()
{
    try
    {
        kx::velmor::Session::Open(kx::velmor::SessionOptions{"nowhere"});
    }
    catch (const kx::velmor::ZooError& error)
    {
        return error.Code() == ZBADARGUMENTS;
    }
    return false;
}

bool IsCaughtAsWhatItIsDerivedFrom()
{
    try
    {
        kx::velmor::NormalizePath("/a/../../b");
    }
    catch (const kx::velmor::VelmorError&)
    {
        return true;
    }
    return false;
}

bool TakesPartWithoutAServer()
{
    using kx::velmor::Role;
    kx::velmor::SessionOptions options;
    options.servers = "127.0.0.1:1";
    options.operationTimeout = std::chrono::milliseconds(200);
    const auto session = kx::velmor::Session::OpenInBackground(options);
    const std::shared_ptr<kx::velmor::ElectionSession> abstract = session;

    kx::velmor::CandidateOptions candidateOptions;
    candidateOptions.electionPath = "/election";
    kx::velmor::Candidate candidate(abstract, candidateOptions);
    candidate.Start();
    const bool joins = candidate.WaitForRole(Role::Joining, std::chrono::seconds(10)) && !candidate.IsLeader();
    candidate.Stop();
    const bool stopped = candidate.CurrentRole() == Role::Stopped;

    bool refused = false;
    try
    {
        kx::velmor::Participants(*abstract, "/election");
    }
    catch (const kx::velmor::ZooError&)
    {
        refused = true;
    }
    session->Close();
    return joins && stopped && refused && session->Status().state == kx::velmor::SessionState::Closed &&
           std::dynamic_pointer_cast<kx::velmor::Session>(abstract) == session;
}

}  // namespace

int main()
{
    const auto source = std::make_shared<const kx::logging::Source>("program");
    KX_LOG(kx::logging::LogLevel::Info, source) << "a statement of the program's own";

    const auto operation = kx::velmor::Operation::Set("/a", "data", 3);
    const bool normal = kx::velmor::NormalizePath("/a//b/") == "a/b" && operation.version == 3;
    const bool thrown = IsCaught();
    const bool derived = IsCaughtAsWhatItIsDerivedFrom();
    const bool candidate = TakesPartWithoutAServer();
    std::cout << "paths " << normal << ", errors " << thrown << ", their bases " << derived << ", candidate "
              << candidate << std::endl;
    return normal && thrown && derived && candidate ? 0 : 1;
}
