#include "tests/support/proxy_link.h"

#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <fcntl.h>

#include <algorithm>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

using asio::ip::tcp;

/// A message on the wire: its length in four bytes, big-endian, and as many bytes.
constexpr std::size_t kLengthSize = 4;
/// Above what servers take by default; more means that somebody does not speak the protocol.
constexpr std::uint32_t kLargestMessage = 8 * 1024 * 1024;

std::uint32_t Unsigned32(const std::vector<char>& bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i)
    {
        value = value << 8U | static_cast<unsigned char>(bytes[offset + i]);
    }
    return value;
}

std::int32_t Signed32(const std::vector<char>& bytes, std::size_t offset)
{
    return static_cast<std::int32_t>(Unsigned32(bytes, offset));
}

}  // namespace

void CloseOnExec(int descriptor)
{
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

std::optional<Fault> Weather::TakeFault(Request type)
{
    std::size_t& toSpare = spared[type];
    if (toSpare > 0)
    {
        --toSpare;
        return std::nullopt;
    }
    const auto found =
        std::find_if(faults.begin(), faults.end(), [type](const auto& fault) { return fault.second == type; });
    if (found == faults.end())
    {
        return std::nullopt;
    }
    const Fault fault = found->first;
    faults.erase(found);
    return fault;
}

Link::Link(tcp::socket client, Weather& weather, Links& links)
    : server_(client.get_executor()), client_(std::move(client)), weather_(weather), links_(links)
{}

void Link::Start(const tcp::endpoint& target)
{
    CloseOnExec(client_.native_handle());
    std::error_code ignored;
    // Fails below, where it matters.
    server_.open(target.protocol(), ignored);
    CloseOnExec(server_.native_handle());
    server_.async_connect(target, [self = shared_from_this()](const std::error_code& error) {
        if (error)
        {
            self->Close();
            return;
        }
        std::error_code unset;
        self->server_.set_option(tcp::no_delay(true), unset);
        self->client_.set_option(tcp::no_delay(true), unset);
        self->Read(self->toServer_);
        self->Read(self->toClient_);
    });
}

void Link::Close()
{
    std::error_code ignored;
    client_.close(ignored);
    server_.close(ignored);
    toServer_.timer.cancel();
    toClient_.timer.cancel();
    links_.erase(shared_from_this());
}

void Link::Resume()
{
    DeliverNext(toServer_);
    DeliverNext(toClient_);
}

void Link::Read(Way& way)
{
    way.incoming.resize(kLengthSize);
    asio::async_read(way.from, asio::buffer(way.incoming),
                     [self = shared_from_this(), &way](const std::error_code& error, std::size_t) {
                         if (error)
                         {
                             self->Arrive(way, error);
                             return;
                         }
                         const std::uint32_t length = Unsigned32(way.incoming, 0);
                         if (length > kLargestMessage)
                         {
                             self->Close();
                             return;
                         }
                         way.incoming.resize(kLengthSize + length);
                         self->ReadBody(way);
                     });
}

void Link::ReadBody(Way& way)
{
    asio::async_read(
        way.from, asio::buffer(way.incoming) + kLengthSize,
        [self = shared_from_this(), &way](const std::error_code& error, std::size_t) { self->Arrive(way, error); });
}

void Link::Arrive(Way& way, const std::error_code& error)
{
    // Cut: `Close` has been here.
    if (error == asio::error::operation_aborted || !way.from.is_open())
    {
        return;
    }
    Arrival arrival{std::chrono::steady_clock::now() + weather_.delay, std::nullopt};
    if (!error)
    {
        arrival.message.emplace(std::move(way.incoming));
    }
    way.arrivals.push_back(std::move(arrival));
    if (!error)
    {
        Read(way);
    }
    DeliverNext(way);
}

void Link::DeliverNext(Way& way)
{
    if (way.busy || way.silent || way.arrivals.empty())
    {
        return;
    }
    if (way.arrivals.front().due > std::chrono::steady_clock::now())
    {
        way.busy = true;
        way.timer.expires_at(way.arrivals.front().due);
        way.timer.async_wait([self = shared_from_this(), &way](const std::error_code& error) {
            if (!error)
            {
                way.busy = false;
                self->DeliverNext(way);
            }
        });
        return;
    }
    Arrival arrival = std::move(way.arrivals.front());
    way.arrivals.pop_front();
    if (!arrival.message)
    {
        Close();
        return;
    }
    way.message = std::move(*arrival.message);
    Deliver(way);
}

void Link::Deliver(Way& way)
{
    const bool toServer = &way == &toServer_;
    // The first message each way sets the session up and has another form.
    const bool handshake = !std::exchange(way.handshakeDone, true);
    if (handshake)
    {
        Write(way, false);
    }
    else if (toServer)
    {
        DeliverRequest(way);
    }
    else
    {
        DeliverReply(way);
    }
}

void Link::DeliverRequest(Way& way)
{
    constexpr std::size_t kHeader = kLengthSize + 8;
    if (way.message.size() < kHeader)
    {
        Close();
        return;
    }
    const std::int32_t xid = Signed32(way.message, kLengthSize);
    const auto type = static_cast<Request>(Signed32(way.message, kLengthSize + 4));
    const std::optional<Fault> fault = weather_.TakeFault(type);
    if (fault == Fault::DropRequest)
    {
        Close();
        return;
    }
    if (fault == Fault::DropReply)
    {
        unwantedReply_ = xid;
    }
    ++weather_.forwarded[type];
    Write(way, fault == Fault::CutAfterRequest);
}

void Link::DeliverReply(Way& way)
{
    if (way.message.size() >= 2 * kLengthSize && unwantedReply_ == Signed32(way.message, kLengthSize))
    {
        Close();
        return;
    }
    Write(way, false);
}

void Link::Write(Way& way, bool thenClose)
{
    way.busy = true;
    asio::async_write(way.to, asio::buffer(way.message),
                      [self = shared_from_this(), &way, thenClose](const std::error_code& error, std::size_t) {
                          if (error == asio::error::operation_aborted)
                          {
                              return;
                          }
                          if (error || thenClose)
                          {
                              self->Close();
                              return;
                          }
                          way.busy = false;
                          self->DeliverNext(way);
                      });
}

}  // namespace kx::velmor::testing_support
