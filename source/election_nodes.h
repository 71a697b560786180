#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kx::velmor {

/// What stands beside an election path, and how it is named: every child of the path itself takes part in the ordering.
///
///     /election                                              the queue, as the recipe makes it
///     /election/c-0000000042
///     /election-identities                                   persistent; holds the epoch of the last leadership
///     /election-identities/c-0000000042-0100003e8f2a0001     ephemeral; the candidate that owns the node of this
///                                                            name in this session
///     /election-identities/leader                            ephemeral; made by the candidate that leads
///     /election-identities/lease                             persistent; made with the claim, deleted when the lead is
///                                                            given back: holds how long a lease can outlast the claim

/// "/a/b" for "a//b/". Throws `VelmorError` for a path that names no node.
std::string ElectionPath(const std::string& path);

std::string IdentitiesPath(const std::string& electionPath);

/// Where the owner of `node` in `session` says who it is. No other node of any time has this path: a session's number
/// is not used again, and makes no two nodes of one name.
std::string IdentityPath(const std::string& electionPath, const std::string& node, std::int64_t session);

/// The session that an identity's node belongs to, as its name says; empty for other names.
std::string SessionOfIdentity(const std::string& name);

/// As it stands in the names of identities.
std::string SessionText(std::int64_t session);

/// Where who leads says so.
std::string ClaimPath(const std::string& electionPath);

/// Exists from a claim until its owner gives the lead back. It stays when the claim goes with its session.
std::string LeasePath(const std::string& electionPath);

/// What the nodes of an identity and of a claim hold.
struct Signature
{
    /// Tells two candidates of one session apart. Without blanks.
    std::string instance;
    std::string identity;
};

std::string Encode(const Signature& signature);
Signature DecodeSignature(const std::string& data);

/// Milliseconds, in decimal.
std::string EncodeLease(std::chrono::milliseconds length);
/// 0 for what is not a number of milliseconds.
std::chrono::milliseconds DecodeLease(const std::string& data);

std::string EncodeEpoch(std::int64_t epoch);
/// 0 for what is no epoch.
std::int64_t DecodeEpoch(const std::string& data);

}  // namespace kx::velmor
