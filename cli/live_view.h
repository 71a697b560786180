#pragma once

#include <kx/velmor/observer.h>

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace kx::velmor::cli {

struct ScreenSize
{
    std::size_t rows;
    std::size_t columns;
};

/// What a terminal is sent so that it shows the election and nothing else, each line cut to its width, and of a queue
/// that is longer than the screen the beginning. Ages are those at `now`.
std::string Frame(const std::string& election, const ElectionView& view, ScreenSize size,
                  std::chrono::system_clock::time_point now);

/// The terminal at standard output for as long as it shows something of its own: on its second screen, without a
/// cursor, and with what is typed neither shown nor read. Its destructor puts everything back.
///
/// Threads: one at a time.
class LiveScreen
{
public:
    /// Throws `Failure` when standard output is no terminal.
    LiveScreen();
    ~LiveScreen();
    LiveScreen(const LiveScreen&) = delete;
    LiveScreen& operator=(const LiveScreen&) = delete;

    /// As it is now.
    ScreenSize Size() const;

    /// Puts everything back, and takes it again: around a stop.
    void Leave();
    void Enter();

private:
    /// How input is dealt with while nothing is shown, if it is this terminal's and ours to change.
    std::optional<termios> input_;
    bool entered_ = false;
};

}  // namespace kx::velmor::cli
