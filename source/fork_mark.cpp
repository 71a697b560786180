#include "source/fork_mark.h"

#include <pthread.h>
#include <sys/mman.h>

#include <cerrno>
#include <system_error>

namespace kx::velmor {

namespace {

using Word = std::atomic<std::uint64_t>;

static_assert(Word::is_always_lock_free);

/// Where a child cannot be given zeros.
Word g_plainWord{0};

/// No lock and no local static variable guards what follows: a child must not wait for a thread of its parent that was
/// about to set it up.
std::atomic<Word*> g_present{nullptr};

/// The greatest number so far, that of a parent included.
std::atomic<std::uint64_t> g_last{0};

/// Null when the kernel refuses.
Word* MapWipedOnFork()
{
    // The kernel rounds up to a page.
    void* const page = mmap(nullptr, sizeof(Word), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
    {
        return nullptr;
    }
    if (madvise(page, sizeof(Word), MADV_WIPEONFORK) != 0)
    {
        munmap(page, sizeof(Word));
        return nullptr;
    }
    // In a page of zeros, which is an atomic 0.
    return new (page) Word(0);
}

Word* ClearOnFork()
{
    const int error = pthread_atfork(nullptr, nullptr, [] { g_plainWord = 0; });
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), "pthread_atfork");
    }
    return &g_plainWord;
}

}  // namespace

ForkMark::Word& ForkMark::PresentProcess()
{
    Word* present = g_present;
    if (present != nullptr)
    {
        return *present;
    }
    Word* made = MapWipedOnFork();
    if (made == nullptr)
    {
        made = ClearOnFork();
    }
    if (g_present.compare_exchange_strong(present, made))
    {
        return *made;
    }
    if (made != &g_plainWord)
    {
        munmap(made, sizeof(Word));
    }
    return *present;
}

std::uint64_t ForkMark::Number(Word& present)
{
    std::uint64_t number = present;
    if (number == 0)
    {
        const std::uint64_t next = ++g_last;
        // Another thread may have been first: its number is greater than all inherited ones, too.
        number = present.compare_exchange_strong(number, next) ? next : number;
    }
    return number;
}

}  // namespace kx::velmor
