#include "source/election_nodes.h"

#include <kx/velmor/path.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>

namespace kx::velmor {

namespace {

constexpr std::size_t kSessionDigits = 16;

}  // namespace

std::string ElectionPath(const std::string& path)
{
    return "/" + NormalizePath(path);
}

std::string IdentitiesPath(const std::string& electionPath)
{
    return electionPath + "-identities";
}

std::string SessionText(std::int64_t session)
{
    char text[kSessionDigits + 1];
    std::snprintf(text, sizeof(text), "%016" PRIx64, static_cast<std::uint64_t>(session));
    return text;
}

std::string IdentityPath(const std::string& electionPath, const std::string& node, std::int64_t session)
{
    return IdentitiesPath(electionPath) + "/" + node + "-" + SessionText(session);
}

std::string SessionOfIdentity(const std::string& name)
{
    const bool hasSession = name.size() > kSessionDigits && name[name.size() - kSessionDigits - 1] == '-';
    return hasSession ? name.substr(name.size() - kSessionDigits) : std::string();
}

std::string ClaimPath(const std::string& electionPath)
{
    return IdentitiesPath(electionPath) + "/leader";
}

std::string Encode(const Signature& signature)
{
    return signature.instance + " " + signature.identity;
}

Signature DecodeSignature(const std::string& data)
{
    const std::size_t blank = data.find(' ');
    if (blank == std::string::npos)
    {
        return {};
    }
    return {data.substr(0, blank), data.substr(blank + 1)};
}

std::string EncodeEpoch(std::int64_t epoch)
{
    return std::to_string(epoch);
}

std::int64_t DecodeEpoch(const std::string& data)
{
    std::int64_t epoch = 0;
    const auto [end, error] = std::from_chars(data.data(), data.data() + data.size(), epoch);
    return error == std::errc() && end == data.data() + data.size() ? epoch : 0;
}

}  // namespace kx::velmor
