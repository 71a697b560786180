#include "tests/chaos/member_log.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <stdexcept>

namespace kx::velmor::chaos {

namespace {

using Json = nlohmann::ordered_json;

Json NewLine(const char* what)
{
    return Json{{"t", Now().count()}, {"is", what}};
}

std::string Hexadecimal(const clientid_t& id)
{
    std::string text;
    for (const char byte : id.passwd)
    {
        constexpr const char* kDigits = "0123456789abcdef";
        const auto value = static_cast<unsigned char>(byte);
        text += kDigits[value / 16];
        text += kDigits[value % 16];
    }
    return text;
}

const char* Name(View view)
{
    return view == View::Flag ? "flag" : "session";
}

}  // namespace

MemberLog::MemberLog(const std::filesystem::path& file) : file_(file, std::ios::app)
{
    if (!file_)
    {
        throw std::runtime_error("cannot write " + file.string());
    }
}

void MemberLog::Started()
{
    Json line = NewLine("started");
    line["pid"] = ::getpid();
    Write(line.dump());
}

void MemberLog::Session(const SessionStatus& status, const clientid_t* id)
{
    Json line = NewLine("session");
    line["state"] = ToString(status.state);
    line["session"] = status.sessionId;
    line["timeout_ms"] = status.negotiatedTimeout.count();
    line["password"] = id != nullptr ? Hexadecimal(*id) : "";
    Write(line.dump());
}

void MemberLog::Joining(int stay, std::int64_t session)
{
    Json line = NewLine("joining");
    line["stay"] = stay;
    line["session"] = session;
    Write(line.dump());
}

void MemberLog::Role(int stay, const std::string& role)
{
    Json line = NewLine("role");
    line["stay"] = stay;
    line["role"] = role;
    Write(line.dump());
}

void MemberLog::Node(int stay, const std::string& name, std::int64_t created)
{
    Json line = NewLine("node");
    line["stay"] = stay;
    line["node"] = name;
    line["created"] = created;
    Write(line.dump());
}

void MemberLog::Queued(int stay, Instant asked)
{
    Json line = NewLine("queued");
    line["stay"] = stay;
    line["asked"] = asked.count();
    Write(line.dump());
}

void MemberLog::Turn()
{
    Write(NewLine("turn").dump());
}

void MemberLog::Leads(View view, int stay, Instant begin, Instant seen)
{
    Json line = NewLine("leads");
    line["by"] = Name(view);
    line["stay"] = stay;
    line["begin"] = begin.count();
    line["seen"] = seen.count();
    Write(line.dump());
}

void MemberLog::Tenure(const chaos::Tenure& tenure)
{
    Json line = NewLine("tenure");
    line["epoch"] = tenure.epoch;
    line["from"] = tenure.from.count();
    line["until"] = tenure.until.count();
    Write(line.dump());
}

void MemberLog::Gained(std::int64_t epoch)
{
    Json line = NewLine("gained");
    line["epoch"] = epoch;
    Write(line.dump());
}

void MemberLog::LostLead(const std::string& reason)
{
    Json line = NewLine("lost");
    line["reason"] = reason;
    Write(line.dump());
}

void MemberLog::Next()
{
    Write(NewLine("next").dump());
}

void MemberLog::NextLost()
{
    Write(NewLine("next lost").dump());
}

void MemberLog::Consumption(const Resources& resources)
{
    Json line = NewLine("resources");
    line["rss_kb"] = resources.rssKilobytes;
    line["threads"] = resources.threads;
    line["descriptors"] = resources.descriptors;
    Write(line.dump());
}

void MemberLog::Trouble(const std::string& what)
{
    Json line = NewLine("trouble");
    line["what"] = what;
    // What servers and libraries say need not be UTF-8.
    Write(line.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void MemberLog::Write(const std::string& line)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    // One write for the whole line: whoever is killed leaves whole lines behind.
    file_ << line + '\n' << std::flush;
}

}  // namespace kx::velmor::chaos
