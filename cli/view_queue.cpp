#include "cli/view_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

namespace kx::velmor::cli {

namespace {

constexpr std::size_t kMostEntries = 100;

}  // namespace

ViewQueue::ViewQueue() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (descriptor_ < 0)
    {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

ViewQueue::~ViewQueue()
{
    close(descriptor_);
}

void ViewQueue::Push(const ElectionView& view)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.size() >= kMostEntries)
    {
        entries_.pop_back();
    }
    entries_.push_back({std::chrono::system_clock::now(), view});
    eventfd_write(descriptor_, 1);
}

std::vector<ViewQueue::Entry> ViewQueue::Take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    eventfd_t ignored = 0;
    eventfd_read(descriptor_, &ignored);
    return std::exchange(entries_, {});
}

}  // namespace kx::velmor::cli
