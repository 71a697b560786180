#include "tests/support/proxy.h"

#include "tests/support/network.h"
#include "tests/support/proxy_link.h"

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/packaged_task.hpp>
#include <asio/post.hpp>

#include <cstdint>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

using asio::ip::tcp;

tcp::endpoint ParseTarget(const std::string& target)
{
    const std::size_t colon = target.rfind(':');
    if (colon == std::string::npos)
    {
        throw std::runtime_error("no port in " + target);
    }
    return tcp::endpoint(asio::ip::make_address(target.substr(0, colon)),
                         static_cast<std::uint16_t>(std::stoul(target.substr(colon + 1))));
}

}  // namespace

class Proxy::Impl
{
public:
    explicit Impl(const std::string& target) : target_(ParseTarget(target)), acceptor_(Listen(context_))
    {
        port_ = acceptor_.local_endpoint().port();
        AcceptNext();
        thread_ = std::thread([this] { context_.run(); });
    }

    ~Impl()
    {
        context_.stop();
        thread_.join();
        // No socket may outlive the context. What queued handlers hold goes with it.
        CutAll();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t Port() const { return port_; }

    /// Runs `task` on the proxy's thread and waits for it.
    template <typename Task>
    std::invoke_result_t<Task> Do(Task task)
    {
        return asio::post(context_, std::packaged_task<std::invoke_result_t<Task>()>(std::move(task))).get();
    }

    void CutAll()
    {
        const Link::Links links = links_;
        for (const std::shared_ptr<Link>& link : links)
        {
            link->Close();
        }
    }

    void ResumeAll()
    {
        const Link::Links links = links_;
        for (const std::shared_ptr<Link>& link : links)
        {
            link->Resume();
        }
    }

    std::size_t LinkCount() const { return links_.size(); }

    /// The proxy's thread's.
    Weather weather_;

private:
    static tcp::acceptor Listen(asio::io_context& context)
    {
        for (int attempt = 0;; ++attempt)
        {
            tcp::acceptor acceptor(context, tcp::v4());
            CloseOnExec(acceptor.native_handle());
            acceptor.set_option(tcp::acceptor::reuse_address(true));
            std::error_code error;
            acceptor.bind(tcp::endpoint(asio::ip::address_v4::loopback(), ChooseFreePort()), error);
            if (!error)
            {
                acceptor.listen(tcp::acceptor::max_listen_connections, error);
            }
            if (!error)
            {
                return acceptor;
            }
            if (attempt == 100)
            {
                throw std::system_error(error, "cannot listen");
            }
        }
    }

    void AcceptNext()
    {
        acceptor_.async_accept([this](const std::error_code& error, tcp::socket client) {
            if (error == asio::error::operation_aborted)
            {
                return;
            }
            if (!error && weather_.refusing)
            {
                ++weather_.refused;
                client.close();
            }
            else if (!error)
            {
                ++weather_.accepted;
                const auto link = std::make_shared<Link>(std::move(client), weather_, links_);
                links_.insert(link);
                link->Start(target_);
            }
            AcceptNext();
        });
    }

    const tcp::endpoint target_;
    Link::Links links_;
    asio::io_context context_{1};
    tcp::acceptor acceptor_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

Proxy::Proxy(const std::string& target) : impl_(std::make_unique<Impl>(target)) {}

Proxy::~Proxy() = default;

std::string Proxy::Address() const
{
    return LoopbackAddress(impl_->Port());
}

void Proxy::Cut()
{
    impl_->Do([this] { impl_->CutAll(); });
}

void Proxy::Refuse()
{
    impl_->Do([this] { impl_->weather_.refusing = true; });
}

void Proxy::Accept()
{
    impl_->Do([this] { impl_->weather_.refusing = false; });
}

void Proxy::BlackHole(Direction direction)
{
    impl_->Do([this, direction] {
        impl_->weather_.silentToServer |= direction != Direction::ToClient;
        impl_->weather_.silentToClient |= direction != Direction::ToServer;
    });
}

void Proxy::Heal()
{
    impl_->Do([this] {
        impl_->weather_.silentToServer = false;
        impl_->weather_.silentToClient = false;
        impl_->ResumeAll();
    });
}

void Proxy::Delay(std::chrono::milliseconds delay)
{
    impl_->Do([this, delay] { impl_->weather_.delay = delay; });
}

void Proxy::DropReply(Request type)
{
    impl_->Do([this, type] { impl_->weather_.faults.emplace_back(Fault::DropReply, type); });
}

void Proxy::DropRequest(Request type)
{
    impl_->Do([this, type] { impl_->weather_.faults.emplace_back(Fault::DropRequest, type); });
}

void Proxy::CutAfterRequest(Request type)
{
    impl_->Do([this, type] { impl_->weather_.faults.emplace_back(Fault::CutAfterRequest, type); });
}

void Proxy::Spare(Request type, std::size_t count)
{
    impl_->Do([this, type, count] { impl_->weather_.spared[type] = count; });
}

std::size_t Proxy::FaultsPending() const
{
    return impl_->Do([this] { return impl_->weather_.faults.size(); });
}

std::size_t Proxy::Connections() const
{
    return impl_->Do([this] { return impl_->LinkCount(); });
}

std::size_t Proxy::Accepted() const
{
    return impl_->Do([this] { return impl_->weather_.accepted; });
}

std::size_t Proxy::Refused() const
{
    return impl_->Do([this] { return impl_->weather_.refused; });
}

std::size_t Proxy::Forwarded(Request type) const
{
    return impl_->Do([this, type] {
        const auto found = impl_->weather_.forwarded.find(type);
        return found == impl_->weather_.forwarded.end() ? std::size_t{0} : found->second;
    });
}

}  // namespace kx::velmor::testing_support
