#include "tests/simulation/schedule.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kx::velmor::simulation {

namespace {

using std::chrono::milliseconds;

struct KindRow
{
    FaultKind kind;
    const char* name;
    FaultFields fields;
};

constexpr FaultFields Fields(const char* letters, const char* number = nullptr)
{
    FaultFields fields;
    fields.number = number;
    for (; *letters != '\0'; ++letters)
    {
        switch (*letters)
        {
            case 'p':
                fields.process = true;
                break;
            case 's':
                fields.server = true;
                break;
            case 'd':
                fields.direction = true;
                break;
            case 't':
                fields.duration = true;
                break;
            case 'a':
                fields.amount = true;
                break;
            default:
                fields.limits = true;
                break;
        }
    }
    return fields;
}

constexpr std::array<KindRow, kFaultKinds> kKinds{{
    {FaultKind::Pause, "pause", Fields("pt")},
    {FaultKind::PauseInside, "pause-inside", Fields("pt", "calls")},
    {FaultKind::Kill, "kill", Fields("pt")},
    {FaultKind::Exit, "exit", Fields("pt")},
    {FaultKind::Resign, "resign", Fields("pt")},
    {FaultKind::SlowLoss, "slow-loss", Fields("pa")},
    {FaultKind::Fork, "fork", Fields("p")},
    {FaultKind::Cut, "cut", Fields("ps")},
    {FaultKind::Silence, "silence", Fields("psdt")},
    {FaultKind::Refuse, "refuse", Fields("pst")},
    {FaultKind::Delay, "delay", Fields("psdta")},
    {FaultKind::LoseAnswer, "lose-answer", Fields("p")},
    {FaultKind::LoseHandshake, "lose-handshake", Fields("p")},
    {FaultKind::LoseRequest, "lose-request", Fields("p")},
    {FaultKind::FreezeServer, "freeze-server", Fields("st")},
    {FaultKind::KillServer, "kill-server", Fields("st")},
    {FaultKind::PartServer, "part-server", Fields("st")},
    {FaultKind::Limits, "limits", Fields("sl", "restart")},
    {FaultKind::DeleteNode, "delete-node", Fields("", "place")},
    {FaultKind::DeletePath, "delete-path", Fields("")},
}};

const KindRow& RowOf(FaultKind kind)
{
    return *std::find_if(kKinds.begin(), kKinds.end(), [kind](const KindRow& row) { return row.kind == kind; });
}

std::string PrintTime(Time time)
{
    constexpr std::array<std::pair<std::int64_t, const char*>, 3> kUnits{{{1'000'000, "ms"}, {1'000, "us"}, {1, "ns"}}};
    for (const auto& [unit, name] : kUnits)
    {
        if (time.count() % unit == 0)
        {
            return std::to_string(time.count() / unit) + name;
        }
    }
    return {};
}

std::uint64_t ParseNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
    {
        throw std::invalid_argument("\"" + std::string(text) + "\" is not a number");
    }
    return number;
}

Time ParseTime(std::string_view text)
{
    constexpr std::array<std::pair<std::string_view, std::int64_t>, 4> kUnits{
        {{"ms", 1'000'000}, {"us", 1'000}, {"ns", 1}, {"s", 1'000'000'000}}};
    for (const auto& [name, unit] : kUnits)
    {
        if (text.size() > name.size() && text.substr(text.size() - name.size()) == name)
        {
            const std::uint64_t count = ParseNumber(text.substr(0, text.size() - name.size()));
            return Time(static_cast<std::int64_t>(count) * unit);
        }
    }
    throw std::invalid_argument("\"" + std::string(text) + "\" is not a duration");
}

milliseconds ParseMilliseconds(std::string_view text)
{
    return std::chrono::duration_cast<milliseconds>(ParseTime(text));
}

std::string PrintTarget(const ProcessTarget& target)
{
    switch (target.kind)
    {
        case ProcessTarget::Kind::Leader:
            return "leader";
        case ProcessTarget::Kind::Next:
            return "next";
        case ProcessTarget::Kind::Same:
            return "same";
        case ProcessTarget::Kind::Slot:
            return "p" + std::to_string(target.slot);
    }
    return {};
}

ProcessTarget ParseProcess(std::string_view text)
{
    if (text.size() > 1 && text[0] == 'p')
    {
        return {ProcessTarget::Kind::Slot, ParseNumber(text.substr(1))};
    }
    for (const auto kind : {ProcessTarget::Kind::Leader, ProcessTarget::Kind::Next, ProcessTarget::Kind::Same})
    {
        if (PrintTarget({kind, 0}) == text)
        {
            return {kind, 0};
        }
    }
    throw std::invalid_argument("\"" + std::string(text) + "\" does not name a process");
}

std::string PrintTarget(const ServerTarget& target)
{
    switch (target.kind)
    {
        case ServerTarget::Kind::All:
            return "all";
        case ServerTarget::Kind::Index:
            return "s" + std::to_string(target.index);
        case ServerTarget::Kind::OfLeader:
            return "of-leader";
        case ServerTarget::Kind::OfNext:
            return "of-next";
        case ServerTarget::Kind::OfSame:
            return "of-same";
        case ServerTarget::Kind::OfSlot:
            return "of-p" + std::to_string(target.index);
        case ServerTarget::Kind::EnsembleLeader:
            return "ensemble-leader";
        case ServerTarget::Kind::Follower:
            return "follower";
        case ServerTarget::Kind::Same:
            return "same";
        case ServerTarget::Kind::Quorum:
            return "quorum";
    }
    return {};
}

ServerTarget ParseServer(std::string_view text)
{
    using Kind = ServerTarget::Kind;
    for (const auto kind : {Kind::All, Kind::OfLeader, Kind::OfNext, Kind::OfSame, Kind::EnsembleLeader, Kind::Follower,
                            Kind::Same, Kind::Quorum})
    {
        if (PrintTarget(ServerTarget{kind, 0}) == text)
        {
            return {kind, 0};
        }
    }
    if (text.size() > 4 && text.substr(0, 4) == "of-p")
    {
        return {Kind::OfSlot, ParseNumber(text.substr(4))};
    }
    if (text.size() > 1 && text[0] == 's')
    {
        return {Kind::Index, ParseNumber(text.substr(1))};
    }
    throw std::invalid_argument("\"" + std::string(text) + "\" does not name a server");
}

const char* PrintDirection(EnsembleModel::Direction direction)
{
    switch (direction)
    {
        case EnsembleModel::Direction::ToServer:
            return "to-server";
        case EnsembleModel::Direction::ToClient:
            return "to-client";
        case EnsembleModel::Direction::Both:
            break;
    }
    return "both";
}

EnsembleModel::Direction ParseDirection(std::string_view text)
{
    using Direction = EnsembleModel::Direction;
    for (const auto direction : {Direction::ToServer, Direction::ToClient, Direction::Both})
    {
        if (PrintDirection(direction) == text)
        {
            return direction;
        }
    }
    throw std::invalid_argument("\"" + std::string(text) + "\" is not a direction");
}

/// Reads "name=value" words: each name once, and all of them.
void ParseWords(std::istringstream& words,
                std::map<std::string, std::function<void(std::string_view)>, std::less<>> readers)
{
    for (std::string word; words >> word;)
    {
        const std::size_t equals = word.find('=');
        const auto reader = equals == std::string::npos ? readers.end() : readers.find(word.substr(0, equals));
        if (reader == readers.end())
        {
            throw std::invalid_argument("\"" + word + "\" does not belong here");
        }
        reader->second(std::string_view(word).substr(equals + 1));
        readers.erase(reader);
    }
    if (!readers.empty())
    {
        throw std::invalid_argument("\"" + readers.begin()->first + "=\" is missing");
    }
}

void ParseHeader(std::istringstream& words, Schedule& schedule)
{
    ServerLimits& limits = schedule.ensemble.limits;
    ParseWords(
        words,
        {{"seed", [&](std::string_view value) { schedule.seed = ParseNumber(value); }},
         {"servers", [&](std::string_view value) { schedule.ensemble.servers = ParseNumber(value); }},
         {"tick", [&](std::string_view value) { limits.tick = ParseMilliseconds(value); }},
         {"min", [&](std::string_view value) { limits.minSessionTimeout = ParseMilliseconds(value); }},
         {"max", [&](std::string_view value) { limits.maxSessionTimeout = ParseMilliseconds(value); }},
         {"answers-alone", [&](std::string_view value) { limits.answersAlone = ParseNumber(value) != 0; }},
         {"sync", [&](std::string_view value) { schedule.ensemble.syncLimit = static_cast<int>(ParseNumber(value)); }},
         {"processes", [&](std::string_view value) { schedule.processes = ParseNumber(value); }},
         {"timeout", [&](std::string_view value) { schedule.sessionTimeout = ParseMilliseconds(value); }},
         {"rejoin", [&](std::string_view value) { schedule.maxRejoinDelay = ParseMilliseconds(value); }}});
    if (schedule.ensemble.servers == 0 || schedule.processes == 0 || limits.tick <= milliseconds(0))
    {
        throw std::invalid_argument("servers, processes and tick must be positive");
    }
}

Fault ParseFault(const std::string& at, std::istringstream& words)
{
    Fault fault;
    fault.at = ParseTime(at);
    std::string name;
    words >> name;
    const auto row = std::find_if(kKinds.begin(), kKinds.end(), [&](const KindRow& each) { return each.name == name; });
    if (row == kKinds.end())
    {
        throw std::invalid_argument("\"" + name + "\" is not a fault");
    }
    fault.kind = row->kind;
    std::map<std::string, std::function<void(std::string_view)>, std::less<>> readers;
    if (row->fields.process)
    {
        readers["process"] = [&](std::string_view value) { fault.process = ParseProcess(value); };
    }
    if (row->fields.server)
    {
        readers["server"] = [&](std::string_view value) { fault.server = ParseServer(value); };
    }
    if (row->fields.direction)
    {
        readers["direction"] = [&](std::string_view value) { fault.direction = ParseDirection(value); };
    }
    if (row->fields.duration)
    {
        readers["for"] = [&](std::string_view value) { fault.duration = ParseTime(value); };
    }
    if (row->fields.amount)
    {
        readers["by"] = [&](std::string_view value) { fault.amount = ParseTime(value); };
    }
    if (row->fields.limits)
    {
        readers["min"] = [&](std::string_view value) { fault.minSessionTimeout = ParseMilliseconds(value); };
        readers["max"] = [&](std::string_view value) { fault.maxSessionTimeout = ParseMilliseconds(value); };
    }
    if (row->fields.number != nullptr)
    {
        readers[row->fields.number] = [&](std::string_view value) { fault.number = ParseNumber(value); };
    }
    ParseWords(words, std::move(readers));
    return fault;
}

}  // namespace

const char* Name(FaultKind kind) noexcept
{
    return RowOf(kind).name;
}

FaultFields FieldsOf(FaultKind kind) noexcept
{
    return RowOf(kind).fields;
}

milliseconds MaxTimeout(const Schedule& schedule)
{
    const ServerLimits& limits = schedule.ensemble.limits;
    const auto granted = [&schedule](milliseconds minimum, milliseconds maximum) {
        return std::max(minimum, std::min(maximum, schedule.sessionTimeout));
    };
    milliseconds max = granted(limits.minSessionTimeout, limits.maxSessionTimeout);
    for (const Fault& fault : schedule.faults)
    {
        if (fault.kind == FaultKind::Limits)
        {
            max = std::max(max, granted(fault.minSessionTimeout, fault.maxSessionTimeout));
        }
    }
    return max;
}

std::string Print(const Fault& fault)
{
    const FaultFields fields = FieldsOf(fault.kind);
    std::string text = PrintTime(fault.at) + " " + Name(fault.kind);
    if (fields.process)
    {
        text += " process=" + PrintTarget(fault.process);
    }
    if (fields.server)
    {
        text += " server=" + PrintTarget(fault.server);
    }
    if (fields.direction)
    {
        text += std::string(" direction=") + PrintDirection(fault.direction);
    }
    if (fields.amount)
    {
        text += " by=" + PrintTime(fault.amount);
    }
    if (fields.limits)
    {
        text += " min=" + PrintTime(fault.minSessionTimeout) + " max=" + PrintTime(fault.maxSessionTimeout);
    }
    if (fields.number != nullptr)
    {
        text += std::string(" ") + fields.number + "=" + std::to_string(fault.number);
    }
    if (fields.duration)
    {
        text += " for=" + PrintTime(fault.duration);
    }
    return text;
}

std::string Print(const Schedule& schedule)
{
    const ServerLimits& limits = schedule.ensemble.limits;
    std::ostringstream text;
    text << "ensemble seed=" << schedule.seed << " servers=" << schedule.ensemble.servers
         << " tick=" << PrintTime(limits.tick) << " min=" << PrintTime(limits.minSessionTimeout)
         << " max=" << PrintTime(limits.maxSessionTimeout) << " answers-alone=" << (limits.answersAlone ? 1 : 0)
         << " sync=" << schedule.ensemble.syncLimit << " processes=" << schedule.processes
         << " timeout=" << PrintTime(schedule.sessionTimeout) << " rejoin=" << PrintTime(schedule.maxRejoinDelay)
         << '\n';
    for (const Fault& fault : schedule.faults)
    {
        text << Print(fault) << '\n';
    }
    return text.str();
}

Schedule Parse(const std::string& text)
{
    Schedule schedule;
    bool headed = false;
    std::istringstream lines(text);
    std::size_t number = 0;
    for (std::string line; std::getline(lines, line);)
    {
        ++number;
        std::istringstream words(line);
        std::string first;
        if (!(words >> first) || first[0] == '#')
        {
            continue;
        }
        try
        {
            if (headed == (first == "ensemble"))
            {
                throw std::invalid_argument("the ensemble is described once, in the first line");
            }
            if (!headed)
            {
                ParseHeader(words, schedule);
                headed = true;
                continue;
            }
            schedule.faults.push_back(ParseFault(first, words));
        }
        catch (const std::invalid_argument& error)
        {
            throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what());
        }
    }
    if (!headed)
    {
        throw std::invalid_argument("no line describes the ensemble");
    }
    const auto earlier = [](const Fault& one, const Fault& other) { return one.at < other.at; };
    std::stable_sort(schedule.faults.begin(), schedule.faults.end(), earlier);
    return schedule;
}

}  // namespace kx::velmor::simulation
