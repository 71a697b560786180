#pragma once

#include "thread_annotations.h"

#include <mutex>

namespace kx::logging::details {

/// A mutex that clang can check: the standard one carries no annotations in libstdc++. By the standard's own names, so
/// that `std::condition_variable_any` waits with it.
class KX_CAPABILITY("mutex") AnnotatedMutex
{
public:
    void lock() KX_ACQUIRE() { mutex_.lock(); }
    void unlock() KX_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class KX_SCOPED_CAPABILITY AnnotatedLock
{
public:
    explicit AnnotatedLock(AnnotatedMutex& mutex) KX_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~AnnotatedLock() KX_RELEASE() { mutex_.unlock(); }

    AnnotatedLock(const AnnotatedLock&) = delete;
    AnnotatedLock& operator=(const AnnotatedLock&) = delete;

private:
    AnnotatedMutex& mutex_;
};

}  // namespace kx::logging::details
