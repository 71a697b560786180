#include "source/election_nodes.h"

#include <kx/velmor/path.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>

namespace kx::velmor {

namespace {

constexpr std::size_t kSessionDigits = 16;

/// 0 for what is not a number.
std::int64_t Number(const std::string& data)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(data.data(), data.data() + data.size(), number);
    return error == std::errc() && end == data.data() + data.size() ? number : 0;
}

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

std::string LeasePath(const std::string& electionPath)
{
    return IdentitiesPath(electionPath) + "/lease";
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

std::string EncodeLease(std::chrono::milliseconds length)
{
    return std::to_string(length.count());
}

std::chrono::milliseconds DecodeLease(const std::string& data)
{
    // No session lasts for a year.
    constexpr std::chrono::milliseconds kMaxLease = std::chrono::hours(24 * 365);
    return std::clamp(std::chrono::milliseconds(Number(data)), std::chrono::milliseconds(0), kMaxLease);
}

std::string EncodeEpoch(std::int64_t epoch)
{
    return std::to_string(epoch);
}

std::int64_t DecodeEpoch(const std::string& data)
{
    return Number(data);
}

}  // namespace kx::velmor
