#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>

namespace kx::velmor {

/// Tells whether the object that holds it was made in this process, or in one from which this process was forked.
///
/// The child of `fork` has copies of all objects and none of the threads that they rely on: leases that no thread
/// extends or ends, locks that no thread releases, and the socket of a connection that the parent goes on using.
/// Objects compare their mark before they touch any of that.
///
/// The number of the present process is in a page of memory that the kernel hands to a child as zeros
/// (`MADV_WIPEONFORK`). Hence a raw `clone` or `fork` system call is noticed, too, and so is a fork in the fork
/// handlers of others. Where the kernel refuses that, a `pthread_atfork` handler clears the number, and only calls of
/// `fork` are noticed, after the handlers that were registered before. A child that shares the parent's memory
/// (`vfork`, `CLONE_VM`) is not told from its parent.
///
/// Copies of a mark are marks of the same process. Threads: any.
class ForkMark
{
public:
    /// Throws `std::system_error` when there is neither a page nor a handler to be had.
    ForkMark() : ForkMark(PresentProcess()) {}

    /// Whether this is a process forked from the one in which the mark was made, however many forks ago. Right in the
    /// first instruction of the child. One load and one comparison.
    bool Inherited() const noexcept { return present_->load(std::memory_order_relaxed) != made_; }

private:
    using Word = std::atomic<std::uint64_t>;

    explicit ForkMark(Word& present) : present_(&present), made_(Number(present)) {}

    static Word& PresentProcess();
    static std::uint64_t Number(Word& present);

    /// The number of the present process; 0 in a child that has made no mark yet.
    const Word* present_;
    std::uint64_t made_;
};

/// Keeps `object` for as long as the process lasts. For what a forked child must not destroy: it has threads that
/// cannot be joined because they do not exist here, locks that may be held for ever, and a connection whose end the
/// servers would be told. The memory is the parent's, copied only where it is written to. Does not allocate.
template <typename Object>
void Abandon(const std::shared_ptr<Object>& object) noexcept
{
    alignas(std::shared_ptr<Object>) unsigned char reference[sizeof(std::shared_ptr<Object>)];
    // Never destroyed.
    new (reference) std::shared_ptr<Object>(object);
}

/// The `Object` of this process, made when it is first asked for and never destroyed. A forked child gets one of its
/// own: the parent's may be locked, and full of what exists in the parent only.
///
/// Takes no lock. Threads: any; of several that are made at the same time all but one are destroyed again.
template <typename Object>
Object& OfThisProcess()
{
    struct Marked
    {
        ForkMark mark{};
        Object object{};
    };
    static std::atomic<Marked*> present{nullptr};
    Marked* found = present.load();
    std::unique_ptr<Marked> made;
    while (found == nullptr || found->mark.Inherited())
    {
        if (!made)
        {
            made = std::make_unique<Marked>();
        }
        if (present.compare_exchange_strong(found, made.get()))
        {
            found = made.release();
        }
    }
    return found->object;
}

}  // namespace kx::velmor
