#include "tests/ensemble/loopback_door.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>

#include <array>
#include <system_error>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

using asio::ip::tcp;

/// One client's connection and the one behind it. It lives while one of them is read.
class Passage : public std::enable_shared_from_this<Passage>
{
public:
    explicit Passage(tcp::socket client) : server_(client.get_executor()), client_(std::move(client)) {}

    void Open(const tcp::endpoint& target)
    {
        server_.async_connect(target, [self = shared_from_this()](const std::error_code& error) {
            if (!error)
            {
                self->Pass(self->client_, self->server_, self->toServer_);
                self->Pass(self->server_, self->client_, self->toClient_);
            }
        });
    }

private:
    using Buffer = std::array<char, 4096>;

    void Pass(tcp::socket& from, tcp::socket& to, Buffer& buffer)
    {
        from.async_read_some(asio::buffer(buffer), [this, self = shared_from_this(), &from, &to, &buffer](
                                                       const std::error_code& error, std::size_t size) {
            if (error)
            {
                Close();
                return;
            }
            asio::async_write(to, asio::buffer(buffer, size),
                              [this, self, &from, &to, &buffer](const std::error_code& writeError, std::size_t) {
                                  if (writeError)
                                  {
                                      Close();
                                      return;
                                  }
                                  Pass(from, to, buffer);
                              });
        });
    }

    void Close()
    {
        std::error_code ignored;
        client_.close(ignored);
        server_.close(ignored);
    }

    tcp::socket server_;
    tcp::socket client_;
    Buffer toServer_{};
    Buffer toClient_{};
};

}  // namespace

class LoopbackDoor::Impl
{
public:
    explicit Impl(std::uint16_t target)
        : target_(asio::ip::address_v4::loopback(), target),
          acceptor_(context_, tcp::endpoint(asio::ip::address_v6::loopback(), 0))
    {
        AcceptNext();
        thread_ = std::thread([this] { context_.run(); });
    }

    ~Impl()
    {
        context_.stop();
        thread_.join();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t Port() const { return acceptor_.local_endpoint().port(); }

private:
    void AcceptNext()
    {
        acceptor_.async_accept([this](const std::error_code& error, tcp::socket client) {
            if (!error)
            {
                std::make_shared<Passage>(std::move(client))->Open(target_);
            }
            AcceptNext();
        });
    }

    const tcp::endpoint target_;
    asio::io_context context_{1};
    tcp::acceptor acceptor_;
    std::thread thread_;
};

LoopbackDoor::LoopbackDoor(std::uint16_t target) : impl_(std::make_unique<Impl>(target)) {}

LoopbackDoor::~LoopbackDoor() = default;

std::uint16_t LoopbackDoor::Port() const
{
    return impl_->Port();
}

}  // namespace kx::velmor::testing_support
