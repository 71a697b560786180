#include "cli/http_endpoint.h"

#include "cli/exit_status.h"
#include "cli/settings.h"

#include <kx/logging/logger.h>

#include <httplib.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <thread>
#include <utility>

namespace kx::velmor::cli {

namespace {

using kx::logging::LogLevel;

const auto g_log = std::make_shared<const kx::logging::Source>("velmor.http");

struct Address
{
    std::string host = "127.0.0.1";
    int port = 0;
};

[[noreturn]] void Refuse(const std::string& where)
{
    throw Failure(kUsage, "--http: \"" + where + "\" is neither a port nor address:port, as in 8080, 0.0.0.0:8080 or " +
                              "[::1]:8080");
}

Address Parse(const std::string& where)
{
    Address address;
    const std::size_t colon = where.rfind(':');
    const std::string port = colon == std::string::npos ? where : where.substr(colon + 1);
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), address.port);
    constexpr int kMostPort = 65'535;
    if (port.empty() || error != std::errc() || end != port.data() + port.size() || address.port < 0 ||
        address.port > kMostPort)
    {
        Refuse(where);
    }
    if (colon != std::string::npos)
    {
        address.host = where.substr(0, colon);
        const bool bracketed = address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']';
        if (bracketed)
        {
            address.host = address.host.substr(1, address.host.size() - 2);
        }
        else if (address.host.empty() || address.host.find(':') != std::string::npos)
        {
            Refuse(where);
        }
    }
    return address;
}

void AnswerYesOrNo(httplib::Response& response, bool yes)
{
    constexpr int kYes = 200;
    constexpr int kNo = 503;
    response.status = yes ? kYes : kNo;
    response.set_content(yes ? "yes\n" : "no\n", "text/plain");
}

}  // namespace

class HttpEndpoint::Impl
{
public:
    Impl(const std::string& where, HttpAnswers answers) : answers_(std::move(answers))
    {
        const Address address = Parse(where);
        // Those who wait for a server that hangs must not keep others from their answers.
        constexpr std::size_t kThreads = 8;
        constexpr std::chrono::seconds kPatience{1};
        server_.set_read_timeout(kPatience);
        server_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        // Two on one port would take turns in answering: the second is to be refused.
        server_.set_socket_options([](int socket) {
            const int on = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        });
        // Otherwise a client that keeps its connection open keeps a thread.
        constexpr std::size_t kOneRequestPerConnection = 1;
        server_.set_keep_alive_max_count(kOneRequestPerConnection);

        server_.Get("/leader", [this](const httplib::Request& /*request*/, httplib::Response& response) {
            AnswerYesOrNo(response, answers_.leads());
        });
        server_.Get("/next", [this](const httplib::Request& /*request*/, httplib::Response& response) {
            AnswerYesOrNo(response, answers_.isNext());
        });
        server_.Get("/status", [this](const httplib::Request& /*request*/, httplib::Response& response) {
            response.set_content(answers_.statusJson(), "application/json");
        });
        server_.Get("/metrics", [this](const httplib::Request& /*request*/, httplib::Response& response) {
            response.set_content(answers_.metrics(), "text/plain; version=0.0.4");
        });

        const int port = address.port == 0 ? server_.bind_to_any_port(address.host)
                                           : (server_.bind_to_port(address.host, address.port) ? address.port : -1);
        if (port < 0)
        {
            throw Failure(kUsage, "--http: cannot listen on " + where +
                                      ": choose an address of this machine and a port that is free and permitted");
        }
        const bool six = address.host.find(':') != std::string::npos;
        KX_LOG(LogLevel::Info, g_log) << "Serving HTTP on " << (six ? "[" : "") << address.host << (six ? "]" : "")
                                      << ":" << port;
        thread_ = std::thread([this] {
            server_.listen_after_bind();
            over_ = true;
        });
    }

    ~Impl()
    {
        // One that has not begun to listen would not hear that it is to stop.
        while (!server_.is_running() && !over_)
        {
            std::this_thread::yield();
        }
        server_.stop();
        thread_.join();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

private:
    const HttpAnswers answers_;
    httplib::Server server_;
    std::atomic<bool> over_{false};
    std::thread thread_;
};

HttpEndpoint::HttpEndpoint(const std::string& where, HttpAnswers answers)
    : impl_(std::make_unique<Impl>(where, std::move(answers)))
{}

HttpEndpoint::~HttpEndpoint() = default;

}  // namespace kx::velmor::cli
