#include "cli/run_figures.h"

#include <nlohmann/json.hpp>
#include <prometheus/text_serializer.h>

#include <cinttypes>
#include <cstdio>

namespace kx::velmor::cli {

namespace {

constexpr std::array kRoles{Role::Stopped, Role::Joining, Role::Follower, Role::NextLeader, Role::Leader};
constexpr std::array kStates{SessionState::Connecting, SessionState::Connected, SessionState::Suspended,
                             SessionState::Expired, SessionState::Closed};
constexpr std::array kReasons{LossReason::Left,        LossReason::SessionExpired, LossReason::NodeDeleted,
                              LossReason::LeaseRanOut, LossReason::Displaced,      LossReason::CallbackFailed};

/// From a tenth of a millisecond, which is a server on the same machine, to the order of session timeouts.
const prometheus::Histogram::BucketBoundaries kCheckSeconds{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                            0.05,   0.1,     0.25,   0.5,   1,      2.5,   5};

double Seconds(std::chrono::steady_clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// One metric for each value that something can have.
template <typename Value, typename Family, std::size_t N>
std::array<Value*, N> OneEach(Family& family, const std::string& label, const std::array<const char*, N>& texts)
{
    std::array<Value*, N> metrics{};
    for (std::size_t i = 0; i < N; ++i)
    {
        metrics[i] = &family.Add({{label, texts[i]}});
    }
    return metrics;
}

template <typename Enum, std::size_t N>
std::array<const char*, N> Texts(const std::array<Enum, N>& values)
{
    std::array<const char*, N> texts{};
    for (std::size_t i = 0; i < N; ++i)
    {
        texts[i] = ToString(values[i]);
    }
    return texts;
}

/// 1 for the one that is, 0 for the others.
template <typename Enum, std::size_t N>
void Show(const std::array<prometheus::Gauge*, N>& gauges, const std::array<Enum, N>& values, Enum current)
{
    for (std::size_t i = 0; i < N; ++i)
    {
        gauges[i]->Set(values[i] == current ? 1 : 0);
    }
}

std::string Hexadecimal(std::int64_t session)
{
    std::array<char, 19> text{};
    std::snprintf(text.data(), text.size(), "0x%" PRIx64, static_cast<std::uint64_t>(session));
    return text.data();
}

}  // namespace

RunFigures::RunFigures()
    : roles_(OneEach<prometheus::Gauge>(prometheus::BuildGauge()
                                            .Name("velmor_role")
                                            .Help("1 for the role that this participant has, 0 for the others.")
                                            .Register(registry_),
                                        "role", Texts(kRoles))),
      sessionStates_(OneEach<prometheus::Gauge>(prometheus::BuildGauge()
                                                    .Name("velmor_session_state")
                                                    .Help("1 for the state that the session is in, 0 for the others.")
                                                    .Register(registry_),
                                                "state", Texts(kStates))),
      losses_(OneEach<prometheus::Counter>(prometheus::BuildCounter()
                                               .Name("velmor_losses_total")
                                               .Help("Leaderships of this participant that are over, by reason.")
                                               .Register(registry_),
                                           "reason", Texts(kReasons))),
      handovers_(prometheus::BuildCounter()
                     .Name("velmor_handovers_total")
                     .Help("Leaderships that this participant has taken over.")
                     .Register(registry_)
                     .Add({})),
      commands_(prometheus::BuildCounter()
                    .Name("velmor_commands_started_total")
                    .Help("How often the command was started.")
                    .Register(registry_)
                    .Add({})),
      epoch_(prometheus::BuildGauge()
                 .Name("velmor_epoch")
                 .Help("The fencing token of the leadership of this participant; 0 while it does not lead.")
                 .Register(registry_)
                 .Add({})),
      leaseLeft_(prometheus::BuildGauge()
                     .Name("velmor_lease_left_seconds")
                     .Help("How much longer this participant leads if no server is heard from again.")
                     .Register(registry_)
                     .Add({})),
      queueLengths_(prometheus::BuildGauge()
                        .Name("velmor_queue_length")
                        .Help("How many take part in the election, this participant included, when last known.")
                        .Register(registry_)),
      checks_(prometheus::BuildHistogram()
                  .Name("velmor_check_seconds")
                  .Help("How long the servers took to list the queue, which each check of one's place begins with.")
                  .Register(registry_)
                  .Add({}, kCheckSeconds))
{}

void RunFigures::OnGain()
{
    handovers_.Increment();
}

void RunFigures::OnLoss(LossReason reason)
{
    for (std::size_t i = 0; i < kReasons.size(); ++i)
    {
        if (kReasons[i] == reason)
        {
            losses_[i]->Increment();
        }
    }
}

void RunFigures::OnCommandStarted()
{
    commands_.Increment();
}

void RunFigures::OnCheck(std::chrono::steady_clock::duration duration)
{
    checks_.Observe(Seconds(duration));
}

std::string RunFigures::Json(const Standing& standing) const
{
    nlohmann::json losses = nlohmann::json::object();
    for (std::size_t i = 0; i < kReasons.size(); ++i)
    {
        losses[ToString(kReasons[i])] = static_cast<std::int64_t>(losses_[i]->Value());
    }
    nlohmann::json object{
        {"election", standing.election},
        {"identity", standing.identity},
        {"role", ToString(standing.role)},
        {"node", nullptr},
        {"epoch", nullptr},
        {"lease_left_ms", standing.leaseLeft.count()},
        {"session",
         {{"state", ToString(standing.session.state)},
          {"id", Hexadecimal(standing.session.sessionId)},
          {"timeout_ms", standing.session.negotiatedTimeout.count()}}},
        {"queue_length", nullptr},
        {"command_pid", nullptr},
        {"handovers", static_cast<std::int64_t>(handovers_.Value())},
        {"losses", std::move(losses)},
    };
    if (!standing.node.empty())
    {
        object["node"] = standing.node;
    }
    if (standing.epoch)
    {
        object["epoch"] = *standing.epoch;
    }
    if (standing.queueLength)
    {
        object["queue_length"] = *standing.queueLength;
    }
    if (standing.command)
    {
        object["command_pid"] = *standing.command;
    }
    constexpr int kCompact = -1;
    // Identities are what people have typed.
    return object.dump(kCompact, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string RunFigures::Metrics(const Standing& standing)
{
    Show(roles_, kRoles, standing.role);
    Show(sessionStates_, kStates, standing.session.state);
    epoch_.Set(static_cast<double>(standing.epoch.value_or(0)));
    leaseLeft_.Set(Seconds(standing.leaseLeft));
    if (standing.queueLength)
    {
        queueLengths_.Add({}).Set(static_cast<double>(*standing.queueLength));
    }
    return prometheus::TextSerializer().Serialize(registry_.Collect());
}

}  // namespace kx::velmor::cli
