#pragma once

#include <functional>
#include <utility>

namespace kx::velmor {

/// Something that was asked for and lasts until this object is cancelled or destroyed.
///
/// Move-only. May outlive what it was asked of. Threads: one at a time, any, a callback included.
class [[nodiscard]] Registration
{
public:
    /// Nothing.
    Registration() noexcept = default;
    /// `cancel` is called once.
    explicit Registration(std::function<void()> cancel) noexcept : cancel_(std::move(cancel)) {}
    Registration(Registration&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
    /// Cancels what was registered here before.
    Registration& operator=(Registration&& other) noexcept
    {
        if (this != &other)
        {
            Cancel();
            cancel_ = std::exchange(other.cancel_, nullptr);
        }
        return *this;
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { Cancel(); }

    /// Does nothing the second time, and in a forked child for what its parent asked for. Does not block.
    void Cancel()
    {
        if (const auto cancel = std::exchange(cancel_, nullptr))
        {
            cancel();
        }
    }

private:
    std::function<void()> cancel_;
};

}  // namespace kx::velmor
