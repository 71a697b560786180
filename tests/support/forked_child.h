#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace kx::velmor::testing_support {

/// What a forked child finds wrong.
class Findings
{
public:
    void Expect(bool holds, const std::string& what)
    {
        if (!holds)
        {
            text_ += text_.empty() ? what : ", " + what;
        }
    }
    const std::string& Text() const { return text_; }

private:
    std::string text_;
};

/// Runs `check` in a child that is forked here, where it is the only thread. The child ends as soon as `check` returns,
/// without destructors. Returns the child's findings: empty when all is as it should be, and one of its own when the
/// child throws, crashes, or is not through within `kPatience`; it is killed then.
///
/// `check` must not use what other threads of this process may have locked. The child logs nothing, since the log may
/// be locked.
std::string FindInChild(const std::function<void(Findings&)>& check);

/// Waits for a child to end: its exit code, or minus the signal. Kills it when it has not ended within `kPatience`.
int AwaitEndOf(pid_t child);

}  // namespace kx::velmor::testing_support
