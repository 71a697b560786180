#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace kx::velmor::cli {

/// Owns a descriptor, or none.
class OwnedDescriptor
{
public:
    OwnedDescriptor() noexcept = default;
    explicit OwnedDescriptor(int number) noexcept : number_(number) {}
    ~OwnedDescriptor() { Close(); }

    OwnedDescriptor(OwnedDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept
    {
        if (this != &other)
        {
            Close();
            number_ = std::exchange(other.number_, -1);
        }
        return *this;
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

    /// -1 for none.
    int Get() const noexcept { return number_; }
    explicit operator bool() const noexcept { return number_ >= 0; }

    void Close() noexcept
    {
        if (number_ >= 0)
        {
            // Linux has closed it whatever this returns.
            ::close(std::exchange(number_, -1));
        }
    }

private:
    int number_ = -1;
};

/// `result` of a system call called `what`; throws `std::system_error` with `errno` when that is negative.
inline int Checked(int result, const std::string& what)
{
    if (result < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// Moves it to a number above 3: what stands for the standard streams, and beside them, is left to commands. It is
/// closed by exec. Throws `std::system_error`.
inline OwnedDescriptor MovedUp(OwnedDescriptor descriptor)
{
    constexpr int kFirstOwn = STDERR_FILENO + 2;
    return OwnedDescriptor(Checked(::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, kFirstOwn), "fcntl"));
}

}  // namespace kx::velmor::cli
