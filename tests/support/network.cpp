#include "tests/support/network.h"

#include <asio/buffer.hpp>
#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include <fstream>
#include <random>
#include <stdexcept>

namespace kx::velmor::testing_support {

namespace {

using asio::ip::tcp;

constexpr unsigned kLowestPort = 10'000;
constexpr unsigned kEndOfPorts = 65'536;

/// The ports between `kLowestPort` and the ones of outgoing connections, or above those when they begin low.
std::uniform_int_distribution<unsigned> PortsForServers()
{
    unsigned first = 32'768;
    unsigned last = 60'999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> first >> last;
    if (first >= 2 * kLowestPort)
    {
        return std::uniform_int_distribution<unsigned>(kLowestPort, first - 1);
    }
    if (last + 1000 < kEndOfPorts)
    {
        return std::uniform_int_distribution<unsigned>(last + 1, kEndOfPorts - 1);
    }
    return std::uniform_int_distribution<unsigned>(kLowestPort, kEndOfPorts - 1);
}

bool IsFree(std::uint16_t port)
{
    asio::io_context context;
    tcp::acceptor acceptor(context, tcp::v4());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    std::error_code error;
    acceptor.bind(tcp::endpoint(asio::ip::address_v4::loopback(), port), error);
    if (!error)
    {
        acceptor.listen(1, error);
    }
    return !error;
}

}  // namespace

std::string LoopbackAddress(std::uint16_t port)
{
    return "127.0.0.1:" + std::to_string(port);
}

std::uint16_t ChooseFreePort()
{
    // At random, so that tests that run at the same time seldom choose the same one.
    std::random_device random;
    std::uniform_int_distribution<unsigned> ports = PortsForServers();
    for (int attempt = 0; attempt < 1000; ++attempt)
    {
        const auto port = static_cast<std::uint16_t>(ports(random));
        if (IsFree(port))
        {
            return port;
        }
    }
    throw std::runtime_error("no free port on 127.0.0.1");
}

std::optional<std::string> FourLetterCommand(std::uint16_t port, const std::string& command,
                                             std::chrono::milliseconds deadline)
{
    asio::io_context context;
    tcp::socket socket(context);
    std::string answer;
    bool answered = false;
    socket.async_connect(
        tcp::endpoint(asio::ip::address_v4::loopback(), port), [&](const std::error_code& unreachable) {
            if (unreachable)
            {
                return;
            }
            asio::async_write(socket, asio::buffer(command), [&](const std::error_code& unsent, std::size_t) {
                if (unsent)
                {
                    return;
                }
                asio::async_read(socket, asio::dynamic_buffer(answer),
                                 [&](const std::error_code& end, std::size_t) { answered = end == asio::error::eof; });
            });
        });
    context.run_for(deadline);
    return answered ? std::optional<std::string>(std::move(answer)) : std::nullopt;
}

}  // namespace kx::velmor::testing_support
