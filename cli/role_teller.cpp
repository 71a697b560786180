#include "cli/role_teller.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace kx::velmor::cli {

namespace {

std::string Text(int error)
{
    return std::generic_category().message(error);
}

bool WriteAll(int descriptor, const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size())
    {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count >= 0)
        {
            written += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR)
        {
            return false;
        }
    }
    return true;
}

/// With the permissions of any new file.
bool MakeReadable(int descriptor)
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    constexpr mode_t kAny = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    return ::fchmod(descriptor, kAny & ~mask) == 0;
}

}  // namespace

RoleTeller::RoleTeller(std::string file, Complain complain) : file_(std::move(file)), complain_(std::move(complain))
{
    int ends[2];
    Checked(::pipe2(ends, O_CLOEXEC), "pipe2");
    readEnd_ = OwnedDescriptor(ends[0]);
    writeEnd_ = OwnedDescriptor(ends[1]);
    // This end alone: what the command reads blocks, as anybody would expect.
    Checked(::fcntl(writeEnd_.Get(), F_SETFL, O_NONBLOCK), "fcntl");
}

RoleTeller::~RoleTeller()
{
    if (!file_.empty() && ::unlink(file_.c_str()) != 0 && errno != ENOENT)
    {
        complain_("Cannot remove the role file " + file_ + ": " + Text(errno));
    }
}

void RoleTeller::Tell(const std::string& line)
{
    const std::string text = line + "\n";
    next_ = text;
    Continue();
    if (!file_.empty())
    {
        Replace(text);
    }
}

std::optional<int> RoleTeller::Awaited() const noexcept
{
    return writeEnd_ && (next_ || !rest_.empty()) ? std::optional<int>(writeEnd_.Get()) : std::nullopt;
}

void RoleTeller::Continue()
{
    while (Awaited())
    {
        const std::string& text = rest_.empty() ? *next_ : rest_;
        const ssize_t count = ::write(writeEnd_.Get(), text.data(), text.size());
        if (count >= 0)
        {
            std::string left = text.substr(static_cast<std::size_t>(count));
            if (rest_.empty())
            {
                next_.reset();
            }
            rest_ = std::move(left);
        }
        else if (errno == EPIPE)
        {
            // The command does not listen.
            writeEnd_.Close();
        }
        else if (errno != EINTR)
        {
            return;
        }
    }
}

void RoleTeller::Replace(const std::string& text) const
{
    std::string temporary = file_ + ".XXXXXX";
    const OwnedDescriptor descriptor(::mkostemp(temporary.data(), O_CLOEXEC));
    bool done = static_cast<bool>(descriptor);
    if (done)
    {
        done = MakeReadable(descriptor.Get()) && WriteAll(descriptor.Get(), text) &&
               ::rename(temporary.c_str(), file_.c_str()) == 0;
    }
    if (!done)
    {
        complain_("Cannot write the role file " + file_ + ": " + Text(errno));
        ::unlink(temporary.c_str());
    }
}

}  // namespace kx::velmor::cli
