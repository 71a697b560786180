// `velmor status` and `velmor watch` against a real server.

#include "cli/exit_status.h"
#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/journal.h"
#include "tests/support/network.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zookeeper_server.h"

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {
namespace {

using process::ChildProcess;
using ::testing::HasSubstr;
using ::testing::Not;
using testing_support::Await;
using testing_support::Journal;
using testing_support::kPatience;
using testing_support::RawClient;
using testing_support::TemporaryDirectory;
using testing_support::ZooKeeperServer;

/// The program, running, and what it says.
class Program
{
public:
    explicit Program(std::vector<std::string> arguments)
        : process_({Command(std::move(arguments)), errors_.Path() / "errors",
                    [lines = lines_](const std::string& line) { lines->Note(line); }})
    {}

    std::vector<std::string> Lines() const { return lines_->Lines(); }
    std::string Errors() const
    {
        std::ifstream file(errors_.Path() / "errors");
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    /// Until a line has `part` in it; returns how many lines there were before it and including it.
    std::size_t AwaitLine(const std::string& part, std::size_t from = 0) const
    {
        std::size_t end = 0;
        Await(
            "a line with " + part,
            [&] {
                const std::vector<std::string> lines = Lines();
                const auto found =
                    std::find_if(lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())), lines.end(),
                                 [&](const std::string& line) { return line.find(part) != std::string::npos; });
                end = static_cast<std::size_t>(found - lines.begin()) + 1;
                return found != lines.end();
            },
            kPatience, [&] { return ::testing::PrintToString(Lines()) + Errors(); });
        return end;
    }
    int AwaitExit()
    {
        const std::optional<int> status = process_.AwaitExit(kPatience);
        EXPECT_TRUE(status) << "does not end";
        return status.value_or(-999);
    }
    void Signal(int signal) { process_.Signal(signal); }
    bool Running() { return process_.Running(); }

private:
    static std::vector<std::string> Command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), VELMOR_PROGRAM);
        return arguments;
    }

    const std::shared_ptr<Journal> lines_ = std::make_shared<Journal>();
    const TemporaryDirectory errors_;
    ChildProcess process_;
};

class WatchingTest : public ::testing::Test
{
protected:
    WatchingTest()
    {
        // Of the candidates.
        logging::g_minLogLevel = static_cast<std::int32_t>(logging::LogLevel::Error);
        server_.Start();
    }

    std::vector<std::string> With(std::vector<std::string> arguments) const
    {
        for (const std::string& common :
             {std::string("--servers"), server_.Address(), std::string("--election"), std::string("/services/billing")})
        {
            arguments.push_back(common);
        }
        return arguments;
    }

    /// A candidate with a session of its own.
    struct Member
    {
        std::shared_ptr<Session> session;
        std::unique_ptr<Candidate> candidate;
    };

    Member Join(std::string name, Role role, const std::string& digest = {})
    {
        Member member;
        SessionOptions sessionOptions;
        sessionOptions.servers = server_.Address();
        sessionOptions.digestCredentials = digest;
        if (!digest.empty())
        {
            sessionOptions.accessList = {{ZOO_PERM_ALL, "auth", ""}};
        }
        member.session = Session::Open(sessionOptions);
        CandidateOptions options;
        options.electionPath = "/services/billing";
        options.identity = std::move(name);
        member.candidate = std::make_unique<Candidate>(member.session, options);
        member.candidate->Start();
        EXPECT_TRUE(member.candidate->WaitForRole(role, kPatience));
        return member;
    }

    ZooKeeperServer server_;
};

TEST_F(WatchingTest, StatusShowsTheQueueAndSucceedsWhenSomebodyLeads)
{
    const Member first = Join("alpha", Role::Leader);
    const Member second = Join("beta", Role::NextLeader);
    Program status(With({"status"}));

    EXPECT_EQ(status.AwaitExit(), kSuccess);

    status.AwaitLine("beta");
    const std::vector<std::string> lines = status.Lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines[1], HasSubstr("1         leader  alpha     c-0000000000"));
    EXPECT_THAT(lines[2], HasSubstr("2         next    beta      c-0000000001"));
    EXPECT_EQ(status.Errors(), "");
}

TEST_F(WatchingTest, StatusFailsWhenNobodyLeads)
{
    Program nobody(With({"status"}));
    EXPECT_EQ(nobody.AwaitExit(), kNobodyLeads);
    EXPECT_EQ(nobody.Errors(), "");

    RawClient client(server_.Address());
    client.Create("/services");
    client.Create("/services/billing");
    client.Create("/services/billing/c-", {}, ZOO_SEQUENCE);
    Program elected(With({"status"}));
    EXPECT_EQ(elected.AwaitExit(), kNobodyLeads);
    elected.AwaitLine("1         elected  -         c-0000000000  -");
}

