#include "tests/support/temporary_directory.h"

#include "process/spawner.h"

#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/exe.hpp>
#include <boost/process/io.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

namespace kx::velmor::testing_support {

namespace {

/// A shell that reads directories from a pipe and removes what is left of them when the pipe closes, which it does
/// however this process ends. It detaches itself, because a test runner that loses patience kills the whole tree.
/// Servers are killed at the same moment and may still write a file: hence more than one go.
constexpr const char* kUndertaker = R"(
    exec 3<&0
    (
        trap '' HUP INT TERM
        set --
        while IFS= read -r directory; do set -- "$@" "$directory"; done <&3
        for round in 1 2 3 4 5 6 7 8 9 10; do
            left=
            for directory; do if [ -e "$directory" ]; then left=1; rm -rf -- "$directory"; fi; done
            [ "$left" ] || exit 0
            sleep 0.1
        done
    ) &
)";

class Undertaker
{
public:
    static Undertaker& Instance()
    {
        static Undertaker* const undertaker = new Undertaker;
        return *undertaker;
    }

    void Register(const std::string& directory)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (std::fputs((directory + "\n").c_str(), pipe_) < 0 || std::fflush(pipe_) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "cannot tell the shell that removes " + directory);
        }
    }

private:
    Undertaker()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        std::FILE* const reading = ::fdopen(ends[0], "r");
        pipe_ = ::fdopen(ends[1], "w");
        process::RunOnSpawner([&] {
            namespace bp = boost::process;
            bp::child shell(bp::exe = "/bin/sh", bp::args = std::vector<std::string>{"-c", kUndertaker},
                            (bp::std_in < reading), (bp::std_out > bp::null), (bp::std_err > bp::null));
            shell.wait();
        });
        std::fclose(reading);
    }

    std::mutex mutex_;
    /// Never closed: that is the signal.
    std::FILE* pipe_ = nullptr;
};

std::filesystem::path MakeDirectory()
{
    std::string path = (std::filesystem::temp_directory_path() / "velmor-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
    {
        throw std::system_error(errno, std::generic_category(), "cannot make " + path);
    }
    return path;
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() : path_(MakeDirectory())
{
    Undertaker::Instance().Register(path_.string());
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    if (error)
    {
        std::cerr << "cannot remove " << path_ << ": " << error.message() << '\n';
    }
}

}  // namespace kx::velmor::testing_support
