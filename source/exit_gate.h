#pragma once

#include "source/fork_mark.h"

namespace kx::velmor {

/// Keeps callbacks from running into the end of their process: once static objects are destroyed, what a callback
/// refers to may be gone, while sessions that nobody closed still have events to tell.
///
/// Threads: any.
class ExitGate
{
public:
    /// From the first call on the gate closes before the static objects that exist by now are destroyed. Closing waits,
    /// for a second at most, for those who are inside, except the thread that ends the process.
    static void Guard();

    /// A way through the gate for as long as it lives. One at a time on each thread.
    class Pass
    {
    public:
        Pass();
        /// In a child that was forked meanwhile: ends the child, with `EXIT_FAILURE` and without a trace. The child has
        /// returned from a callback that forked, and its only thread is the copy of one of the library's, which would
        /// run the parent's next callbacks.
        ~Pass();
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

        /// False once the gate is closed.
        explicit operator bool() const { return granted_; }

    private:
        const ForkMark mark_;
        const bool granted_;
    };
};

}  // namespace kx::velmor