TEST_F(WatchingTest, StatusTellsProgramsInJson)
{
    const Member first = Join("alpha", Role::Leader);
    Program status(With({"status", "--json"}));

    EXPECT_EQ(status.AwaitExit(), kSuccess);

    status.AwaitLine("{");
    const auto json = nlohmann::json::parse(status.Lines().at(0));
    EXPECT_EQ(json["election"], "/services/billing");
    EXPECT_EQ(json["leader"]["identity"], "alpha");
    EXPECT_EQ(json["leader"]["epoch"], first.candidate->CurrentLeadership()->Epoch());
    EXPECT_EQ(json["queue"].size(), 1U);
}

TEST_F(WatchingTest, NoServerIsAStatusAndAMessageThatNamesThem)
{
    const std::string nowhere = testing_support::LoopbackAddress(testing_support::ChooseFreePort());
    for (const std::string command : {"status", "watch"})
    {
        Program program({command, "--servers", nowhere, "--election", "/e", "--connect-timeout", "300ms"});
        EXPECT_EQ(program.AwaitExit(), kUnavailable) << command;
        EXPECT_THAT(program.Errors(), HasSubstr("no server answered within 300ms (--connect-timeout): " + nowhere));
    }
}

TEST_F(WatchingTest, WrongUseIsAStatus)
{
    EXPECT_EQ(Program({"status", "--election", "/e"}).AwaitExit(), kUsage);
    EXPECT_EQ(Program({"watch", "--servers", "127.0.0.1:1", "--election", "/e", "--json", "--live"}).AwaitExit(),
              kUsage);
    Program live(With({"watch", "--live"}));
    EXPECT_EQ(live.AwaitExit(), kUsage);
    EXPECT_THAT(live.Errors(), HasSubstr("--live: standard output is no terminal"));
}

TEST_F(WatchingTest, LackOfPermissionIsAStatus)
{
    const Member first = Join("alpha", Role::Leader, "owner:secret");
    for (const std::string command : {"status", "watch"})
    {
        Program program(With({command}));
        EXPECT_EQ(program.AwaitExit(), kNotPermitted) << command;
        EXPECT_THAT(program.Errors(), HasSubstr("/services/billing"));
        EXPECT_THAT(program.Errors(), HasSubstr("--digest-file"));
    }
}

TEST_F(WatchingTest, HelpHasExamplesAndStatuses)
{
    for (const std::string command : {"status", "watch"})
    {
        Program program({command, "--help"});
        EXPECT_EQ(program.AwaitExit(), kSuccess);
        program.AwaitLine("velmor " + command + " --servers zk1:2181,zk2:2181 --election /services/billing");
        program.AwaitLine("69 no server answered");
    }
}

TEST_F(WatchingTest, WatchTellsWhatIsThereAndWhatHappens)
{
    Program watch(With({"watch"}));
    std::size_t seen = watch.AwaitLine(" no leader");
    Member first = Join("alpha", Role::Leader);
    seen = watch.AwaitLine(" leader alpha c-0000000000 epoch " +
                           std::to_string(first.candidate->CurrentLeadership()->Epoch()));
    Member second = Join("beta", Role::NextLeader);
    watch.AwaitLine(" joined beta c-0000000001 epoch ");
    seen = watch.AwaitLine(" next beta c-0000000001 epoch ");

    first.candidate->Stop();
    watch.AwaitLine(" left alpha", seen);
    seen = watch.AwaitLine(" leader beta", seen);
    second.candidate->Stop();
    watch.AwaitLine(" left beta", seen);
    watch.AwaitLine(" no leader", seen);

    watch.Signal(SIGINT);
    EXPECT_EQ(watch.AwaitExit(), kSuccess);
    EXPECT_EQ(watch.Errors(), "");
}

TEST_F(WatchingTest, WatchTellsProgramsInJson)
{
    const Member first = Join("alpha", Role::Leader);
    Program watch(With({"watch", "--json"}));
    watch.AwaitLine("\"event\":\"leader\"");
    for (const std::string& line : watch.Lines())
    {
        const auto json = nlohmann::json::parse(line);
        EXPECT_EQ(json["identity"], "alpha");
        EXPECT_EQ(json["election"], "/services/billing");
    }
    watch.Signal(SIGTERM);
    EXPECT_EQ(watch.AwaitExit(), kSuccess);
}

TEST_F(WatchingTest, WatchSurvivesARestartOfTheServer)
{
    Member first = Join("alpha", Role::Leader);
    const Member second = Join("beta", Role::NextLeader);
    Program watch(With({"watch", "--session-timeout", "3s"}));
    std::size_t seen = watch.AwaitLine(" next beta");

    server_.Kill();
    seen = watch.AwaitLine(" disconnected", seen);
    server_.Start();
    seen = watch.AwaitLine(" connected", seen);
    first.candidate->Stop();
    watch.AwaitLine(" leader beta", seen);

    watch.Signal(SIGHUP);
    EXPECT_EQ(watch.AwaitExit(), kSuccess);
}

