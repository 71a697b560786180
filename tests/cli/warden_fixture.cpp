#include "tests/cli/warden_fixture.h"

#include <poll.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace kx::velmor::cli {

namespace {

bool IsReadable(int descriptor, std::chrono::milliseconds deadline)
{
    pollfd awaited{descriptor, POLLIN, 0};
    return ::poll(&awaited, 1, static_cast<int>(deadline.count())) > 0;
}

}  // namespace

WardenReport WardenTest::Await()
{
    std::optional<WardenReport> report;
    testing_support::Await("a report", [&] {
        while (IsReadable(warden_.Descriptor(), testing_support::kPatience) && (report = warden_.Receive()) &&
               report->what == What::Told)
        {
            told_.push_back(report->name);
        }
        return report.has_value();
    });
    return *report;
}

WardenReport WardenTest::Await(What what)
{
    WardenReport report = Await();
    EXPECT_EQ(report.what, what) << report.error;
    return report;
}

bool WardenTest::NothingReported()
{
    return !IsReadable(warden_.Descriptor(), std::chrono::milliseconds(0)) && !warden_.Receive();
}

Launch WardenTest::Shell(const std::string& script) const
{
    Launch launch;
    launch.command = {"/bin/sh", "-c", script};
    launch.environment = {{"DIR", Directory().string()}};
    return launch;
}

pid_t WardenTest::Start(const Launch& launch)
{
    warden_.Start(launch);
    return Await(What::Launched).pid;
}

std::string WardenTest::AwaitText(const std::string& name) const
{
    std::string text;
    testing_support::Await(name + " is written", [&] {
        text = ReadText(File(name));
        return !text.empty() && text.back() == '\n';
    });
    return text;
}

pid_t WardenTest::AwaitPid(const std::string& name) const
{
    return static_cast<pid_t>(std::stol(AwaitText(name)));
}

bool IsAlive(pid_t pid)
{
    const std::string text = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t nameEnd = text.rfind(')');
    constexpr std::size_t kToState = 2;
    return nameEnd != std::string::npos && text.at(nameEnd + kToState) != 'Z' && text.at(nameEnd + kToState) != 'X';
}

void AwaitDeath(pid_t pid)
{
    testing_support::Await("process " + std::to_string(pid) + " has ended", [pid] { return !IsAlive(pid); });
}

std::string ReadText(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace kx::velmor::cli
