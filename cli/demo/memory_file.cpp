#include "cli/demo/memory_file.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

namespace kx::velmor::demo {

namespace {

int MakeFile()
{
    const int descriptor = ::memfd_create("velmor-demo", MFD_CLOEXEC);
    // Others may not even know that it can be looked at through /proc.
    if (descriptor < 0 || ::fchmod(descriptor, S_IRUSR | S_IWUSR) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "cannot make a file in memory");
    }
    return descriptor;
}

}  // namespace

MemoryFile::MemoryFile(const std::string& text)
    : descriptor_(MakeFile()), path_("/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(descriptor_))
{
    std::ofstream file(path_);
    file << text;
    file.close();
    if (!file)
    {
        throw std::system_error(errno, std::generic_category(), "cannot write a file in memory");
    }
}

MemoryFile::~MemoryFile()
{
    ::close(descriptor_);
}

std::string MemoryFile::Text() const
{
    std::ifstream file(path_);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace kx::velmor::demo
