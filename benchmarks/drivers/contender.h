#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kx::velmor::benchmarks {

using Clock = std::chrono::steady_clock;

/// How long anything may take before a benchmark gives up.
constexpr std::chrono::seconds kPatience{60};

struct Election
{
    std::string servers;
    /// Its node exists.
    std::string path;
    std::chrono::milliseconds sessionTimeout;
};

/// One candidate with a session of its own, which is open for as long as this lives.
///
/// Threads: one for all verbs. They throw `std::exception`.
class Contender
{
public:
    /// Called first of all when this has come to lead, on a thread of its own.
    using Gained = std::function<void()>;

    virtual ~Contender() = default;

    /// Joins at the back. Returns when its place is known, and what tells of changes is set up.
    virtual void Join() = 0;
    /// Leaves. Returns when its node is gone.
    virtual void Leave() = 0;
};

using MakeContender = std::unique_ptr<Contender> (*)(const Election& election, Contender::Gained gained);

/// The least that any correct client must do, with nothing but the client library: a node of its own, a watch on the
/// node ahead, and one listing after its event.
std::unique_ptr<Contender> MakeFloor(const Election& election, Contender::Gained gained);
/// The recipe, over a `Session`.
std::unique_ptr<Contender> MakeRecipe(const Election& election, Contender::Gained gained);
/// What users have: the recipe with leases, fencing, identities and rejoining around it.
std::unique_ptr<Contender> MakeCandidate(const Election& election, Contender::Gained gained);

}  // namespace kx::velmor::benchmarks
