#include "source/exit_gate.h"

#include "source/sync.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace kx::velmor {

namespace {

constexpr std::chrono::seconds kPatience{1};

class Gate;
thread_local const Gate* t_inside = nullptr;

class Gate
{
public:
    bool Enter()
    {
        const MutexLock lock(mutex_);
        if (closed_)
        {
            return false;
        }
        ++inside_;
        t_inside = this;
        return true;
    }

    void Leave()
    {
        const MutexLock lock(mutex_);
        --inside_;
        t_inside = nullptr;
        left_.NotifyAll();
    }

    void Close()
    {
        const Clock::time_point deadline = Clock::now() + kPatience;
        const MutexLock lock(mutex_);
        closed_ = true;
        const int ourselves = t_inside == this ? 1 : 0;
        while (inside_ > ourselves && left_.WaitUntil(mutex_, deadline))
        {}
    }

private:
    Mutex mutex_;
    CondVar left_;
    bool closed_ KX_GUARDED_BY(mutex_) = false;
    int inside_ KX_GUARDED_BY(mutex_) = 0;
};

/// Never destroyed: threads come by until the process is gone.
Gate& TheGate()
{
    return OfThisProcess<Gate>();
}

struct Closer
{
    Closer() = default;
    ~Closer() { TheGate().Close(); }
    Closer(const Closer&) = delete;
    Closer& operator=(const Closer&) = delete;
};

}  // namespace

void ExitGate::Guard()
{
    static const Closer closer;
}

ExitGate::Pass::Pass() : granted_(TheGate().Enter()) {}

ExitGate::Pass::~Pass()
{
    if (mark_.Inherited())
    {
        ::_exit(EXIT_FAILURE);
    }
    if (granted_)
    {
        TheGate().Leave();
    }
}

}  // namespace kx::velmor
