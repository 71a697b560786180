#pragma once

#include "logging/thread_annotations.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

// Locks that clang's thread-safety analysis understands; standard mutexes carry no annotations in libstdc++.

namespace kx::velmor {

using Clock = std::chrono::steady_clock;

class KX_CAPABILITY("mutex") Mutex
{
public:
    void Lock() KX_ACQUIRE() { mutex_.lock(); }
    void Unlock() KX_RELEASE() { mutex_.unlock(); }

private:
    friend class CondVar;
    std::mutex mutex_;
};

class KX_SCOPED_CAPABILITY MutexLock
{
public:
    explicit MutexLock(Mutex& mutex) KX_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~MutexLock() KX_RELEASE() { mutex_.Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

class KX_CAPABILITY("shared_mutex") SharedMutex
{
public:
    void Lock() KX_ACQUIRE() { mutex_.lock(); }
    void Unlock() KX_RELEASE() { mutex_.unlock(); }
    void LockShared() KX_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void UnlockShared() KX_RELEASE_SHARED() { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

class KX_SCOPED_CAPABILITY ExclusiveLock
{
public:
    explicit ExclusiveLock(SharedMutex& mutex) KX_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~ExclusiveLock() KX_RELEASE() { mutex_.Unlock(); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    SharedMutex& mutex_;
};

class KX_SCOPED_CAPABILITY SharedLock
{
public:
    explicit SharedLock(SharedMutex& mutex) KX_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.LockShared(); }
    ~SharedLock() KX_RELEASE() { mutex_.UnlockShared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    SharedMutex& mutex_;
};

/// Waits may wake without reason: callers test their condition in a loop.
class CondVar
{
public:
    void NotifyAll() { condition_.notify_all(); }

    void Wait(Mutex& mutex) KX_REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        condition_.wait(lock);
        lock.release();
    }

    /// False when `deadline` has passed.
    bool WaitUntil(Mutex& mutex, Clock::time_point deadline) KX_REQUIRES(mutex)
    {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        const bool inTime = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return inTime;
    }

private:
    std::condition_variable condition_;
};

}  // namespace kx::velmor
