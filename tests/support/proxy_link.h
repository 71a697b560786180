#pragma once

#include "tests/support/proxy.h"

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {

/// Or children that are started while a socket is open would keep its connection open after it is closed.
void CloseOnExec(int descriptor);

enum class Fault
{
    DropReply,
    DropRequest,
    CutAfterRequest
};

/// What is wrong with the network at the moment, and what has passed; the proxy's thread alone touches it.
struct Weather
{
    bool refusing = false;
    bool silentToServer = false;
    bool silentToClient = false;
    std::chrono::milliseconds delay{0};
    /// In the order in which they were asked for.
    std::vector<std::pair<Fault, Request>> faults;
    /// How many requests pass before faults meet them.
    std::map<Request, std::size_t> spared;
    std::map<Request, std::size_t> forwarded;
    std::size_t accepted = 0;
    std::size_t refused = 0;

    /// The first fault that waits for a request of this type, which it then no longer does; none when this one is
    /// to be spared.
    std::optional<Fault> TakeFault(Request type);
};

/// One client's connection and the connection to the server that belongs to it. It lives in the set of all links until
/// it is closed. The proxy's thread alone touches it.
class Link : public std::enable_shared_from_this<Link>
{
public:
    using Links = std::set<std::shared_ptr<Link>>;

    Link(asio::ip::tcp::socket client, Weather& weather, Links& links);

    void Start(const asio::ip::tcp::endpoint& target);
    void Close();
    /// Delivers what a black hole held back, if it no longer does.
    void Resume();

private:
    /// What has been read in full: a message, or the end of the connection.
    struct Arrival
    {
        std::chrono::steady_clock::time_point due;
        std::optional<std::vector<char>> message;
    };

    /// One direction: whatever arrives is queued, and sent on one by one, each judged when its time has come.
    struct Way
    {
        asio::ip::tcp::socket& from;
        asio::ip::tcp::socket& to;
        const bool& silent;
        asio::steady_timer timer;
        /// The message that is being read, and the one that is being sent on.
        std::vector<char> incoming{};
        std::vector<char> message{};
        std::deque<Arrival> arrivals{};
        /// While a message is being sent on, or waited for to be due.
        bool busy = false;
        bool handshakeDone = false;
    };

    void Read(Way& way);
    void ReadBody(Way& way);
    void Arrive(Way& way, const std::error_code& error);
    void DeliverNext(Way& way);
    void Deliver(Way& way);
    void DeliverRequest(Way& way);
    void DeliverReply(Way& way);
    void Write(Way& way, bool thenClose);

    asio::ip::tcp::socket server_;
    asio::ip::tcp::socket client_;
    Weather& weather_;
    Links& links_;
    Way toServer_{client_, server_, weather_.silentToServer, asio::steady_timer(client_.get_executor())};
    Way toClient_{server_, client_, weather_.silentToClient, asio::steady_timer(client_.get_executor())};
    std::optional<std::int32_t> unwantedReply_;
};

}  // namespace kx::velmor::testing_support
