#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kx::velmor::cli {

/// What can be asked for over HTTP. Called on threads of the endpoint's own, several at once.
struct HttpAnswers
{
    std::function<bool()> leads;
    std::function<bool()> isNext;
    std::function<std::string()> statusJson;
    std::function<std::string()> metrics;
};

/// Answers GET /leader and /next with 200 or 503, /status with JSON, and /metrics in the text format of Prometheus.
///
/// Threads: one at a time; some of its own.
class HttpEndpoint
{
public:
    /// Serves from now on. `where` is "[address:]port"; without an address on 127.0.0.1, at port 0 wherever there is
    /// room, which a log line tells. Throws `Failure` when that is no such thing or is taken.
    HttpEndpoint(const std::string& where, HttpAnswers answers);
    /// Waits for answers that are under way.
    ~HttpEndpoint();

    HttpEndpoint(const HttpEndpoint&) = delete;
    HttpEndpoint& operator=(const HttpEndpoint&) = delete;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::cli
