#include "benchmarks/micro/listing_connection.h"

#include <algorithm>
#include <iomanip>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kx::velmor::benchmarks {

namespace {

constexpr std::int64_t kSession = 1;
constexpr std::int64_t kOtherSession = 2;

std::string Name(std::size_t number)
{
    std::ostringstream name;
    name << "c-" << std::setw(10) << std::setfill('0') << number;
    return name.str();
}

}  // namespace

std::vector<std::string> ShuffledNames(std::size_t count)
{
    std::vector<std::string> names;
    names.reserve(count);
    for (std::size_t number = 0; number < count; ++number)
    {
        names.push_back(Name(number));
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(4711));
    return names;
}

ListingConnection::ListingConnection(std::size_t others) : listing_(ShuffledNames(others)) {}

const std::string& ListingConnection::ElectionPath()
{
    static const std::string path = "/services/billing/leader";
    return path;
}

void ListingConnection::TellReconnection() const
{
    // As a session does it: a copy, made under the state's mutex and run without it.
    WatchCallback callback;
    {
        WatchState& state = *watches_.begin()->second;
        const std::lock_guard<std::mutex> lock(state.mutex);
        callback = state.callback;
    }
    callback(ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, std::string());
}

int ListingConnection::Create(std::string path, const std::string& /*data*/, const ACL_vector& /*acl*/, int /*flags*/,
                              std::string* createdPath) const
{
    if (path != ElectionPath() + "/c-")
    {
        throw std::logic_error("not a candidate's node: " + path);
    }
    beforeCreation_ += std::chrono::steady_clock::now() - listed_;
    const std::string name = Name(listing_.size());
    // Somewhere in the middle, as with servers.
    listing_.push_back(name);
    std::swap(listing_.back(), listing_[listing_.size() / 2]);
    own_ = ElectionPath() + "/" + name;
    *createdPath = own_;
    return ZOK;
}

int ListingConnection::GetChildren(std::string /*path*/, std::vector<std::string>& children) const
{
    listed_ = std::chrono::steady_clock::now();
    children = listing_;
    return ZOK;
}

int ListingConnection::Exists(std::string path, Stat* stat) const
{
    stat->ephemeralOwner = path == own_ ? kSession : kOtherSession;
    return ZOK;
}

std::pair<int, Connection::WatchHandle> ListingConnection::Exists(std::string path, WatchCallback callback,
                                                                  Stat* /*stat*/) const
{
    auto state = std::make_shared<WatchState>();
    state->active = true;
    state->hasCallback = true;
    state->callback = std::move(callback);
    watches_[std::move(path)] = state;
    return {ZOK, WatchHandle(std::move(state))};
}

int ListingConnection::GuaranteedDelete(std::string path) const
{
    std::swap(listing_.back(), listing_[listing_.size() / 2]);
    const std::string name = std::exchange(own_, std::string());
    if (path != name || name != ElectionPath() + "/" + listing_.back())
    {
        throw std::logic_error("not the node that was created: " + path);
    }
    listing_.pop_back();
    return ZOK;
}

std::unique_ptr<clientid_t> ListingConnection::ClientId() const
{
    auto id = std::make_unique<clientid_t>();
    id->client_id = kSession;
    return id;
}

}  // namespace kx::velmor::benchmarks
