// One process of the fault run: a session, and what takes part in the election with it. All that it finds out about
// itself goes into its history. Start reading at `CandidateMember::Run` and `RecipeMember::Run`.

#include "tests/chaos/candidate_member.h"
#include "tests/chaos/member_log.h"
#include "tests/chaos/member_session.h"
#include "tests/chaos/recipe_member.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>

namespace {

using kx::velmor::Session;
using kx::velmor::SessionStatus;
using kx::velmor::chaos::CandidateMember;
using kx::velmor::chaos::MemberLog;
using kx::velmor::chaos::MemberOptions;
using kx::velmor::chaos::RecipeMember;
using kx::velmor::chaos::Subject;

void Run(const MemberOptions& options)
{
    MemberLog log(options.history);
    log.Started();
    const std::shared_ptr<Session> session = OpenSession(options, log);
    if (!session)
    {
        return;
    }
    const auto stateChanges =
        session->OnStateChange([&](const SessionStatus& status) { log.Session(status, session->ClientId().get()); });
    if (options.subject == Subject::Candidate)
    {
        CandidateMember(options, session, log).Run();
    }
    else
    {
        RecipeMember(options, session, log).Run();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    MemberOptions options;
    CLI::App app("A member of the fault run's election.");
    app.add_option("--with", options.subject, "With what it takes part")
        ->required()
        ->transform(CLI::Transformer(kx::velmor::chaos::SubjectsByName()));
    app.add_option("--servers", options.servers, "ZooKeeper servers, as in host:2181,host:2181")->required();
    app.add_option("--path", options.path, "Where the election takes place")->required();
    app.add_option("--history", options.history, "File that the history is appended to")->required();
    app.add_option_function<int>(
           "--session-timeout", [&](int timeout) { options.sessionTimeout = std::chrono::milliseconds(timeout); },
           "In milliseconds")
        ->required();
    CLI11_PARSE(app, argc, argv);

    kx::velmor::chaos::HoldRequests();
    try
    {
        Run(options);
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << "member: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
