#pragma once

#include <kx/velmor/observer.h>

#include <chrono>
#include <mutex>
#include <vector>

namespace kx::velmor::cli {

/// Views on their way from an observer's thread to one that waits for descriptors.
///
/// Threads: any.
class ViewQueue
{
public:
    struct Entry
    {
        /// When it was told.
        std::chrono::system_clock::time_point time;
        ElectionView view;
    };

    ViewQueue();
    ~ViewQueue();
    ViewQueue(const ViewQueue&) = delete;
    ViewQueue& operator=(const ViewQueue&) = delete;

    /// Of very many that nobody takes, the newest takes the place of the one before. Does not block.
    void Push(const ElectionView& view);
    std::vector<Entry> Take();

    /// Readable while there is something to take.
    int Descriptor() const noexcept { return descriptor_; }

private:
    const int descriptor_;
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

}  // namespace kx::velmor::cli
