#pragma once

#include "tests/chaos/history.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Puts histories together that never happened. Times count from the history's beginning.
class MadeUpHistory
{
public:
    explicit MadeUpHistory(seconds length, std::size_t members = 3)
    {
        history_.whole = {Instant{0}, length};
        history_.sessionTimeout = seconds(2);
        for (std::size_t i = 0; i < members; ++i)
        {
            Member member;
            member.name = "m" + std::to_string(i + 1);
            history_.members.push_back(member);
            AddLife(i, Instant{0}, length);
        }
        history_.ending = Ending{length};
    }

    /// A process with signs of life, all second long, and steady needs.
    Life& AddLife(std::size_t member, Instant begin, Instant end)
    {
        Life life{begin, end};
        for (Instant at = begin; at <= end; at += seconds(1))
        {
            life.ownerSigns.push_back(at);
            life.watcherSigns.push_back(at);
            life.resources.push_back({at, 10'000, 6, 20});
        }
        history_.members.at(member).lives.push_back(life);
        return history_.members.at(member).lives.back();
    }

    /// A stay, whose node is numbered by `created`.
    std::size_t AddStay(std::size_t member, std::int64_t created, Instant lastQueued = {})
    {
        Stay stay;
        stay.node = "c-" + std::to_string(created);
        stay.created = created;
        stay.lastQueued = lastQueued;
        history_.members.at(member).stays.push_back(stay);
        return history_.members.at(member).stays.size() - 1;
    }

    /// Leadership by both views.
    void Lead(std::size_t member, std::size_t stay, milliseconds begin, milliseconds end)
    {
        history_.members.at(member).byFlag.push_back({stay, {begin, end}});
        history_.members.at(member).bySession.push_back({stay, {begin, end}});
    }

    void LeadByFlagOnly(std::size_t member, std::size_t stay, milliseconds begin, milliseconds end)
    {
        history_.members.at(member).byFlag.push_back({stay, {begin, end}});
    }

    Fault& AddFault(const std::string& label, milliseconds begin, milliseconds end,
                    const std::vector<std::string>& members = {})
    {
        Fault fault;
        fault.kind = label;
        fault.label = label;
        fault.when = {begin, end};
        fault.members = members;
        history_.faults.push_back(fault);
        return history_.faults.back();
    }

    History& Get() { return history_; }

private:
    History history_;
};

}  // namespace kx::velmor::chaos