TEST_F(WatchingTest, WatchEndsAtOnceWhileTheServerHangs)
{
    Program watch(With({"watch"}));
    watch.AwaitLine(" no leader");
    server_.Pause();
    watch.Signal(SIGINT);

    EXPECT_EQ(watch.AwaitExit(), kSuccess);
    server_.Continue();
}

/// A child whose standard output the test holds in its hand.
class Piped
{
public:
    explicit Piped(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), VELMOR_PROGRAM);
        // A terminal of its own; its other end is the test's.
        winsize size{};
        size.ws_row = 24;
        size.ws_col = 100;
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0)
        {
            std::vector<char*> words;
            for (std::string& argument : arguments)
            {
                words.push_back(argument.data());
            }
            words.push_back(nullptr);
            execv(words[0], words.data());
            _exit(127);
        }
    }
    ~Piped()
    {
        if (pid_ > 0)
        {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(terminal_);
    }
    Piped(const Piped&) = delete;
    Piped& operator=(const Piped&) = delete;

    void AwaitShown(const std::string& part)
    {
        Await(
            "\"" + part + "\" on the terminal",
            [&] {
                Read();
                return shown_.find(part) != std::string::npos;
            },
            kPatience, [&] { return ::testing::PrintToString(shown_); });
    }
    std::string Take() { return std::exchange(shown_, std::string()); }
    void Type(const std::string& keys)
    {
        EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    void Resize(unsigned short rows, unsigned short columns)
    {
        winsize size{};
        size.ws_row = rows;
        size.ws_col = columns;
        ioctl(terminal_, TIOCSWINSZ, &size);
    }
    bool Echoes() const
    {
        termios mode{};
        tcgetattr(terminal_, &mode);
        return (mode.c_lflag & ECHO) != 0;
    }
    int AwaitExit()
    {
        int status = -1;
        Await("the end", [&] {
            Read();
            return waitpid(pid_, &status, WNOHANG) == pid_;
        });
        Read();
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    void Read()
    {
        pollfd ready{terminal_, POLLIN, 0};
        std::array<char, 4'096> buffer{};
        while (poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN) != 0)
        {
            const ssize_t bytes = read(terminal_, buffer.data(), buffer.size());
            if (bytes <= 0)
            {
                return;
            }
            shown_.append(buffer.data(), static_cast<std::size_t>(bytes));
        }
    }

    int terminal_ = -1;
    pid_t pid_ = -1;
    std::string shown_;
};

TEST_F(WatchingTest, LiveRedrawsInPlaceAndPutsTheTerminalBack)
{
    Member first = Join("alpha", Role::Leader);
    const Member second = Join("beta", Role::NextLeader);
    Piped live(With({"watch", "--live"}));
    live.AwaitShown("alpha leads");
    EXPECT_FALSE(live.Echoes());
    const std::string begin = live.Take();
    EXPECT_THAT(begin, HasSubstr("\x1b[?1049h\x1b[?25l"));
    EXPECT_THAT(begin, HasSubstr("\x1b[H/services/billing"));

    first.candidate->Stop();
    live.AwaitShown("beta leads");
    live.Take();
    live.Resize(10, 12);
    live.AwaitShown("beta leads,\u2026\x1b[K");
    live.Take();

    // Ctrl-C.
    live.Type("\x03");
    EXPECT_EQ(live.AwaitExit(), kSuccess);
    const std::string end = live.Take();
    EXPECT_THAT(end, HasSubstr("\x1b[?25h\x1b[?1049l"));
    EXPECT_THAT(end, Not(HasSubstr("\x1b[?1049h")));
    EXPECT_TRUE(live.Echoes());
}

TEST_F(WatchingTest, LivePutsTheTerminalBackBeforeItSaysWhatIsWrong)
{
    const std::string nowhere = testing_support::LoopbackAddress(testing_support::ChooseFreePort());
    Piped live({"watch", "--live", "--servers", nowhere, "--election", "/e", "--connect-timeout", "500ms"});
    live.AwaitShown("Waiting for a server");
    EXPECT_EQ(live.AwaitExit(), kUnavailable);
    const std::string shown = live.Take();
    const std::size_t restored = shown.find("\x1b[?25h\x1b[?1049l");
    ASSERT_NE(restored, std::string::npos);
    EXPECT_THAT(shown.substr(restored), HasSubstr("no server answered within 500ms"));
}

TEST_F(WatchingTest, WatchEndsQuietlyWhenNobodyReadsAnyMore)
{
    const std::string command = std::string(VELMOR_PROGRAM) + " watch --servers " + server_.Address() +
                                " --election /services/billing | head -n 1; echo \"status ${PIPESTATUS[0]}\"";
    const auto lines = std::make_shared<Journal>();
    ChildProcess shell({{"bash", "-c", command}, {}, [lines](const std::string& line) { lines->Note(line); }});

    EXPECT_EQ(shell.AwaitExit(kPatience), 0);

    lines->Await("status 0");
}

}  // namespace
}  // namespace kx::velmor::cli
