#include "tests/cli/program_fixture.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <stdexcept>

namespace kx::velmor::cli {

namespace {

using std::chrono::milliseconds;

/// In the environment of everything that a test causes.
constexpr const char* kMark = "RUN_TEST_OF";

testing_support::ServerOptions SmallServer()
{
    testing_support::ServerOptions options;
    options.heapMegabytes = 16;
    return options;
}

}  // namespace

ProgramFixture::ProgramFixture(bool startServer) : server_(SmallServer())
{
    if (startServer)
    {
        server_.Start();
    }
}

ProgramFixture::~ProgramFixture() = default;

void ProgramFixture::TearDown()
{
    for (RunningProgram& program : programs_)
    {
        program.Kill();
        EXPECT_EQ(program.Errors().find("Sanitizer"), std::string::npos);
    }
    std::vector<pid_t> left;
    try
    {
        Await("nothing is left of the programs", [&] {
            left = ProcessesWith(kMark, directory_.Path());
            return left.empty();
        });
    }
    catch (const std::runtime_error&)
    {
        for (const pid_t process : left)
        {
            ADD_FAILURE() << "process " << process
                          << " is left: " << ReadFile("/proc/" + std::to_string(process) + "/cmdline");
            ::kill(process, SIGKILL);
        }
    }
    if (HasFailure())
    {
        std::cerr << Said();
    }
}

std::string ProgramFixture::Said() const
{
    std::string said;
    for (const RunningProgram& program : programs_)
    {
        said += "== process " + std::to_string(program.Pid()) + " said\n" + program.Output() + program.Errors();
    }
    said += "== records\n";
    for (const Record& record : Records())
    {
        if (record.word != "beat")
        {
            said += std::to_string(record.at.count()) + " " + record.word + " " + std::to_string(record.process) + " " +
                    std::to_string(record.epoch) + " " + record.text + "\n";
        }
    }
    return said;
}

RunningProgram& ProgramFixture::Start(const std::vector<std::string>& arguments, const Surroundings& surroundings)
{
    std::vector<std::string> command{VELMOR_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Surroundings marked = surroundings;
    marked.environment.emplace(kMark, directory_.Path());
    // Nobody's configuration.
    marked.environment.emplace("HOME", directory_.Path());
    marked.environment.emplace("XDG_CONFIG_HOME", directory_.Path() / "config");
    return programs_.emplace_back(directory_.Path(), programs_.size(), command, marked);
}

RunningProgram& ProgramFixture::Run(const std::vector<std::string>& options, const std::vector<std::string>& command,
                                    const Surroundings& surroundings)
{
    std::vector<std::string> arguments{"run"};
    const std::vector<std::pair<std::string, std::string>> defaults{{"--servers", server_.Address()},
                                                                    {"--election", kElection}};
    for (const auto& [name, value] : defaults)
    {
        if (std::find(options.begin(), options.end(), name) == options.end())
        {
            arguments.insert(arguments.end(), {name, value});
        }
    }
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.emplace_back("--");
    arguments.insert(arguments.end(), command.begin(), command.end());
    return Start(arguments, surroundings);
}

RunningProgram& ProgramFixture::RunBehind(const Proxy& proxy, const std::vector<std::string>& options,
                                          const std::vector<std::string>& command)
{
    std::vector<std::string> all{"--servers", proxy.Address()};
    all.insert(all.end(), options.begin(), options.end());
    return Run(all, command);
}

RunningProgram& ProgramFixture::Join(const std::vector<std::string>& options, const std::vector<std::string>& command,
                                     const Surroundings& surroundings)
{
    const std::size_t before = Queue().size();
    RunningProgram& program = Run(options, command, surroundings);
    AwaitQueue(before + 1);
    return program;
}

std::vector<std::string> ProgramFixture::Service(const std::vector<std::string>& options) const
{
    std::vector<std::string> command{RECORDING_SERVICE, RecordFile()};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

std::string ProgramFixture::ServiceForShell(const std::vector<std::string>& options) const
{
    std::string line;
    for (const std::string& word : Service(options))
    {
        line += "'" + word + "' ";
    }
    return line;
}

std::vector<Record> ProgramFixture::Records() const
{
    return ReadRecords(RecordFile());
}

std::vector<Record> ProgramFixture::Records(const std::string& word, const std::optional<std::string>& text) const
{
    std::vector<Record> records = Records();
    records.erase(
        std::remove_if(records.begin(), records.end(),
                       [&](const Record& record) { return record.word != word || (text && record.text != *text); }),
        records.end());
    return records;
}

Record ProgramFixture::AwaitRecord(const std::string& word, std::size_t count, const std::optional<std::string>& text,
                                   milliseconds deadline) const
{
    std::vector<Record> records;
    Await(
        "number " + std::to_string(count) + " of \"" + word + " " + text.value_or("...") + "\" in the records",
        [&] {
            records = Records(word, text);
            return records.size() >= count;
        },
        deadline);
    return records[count - 1];
}

void ProgramFixture::AwaitBeat(pid_t process) const
{
    const std::chrono::nanoseconds begin = Now();
    Await("process " + std::to_string(process) + " lives on", [&] {
        const std::vector<Record> beats = Records("beat");
        return std::any_of(beats.begin(), beats.end(),
                           [&](const Record& beat) { return beat.process == process && beat.at > begin; });
    });
}

void ProgramFixture::AwaitGone(pid_t process, milliseconds deadline) const
{
    Await(
        "process " + std::to_string(process) + " has ended", [&] { return !Lives(process); }, deadline);
}

RawClient& ProgramFixture::Tree()
{
    if (!tree_)
    {
        tree_ = std::make_unique<RawClient>(server_.Address());
    }
    return *tree_;
}

std::vector<std::string> ProgramFixture::Queue()
{
    return Tree().Exists(kElection) ? Tree().List(kElection) : std::vector<std::string>();
}

void ProgramFixture::AwaitQueue(std::size_t count)
{
    Await("there are " + std::to_string(count) + " in the queue", [&] { return Queue().size() == count; });
}

void ProgramFixture::ExpectNoConflict() const
{
    for (const std::string& conflict : Conflicts(Tenures(Records())))
    {
        ADD_FAILURE() << conflict;
    }
}

void ProgramFixture::ExpectTenures(std::size_t count) const
{
    ExpectNoConflict();
    EXPECT_EQ(Tenures(Records()).size(), count);
}

std::chrono::nanoseconds Now()
{
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace kx::velmor::cli
