#include "source/disarming.h"

#include <kx/velmor/connection.h>

namespace kx::velmor {

namespace {

thread_local int t_disarming = 0;

}  // namespace

bool DisarmsOnThisThread() noexcept
{
    return t_disarming > 0;
}

Connection::WatchHandle::WatchHandle(std::shared_ptr<WatchState> state) noexcept : state_(std::move(state)) {}

Connection::WatchHandle::~WatchHandle()
{
    if (!state_)
    {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(state_->mutex);
        state_->active = false;
        if (state_->hasCallback)
        {
            ++t_disarming;
            // What the callback captured goes before the mutex is released, so that nobody who takes the mutex
            // afterwards can meet a half-destroyed callback.
            state_->callback = nullptr;
            --t_disarming;
        }
    }
    state_.reset();
}

}  // namespace kx::velmor
