// The unit test of a program that takes part in elections: no server, no waiting.

#include <kx/velmor/candidate.h>
#include <kx/velmor/testing/memory_service.h>

#include <chrono>
#include <iostream>

int main()
{
    kx::velmor::testing::MemoryService service;
    const auto session = service.Open();
    kx::velmor::CandidateOptions options;
    options.electionPath = "/election";
    kx::velmor::Candidate candidate(session, options);
    candidate.Start();
    const bool leads = candidate.WaitForRole(kx::velmor::Role::Leader, std::chrono::seconds(10));
    candidate.Stop();
    session->Close();
    std::cout << "leads " << leads << std::endl;
    return leads ? 0 : 1;
}
