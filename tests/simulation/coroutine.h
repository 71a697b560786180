#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

/// What the compiler, the C library and the C++ runtime keep per thread: the executable's thread-local variables,
/// `errno`, and the exceptions that are being handled. Variables that belong to shared libraries stay shared.
class ThreadState
{
public:
    /// That of a new thread.
    ThreadState();

    /// Takes the place of the state in force, and stores that in `previous`.
    void Enter(ThreadState& previous) const;

private:
    void Store();
    void Load() const;

    static constexpr std::size_t kExceptionsSize = 16;

    std::vector<char> variables_;
    char exceptions_[kExceptionsSize]{};
    int errno_ = 0;
};

/// A function with a stack of its own, which one thread of the operating system runs piece by piece. An exception that
/// leaves the function ends the process.
///
/// Threads: all coroutines of the process run on one.
class Coroutine
{
public:
    explicit Coroutine(std::function<void()> main);
    /// Not for one that is suspended: what its stack holds would not be destroyed.
    ~Coroutine();
    Coroutine(const Coroutine&) = delete;
    Coroutine& operator=(const Coroutine&) = delete;

    /// The one that runs; null outside of all.
    static Coroutine* Current() noexcept;

    /// Runs it until it suspends or ends. Not for coroutines to call.
    void Resume();

    /// Returns to the caller of `Resume`, until the next `Resume`. For the coroutine that runs.
    void Suspend();

    bool Ended() const noexcept { return ended_; }

    /// Calls `function` with `object` at the end, with the thread-local variables of this coroutine in force. The
    /// latest call's first.
    void AtEnd(void (*function)(void*), void* object);

    /// What runs on a new stack.
    [[noreturn]] static void Enter() noexcept;

private:
    void RunAtEnd();

    std::function<void()> main_;
    std::vector<std::pair<void (*)(void*), void*>> atEnd_{};
    ThreadState state_{};
    ThreadState resumer_{};
    char* stack_;
    void* stackPointer_;
    void* resumerStackPointer_ = nullptr;
    bool ended_ = false;
};

}  // namespace kx::velmor::simulation
