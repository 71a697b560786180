#pragma once

#include "tests/simulation/stream.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace kx::velmor::simulation {

/// A connection between two ends, each of which keeps a pointer to it until it has closed its side or has read that
/// the other end did. The upper end is a server, the lower one a client or a follower.
///
/// That an end closes arrives behind all that it sent before, as a message of kind `Closed`, which is what `Up{}` and
/// `Down{}` are.
template <typename Up, typename Down>
class Duplex : public std::enable_shared_from_this<Duplex<Up, Down>>
{
public:
    class Upper
    {
    public:
        virtual bool Reads() const = 0;
        virtual void OnUp(Duplex& connection, Up message) = 0;

    protected:
        ~Upper() = default;
    };

    class Lower
    {
    public:
        virtual bool Reads() const = 0;
        virtual void OnDown(Duplex& connection, Down message) = 0;

    protected:
        ~Lower() = default;
    };

    /// With a `process`, the lower end is a client in that process.
    Duplex(VirtualMachine& machine, std::uint64_t number, std::size_t server, Upper& upper, std::size_t other,
           Lower& lower, std::optional<ProcessId> process = std::nullopt)
        : number_(number),
          server_(server),
          other_(other),
          upper_(*this, upper),
          lower_(*this, lower),
          up_(machine, upper_),
          down_(machine, lower_, process)
    {}

    std::uint64_t Number() const { return number_; }
    /// Whose end the upper one is.
    std::size_t Server() const { return server_; }
    /// Whose end the lower one is: a process or a server.
    std::size_t Other() const { return other_; }

    void SendUp(Up message)
    {
        if (upperOpen_)
        {
            up_.Send(std::move(message), upDelay_);
        }
    }

    void SendDown(Down message)
    {
        if (lowerOpen_)
        {
            down_.Send(std::move(message), downDelay_);
        }
    }

    /// The end reads nothing any more. What it sent still arrives.
    void CloseUpper()
    {
        upperOpen_ = false;
        up_.Lose();
        SendDown(Down{});
    }

    void CloseLower()
    {
        lowerOpen_ = false;
        down_.Lose();
        SendUp(Up{});
    }

    bool Open() const { return upperOpen_ && lowerOpen_; }

    /// Both ends are told, also when the network holds everything else. What it held is lost, and what is under way
    /// where the caller asks for it.
    void Break(bool loseUp, bool loseDown)
    {
        if (loseUp || up_.Held())
        {
            up_.Lose();
        }
        if (loseDown || down_.Held())
        {
            down_.Lose();
        }
        up_.Hold(false);
        down_.Hold(false);
        SendUp(Up{});
        SendDown(Down{});
    }

    void Hold(bool up, bool down)
    {
        up_.Hold(up);
        down_.Hold(down);
    }

    void SetDelays(Time up, Time down)
    {
        upDelay_ = up;
        downDelay_ = down;
    }

    /// The ends read again, or one of them.
    void Resume()
    {
        up_.Resume();
        down_.Resume();
    }

private:
    class UpperReader final : public Stream<Up>::Reader
    {
    public:
        UpperReader(Duplex& self, Upper& upper) : self_(self), upper_(upper) {}
        bool Reads() const override { return upper_.Reads(); }
        void OnMessage(Up message) override
        {
            const auto keep = self_.shared_from_this();
            upper_.OnUp(self_, std::move(message));
        }

    private:
        Duplex& self_;
        Upper& upper_;
    };

    class LowerReader final : public Stream<Down>::Reader
    {
    public:
        LowerReader(Duplex& self, Lower& lower) : self_(self), lower_(lower) {}
        bool Reads() const override { return lower_.Reads(); }
        void OnMessage(Down message) override
        {
            const auto keep = self_.shared_from_this();
            lower_.OnDown(self_, std::move(message));
        }

    private:
        Duplex& self_;
        Lower& lower_;
    };

    const std::uint64_t number_;
    const std::size_t server_;
    const std::size_t other_;
    UpperReader upper_;
    LowerReader lower_;
    Stream<Up> up_;
    Stream<Down> down_;
    bool upperOpen_ = true;
    bool lowerOpen_ = true;
    Time upDelay_{0};
    Time downDelay_{0};
};

}  // namespace kx::velmor::simulation
