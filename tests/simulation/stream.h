#pragma once

#include "tests/simulation/virtual_machine.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

namespace kx::velmor::simulation {

/// How long a message takes: 0.1 to 1 ms, and one in a hundred up to 30 ms.
Time RandomLatency(VirtualMachine& machine);

/// One direction of a connection: carries messages in order, each after a random latency.
///
/// While the network holds it, or its reader does not read, messages wait, as in the buffers of a TCP connection.
template <typename Message>
class Stream
{
public:
    class Reader
    {
    public:
        /// A frozen server does not read.
        virtual bool Reads() const = 0;
        /// The stream may be destroyed in here.
        virtual void OnMessage(Message message) = 0;

    protected:
        ~Reader() = default;
    };

    /// With a `process`, that process is the reader: while it is paused, messages wait.
    Stream(VirtualMachine& machine, Reader& reader, std::optional<ProcessId> process = std::nullopt)
        : machine_(machine), reader_(reader), process_(process)
    {}

    ~Stream() { Unschedule(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void Send(Message message, Time delay = Time::zero())
    {
        lastArrival_ = std::max(lastArrival_, machine_.Now() + RandomLatency(machine_) + delay);
        waiting_.emplace_back(lastArrival_, std::move(message));
        Schedule();
    }

    /// The network carries nothing until it is told otherwise.
    void Hold(bool held)
    {
        held_ = held;
        Schedule();
    }

    bool Held() const { return held_; }

    /// The reader reads again.
    void Resume() { Schedule(); }

    /// What is under way is lost.
    void Lose()
    {
        Unschedule();
        waiting_.clear();
        lastArrival_ = machine_.Now();
    }

private:
    bool Passes() const { return !held_ && reader_.Reads(); }

    void Schedule()
    {
        if (scheduled_ || waiting_.empty() || !Passes())
        {
            return;
        }
        // What waited for the network or the reader does not arrive in the same instant.
        const Time now = machine_.Now();
        const Time when = waiting_.front().first > now ? waiting_.front().first : now + RandomLatency(machine_) / 10;
        lastArrival_ = std::max(lastArrival_, when);
        event_ =
            process_ ? machine_.At(*process_, when, [this] { Deliver(); }) : machine_.At(when, [this] { Deliver(); });
        scheduled_ = true;
    }

    void Unschedule()
    {
        if (scheduled_)
        {
            machine_.Cancel(event_);
            scheduled_ = false;
        }
    }

    void Deliver()
    {
        scheduled_ = false;
        if (waiting_.empty() || !Passes())
        {
            return;
        }
        Message message = std::move(waiting_.front().second);
        waiting_.pop_front();
        Schedule();
        reader_.OnMessage(std::move(message));
    }

    VirtualMachine& machine_;
    Reader& reader_;
    const std::optional<ProcessId> process_;
    std::deque<std::pair<Time, Message>> waiting_;
    Time lastArrival_{0};
    bool held_ = false;
    bool scheduled_ = false;
    EventId event_ = 0;
};

}  // namespace kx::velmor::simulation
