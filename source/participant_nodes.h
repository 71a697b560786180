#pragma once

#include <kx/velmor/participants.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kx::velmor {

// What the nodes of an election tell of those who take part. Everything blocks for a round trip, and throws `ZooError`
// when a server refuses or does not answer.

/// The names of the nodes, in the order of the queue.
std::vector<std::string> Queue(const ElectionSession& session, const std::string& electionPath);

/// What `participant.node` itself tells. False when the node has gone.
bool DescribePlace(const ElectionSession& session, const std::string& electionPath, Participant& participant);

/// Who it is, if it has said so by now.
void DescribeIdentity(const ElectionSession& session, const std::string& electionPath, Participant& participant);

/// How long ago it joined.
void DescribeAge(Participant& participant);

Role RoleAt(std::size_t position);

}  // namespace kx::velmor
