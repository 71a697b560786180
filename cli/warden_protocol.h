#pragma once

#include "cli/warden.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <optional>
#include <string>

namespace kx::velmor::cli {

// What a warden and its owner say to each other: packets on a pair of sockets, each one JSON value in CBOR, whose texts
// may be any bytes, as arguments may. What is too large for a packet travels in a file in memory.

/// What a warden is to do.
struct Order
{
    enum class What
    {
        Start,
        Signal,
        End,
        Tell,
    };

    What what;
    /// `Start`.
    Launch launch{};
    /// `Signal`.
    int signal = 0;
    bool wholeGroup = false;
    /// `End`.
    std::chrono::milliseconds grace{};
    /// `Tell`.
    std::string line{};
};

void to_json(nlohmann::json& json, const Order& order);
void from_json(const nlohmann::json& json, Order& order);
void to_json(nlohmann::json& json, const WardenReport& report);
void from_json(const nlohmann::json& json, WardenReport& report);

/// Throws `std::system_error`: EPIPE or ECONNRESET when the other side has ended, EAGAIN when it does not take
/// anything. Does not block.
void SendMessage(int socket, const nlohmann::json& message);

/// Says nothing, so that the other side wakes up: `Received::message` is null. Nothing happens when it cannot be sent.
void SendNudge(int socket) noexcept;

struct Received
{
    /// The other side has ended.
    bool closed = false;
    /// Empty when nothing has arrived yet.
    std::optional<nlohmann::json> message{};
};

/// Does not block. Throws `std::system_error`.
Received ReceiveMessage(int socket);

}  // namespace kx::velmor::cli
