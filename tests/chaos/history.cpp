#include "tests/chaos/history.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace kx::velmor::chaos {

const char* Name(Subject subject)
{
    return subject == Subject::Recipe ? "recipe" : "candidate";
}

const std::map<std::string, Subject>& SubjectsByName()
{
    static const std::map<std::string, Subject> subjects{{Name(Subject::Recipe), Subject::Recipe},
                                                         {Name(Subject::Candidate), Subject::Candidate}};
    return subjects;
}

std::optional<Interval> LastLead(const Member& member)
{
    // A single call begins each leadership: whoever counts those by their beginnings must not see two of them.
    const auto tenure = std::find_if(member.tenures.rbegin(), member.tenures.rend(),
                                     [](const Tenure& each) { return each.epoch != 0; });
    if (tenure != member.tenures.rend())
    {
        return Interval{tenure->from, tenure->until};
    }
    if (!member.bySession.empty())
    {
        return member.bySession.back().when;
    }
    return std::nullopt;
}

std::size_t Successions(const std::vector<const Member*>& members)
{
    std::size_t leaderships = 0;
    for (const Member* const member : members)
    {
        leaderships +=
            static_cast<std::size_t>(std::count_if(member->roles.begin(), member->roles.end(),
                                                   [](const RoleChange& change) { return change.role == "leader"; }));
    }
    return leaderships == 0 ? 0 : leaderships - 1;
}

std::string ToJson(const Fault& fault)
{
    nlohmann::ordered_json line{{"kind", fault.kind},
                                {"label", fault.label},
                                {"begin", fault.when.begin.count()},
                                {"end", fault.when.end.count()},
                                {"members", fault.members}};
    return line.dump();
}

}  // namespace kx::velmor::chaos
