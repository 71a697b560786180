#pragma once

#include <pthread.h>

#include <stdexcept>

namespace kx::velmor::testing_support {

/// While it lives, no thread can be made in this process, except those that say themselves how large a stack they want.
class NoThreads
{
public:
    NoThreads()
    {
        Get(before_);
        pthread_attr_t more;
        Get(more);
        // More than there are addresses.
        constexpr std::size_t kTooMuch = std::size_t{1} << 48U;
        Check(pthread_attr_setstacksize(&more, kTooMuch));
        Check(pthread_setattr_default_np(&more));
        pthread_attr_destroy(&more);
    }

    ~NoThreads()
    {
        pthread_setattr_default_np(&before_);
        pthread_attr_destroy(&before_);
    }

    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    static void Get(pthread_attr_t& attributes) { Check(pthread_getattr_default_np(&attributes)); }

    static void Check(int error)
    {
        if (error != 0)
        {
            throw std::runtime_error("thread attributes cannot be set");
        }
    }

    pthread_attr_t before_{};
};

}  // namespace kx::velmor::testing_support
