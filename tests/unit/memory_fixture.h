#pragma once

#include "tests/support/journal.h"
#include "tests/support/log_capture.h"

#include <kx/velmor/testing/memory_service.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor {

using testing::MemoryService;
using testing::MemorySession;
using testing::MemorySessionOptions;
using namespace std::chrono_literals;

/// A service in memory. What callbacks are told is in `journal`.
class MemoryTest : public ::testing::Test
{
protected:
    static constexpr std::chrono::milliseconds kTimeout{6'000};

    MemoryTest();

    /// Creates a node; the created path when that worked.
    static std::pair<int, std::string> Create(const ElectionSession& session, const std::string& path, int flags = 0,
                                              const std::string& data = {});

    /// Watches a node, and notes "label: deleted /a" or "label: expired".
    std::pair<int, Connection::WatchHandle> Watch(const ElectionSession& session, const std::string& path,
                                                  const std::string& label = "watch");
    /// As above, for a watch that can be armed.
    Connection::WatchHandle Watching(const ElectionSession& session, const std::string& path,
                                     const std::string& label = "watch");
    /// Notes each state of the session.
    Registration Listen(ElectionSession& session, const std::string& label = "state");

    /// Notes "heard 0x100 until 5000": the end of the session's lease, as `At` has it.
    Registration Hear(ElectionSession& session);
    /// Milliseconds since the test began.
    std::string At(BootClock::time_point time) const;
    std::string At() const { return At(service.Now()); }

    /// What callbacks were told since the last time, when all is quiet.
    std::vector<std::string> Told();

    testing_support::Journal journal;
    testing_support::LogCapture log;
    MemoryService service;
    const BootClock::time_point began = service.Now();
    const std::shared_ptr<MemorySession> session;
    const std::shared_ptr<MemorySession> other;
};

/// What is known of a node; nothing when it does not exist.
std::optional<Stat> StatOfNode(const ElectionSession& session, const std::string& path);

}  // namespace kx::velmor
