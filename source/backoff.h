#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace kx::velmor {

/// Delays that double from `first` to `most`, each shortened at random by up to half, so that many who lost the same
/// server do not come back as one. Not synchronised.
class Backoff
{
public:
    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds most)
        : first_(first), most_(most), next_(first), random_(std::random_device{}())
    {}

    std::chrono::milliseconds Next()
    {
        const std::chrono::milliseconds ceiling = next_;
        next_ = std::min(next_ * 2, most_);
        std::uniform_int_distribution<std::chrono::milliseconds::rep> spread(ceiling.count() / 2, ceiling.count());
        return std::chrono::milliseconds(spread(random_));
    }

    /// Begins again with the first.
    void Reset() { next_ = first_; }

private:
    const std::chrono::milliseconds first_;
    const std::chrono::milliseconds most_;
    std::chrono::milliseconds next_;
    std::minstd_rand random_;
};

}  // namespace kx::velmor
