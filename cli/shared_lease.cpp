#include "cli/shared_lease.h"

#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace kx::velmor::cli {

namespace {

void* MapShared(std::size_t size)
{
    void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
    {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return memory;
}

std::int64_t Count(BootClock::time_point time)
{
    return time.time_since_epoch().count();
}

BootClock::time_point Time(std::int64_t count)
{
    return BootClock::time_point(BootClock::duration(count));
}

}  // namespace

SharedLease::SharedLease() : memory_(new (MapShared(sizeof(Memory))) Memory{})
{
    Write(kNone);
}

SharedLease::~SharedLease()
{
    ::munmap(memory_, sizeof(Memory));
}

void SharedLease::Write(const Times& times) noexcept
{
    memory_->killAt.store(Count(times.killAt), std::memory_order_relaxed);
    memory_->end.store(Count(times.end), std::memory_order_release);
}

SharedLease::Times SharedLease::Read() const noexcept
{
    const std::int64_t end = memory_->end.load(std::memory_order_acquire);
    return {Time(end), Time(memory_->killAt.load(std::memory_order_relaxed))};
}

}  // namespace kx::velmor::cli
