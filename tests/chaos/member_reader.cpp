#include "tests/chaos/member_reader.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

namespace kx::velmor::chaos {

namespace {

Instant At(const nlohmann::ordered_json& line, const char* key = "t")
{
    return Instant(line.at(key).get<Instant::rep>());
}

}  // namespace

MemberReader::MemberReader(std::string name, std::filesystem::path file) : path_(std::move(file))
{
    member_.name = std::move(name);
}

const Member& MemberReader::Update()
{
    if (!file_.is_open())
    {
        file_.open(path_);
    }
    // What was the end the last time may have moved.
    file_.clear();
    for (std::string line; std::getline(file_, line);)
    {
        rest_ += line;
        if (file_.eof())
        {
            break;
        }
        try
        {
            Add(std::exchange(rest_, {}));
        }
        catch (const std::exception& error)
        {
            throw std::runtime_error(path_.string() + ": " + line + ": " + error.what());
        }
    }
    return member_;
}

void MemberReader::Add(const std::string& text)
{
    const Json line = Json::parse(text);
    const Instant at = At(line);
    member_.lines.push_back({at, text});
    const std::string what = line.at("is").get<std::string>();
    if (what == "started")
    {
        member_.lives.push_back({at, at});
        firstStay_ = member_.stays.size();
        return;
    }
    if (what == "forked child")
    {
        // It may outlive its parent, of which it says nothing.
        Child(line);
        return;
    }
    member_.lives.at(member_.lives.size() - 1).end = at;
    static const std::map<std::string, void (MemberReader::*)(const Json&)> handlers{
        {"session", &MemberReader::Session},    {"trouble", &MemberReader::OwnerSign},
        {"turn", &MemberReader::OwnerSign},     {"joining", &MemberReader::Joining},
        {"role", &MemberReader::Role},          {"node", &MemberReader::Node},
        {"queued", &MemberReader::Queued},      {"leads", &MemberReader::Leads},
        {"tenure", &MemberReader::TenureOf},    {"gained", &MemberReader::NoticeOf},
        {"lost", &MemberReader::NoticeOf},      {"next", &MemberReader::NoticeOf},
        {"next lost", &MemberReader::NoticeOf}, {"resources", &MemberReader::Consumption},
    };
    (this->*handlers.at(what))(line);
}

std::size_t MemberReader::StayIndex(const Json& line) const
{
    return firstStay_ + line.at("stay").get<std::size_t>() - 1;
}

void MemberReader::Session(const Json& line)
{
    if (line.at("state") == "connected")
    {
        member_.session = {line.at("session").get<std::int64_t>(), line.at("password").get<std::string>()};
        member_.sessionTimeout = std::chrono::milliseconds(line.at("timeout_ms").get<std::int64_t>());
    }
}

void MemberReader::OwnerSign(const Json& line)
{
    member_.lives.back().ownerSigns.push_back(At(line));
}

void MemberReader::Joining(const Json& line)
{
    OwnerSign(line);
    Stay stay;
    stay.begin = At(line);
    stay.session = line.at("session").get<std::int64_t>();
    member_.stays.push_back(stay);
}

void MemberReader::Role(const Json& line)
{
    member_.roles.push_back({At(line), line.at("role").get<std::string>()});
}

void MemberReader::Node(const Json& line)
{
    Stay& stay = StayOf(line);
    stay.node = line.at("node").get<std::string>();
    stay.created = line.at("created").get<std::int64_t>();
}

void MemberReader::Queued(const Json& line)
{
    OwnerSign(line);
    StayOf(line).lastQueued = At(line, "asked");
}

void MemberReader::Leads(const Json& line)
{
    const Leadership leads{StayIndex(line), {At(line, "begin"), At(line, "seen")}};
    std::vector<Leadership>& all = line.at("by") == "flag" ? member_.byFlag : member_.bySession;
    if (!all.empty() && all.back().when.begin == leads.when.begin)
    {
        all.back() = leads;
    }
    else
    {
        all.push_back(leads);
    }
}

void MemberReader::TenureOf(const Json& line)
{
    const Tenure tenure{line.at("epoch").get<std::int64_t>(), At(line, "from"), At(line, "until")};
    std::vector<Tenure>& all = member_.tenures;
    if (!all.empty() && all.back().epoch == tenure.epoch && all.back().from == tenure.from)
    {
        all.back() = tenure;
        // One line of it is enough for whoever reads what happened.
        member_.lines.pop_back();
    }
    else
    {
        all.push_back(tenure);
    }
}

void MemberReader::NoticeOf(const Json& line)
{
    static const std::map<std::string, Notice::Kind> kinds{{"gained", Notice::Kind::Gained},
                                                           {"lost", Notice::Kind::Lost},
                                                           {"next", Notice::Kind::Next},
                                                           {"next lost", Notice::Kind::NextLost}};
    Notice notice{At(line), kinds.at(line.at("is").get<std::string>()), member_.lives.size() - 1};
    notice.epoch = line.value("epoch", notice.epoch);
    notice.reason = line.value("reason", notice.reason);
    member_.notices.push_back(notice);
}

void MemberReader::Child(const Json& line)
{
    const auto pid = line.at("pid").get<std::int64_t>();
    std::vector<ForkedChild>& all = member_.children;
    auto child = std::find_if(all.begin(), all.end(), [&](const ForkedChild& each) { return each.pid == pid; });
    if (child == all.end())
    {
        all.push_back({pid, At(line)});
        child = all.end() - 1;
    }
    if (line.at("leads").get<bool>())
    {
        child->led = {child->led ? child->led->begin : At(line), At(line)};
    }
}

void MemberReader::Consumption(const Json& line)
{
    Life& life = member_.lives.back();
    life.watcherSigns.push_back(At(line));
    life.resources.push_back({At(line), line.at("rss_kb").get<std::int64_t>(), line.at("threads").get<std::int64_t>(),
                              line.at("descriptors").get<std::int64_t>()});
}

}  // namespace kx::velmor::chaos
