// The command under the tests of `velmor run`: it writes down that it lives, and what befalls it.
//
// recording_service FILE [option...]
//
//   beat=MS            how often it notes that it lives (5)
//   after=MS           ends by itself after that long
//   status=N           what it ends with (0)
//   die=N              ends by signal N instead
//   linger=MS          goes on for that long after the signal that ends it, and then ends with `status`
//   ignore=N[,N...]    signals that do not end it: SIGTERM, SIGINT and SIGQUIT would
//   child=group        starts another of itself in its own process group; also "session", in a session of its own, and
//                      "daemon", in a session of its own and with nobody as its parent
//   child-linger=MS, child-ignore=N[,N...]   the same for those
//   environment        notes its environment
//   descriptors        notes its descriptors
//   input              notes each line of standard input, and sends it back
//   roles              notes each line that it is told on descriptor VELMOR_ROLE_FD
//   as=NAME            put in front of each word, so that it does not count as the command itself
//
// A line of the file is "<word> <pid> <epoch or 0> <CLOCK_BOOTTIME in ns> <text>", written at once and as a whole.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr std::int64_t kMillisecond = 1'000'000;

struct Options
{
    std::int64_t beat = 5 * kMillisecond;
    std::int64_t after = -1;
    int status = 0;
    int die = 0;
    std::int64_t linger = 0;
    std::set<int> ignored{};
    bool environment = false;
    bool descriptors = false;
    bool input = false;
    bool roles = false;
};

int record = -1;
std::string prefix;

std::int64_t Now()
{
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

void Note(const std::string& word, const std::string& text = {})
{
    static const char* const epoch = std::getenv("VELMOR_EPOCH");
    std::ostringstream line;
    line << prefix << word << ' ' << ::getpid() << ' ' << (epoch != nullptr ? epoch : "0") << ' ' << Now() << ' '
         << text << '\n';
    const std::string whole = line.str();
    if (::write(record, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size()))
    {
        ::_exit(EXIT_FAILURE);
    }
}

void NoteDescriptors()
{
    DIR* const directory = ::opendir("/proc/self/fd");
    while (const dirent* const entry = ::readdir(directory))
    {
        const int descriptor = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || descriptor == ::dirfd(directory) || descriptor == record)
        {
            continue;
        }
        char target[512] = {};
        const std::string link = "/proc/self/fd/" + std::string(entry->d_name);
        if (::readlink(link.c_str(), target, sizeof target - 1) > 0)
        {
            Note("descriptor", entry->d_name + std::string(" ") + target);
        }
    }
    ::closedir(directory);
}

/// What arrives on one descriptor, line by line.
class Lines
{
public:
    Lines(int descriptor, std::string word, bool answer)
        : descriptor_(descriptor), word_(std::move(word)), answer_(answer)
    {}

    /// Notes what is there; does not wait.
    void Read()
    {
        pollfd ready{descriptor_, POLLIN, 0};
        while (descriptor_ >= 0 && ::poll(&ready, 1, 0) == 1)
        {
            char buffer[4096];
            const ssize_t length = ::read(descriptor_, buffer, sizeof buffer);
            if (length <= 0)
            {
                Note(word_ + "-end");
                descriptor_ = -1;
                return;
            }
            text_.append(buffer, static_cast<std::size_t>(length));
            for (std::size_t end = 0; (end = text_.find('\n')) != std::string::npos; text_.erase(0, end + 1))
            {
                Note(word_, text_.substr(0, end));
                if (answer_)
                {
                    std::printf("heard %s\n", text_.substr(0, end).c_str());
                    std::fflush(stdout);
                }
            }
        }
    }

private:
    int descriptor_;
    const std::string word_;
    const bool answer_;
    std::string text_;
};

const std::vector<int> kSignals{SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

sigset_t SignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kSignals)
    {
        sigaddset(&set, signal);
    }
    return set;
}

[[noreturn]] void DieOf(int signal)
{
    ::signal(signal, SIG_DFL);
    const sigset_t set = SignalSet();
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(signal);
    ::_exit(EXIT_FAILURE);
}

[[noreturn]] void Live(const Options& options)
{
    const std::int64_t begin = Now();
    Note("start", std::to_string(::getppid()) + " " + std::to_string(::getpgrp()) + " " + std::to_string(::getsid(0)));
    for (char** entry = environ; options.environment && *entry != nullptr; ++entry)
    {
        Note("environment", *entry);
    }
    if (options.descriptors)
    {
        NoteDescriptors();
    }
    const char* const told = std::getenv("VELMOR_ROLE_FD");
    Lines roles(options.roles && told != nullptr ? std::atoi(told) : -1, "role", false);
    Lines input(options.input ? STDIN_FILENO : -1, "input", true);

    std::int64_t end = options.after < 0 ? INT64_MAX : begin + options.after;
    int endedBy = 0;
    const sigset_t set = SignalSet();
    while (Now() < end)
    {
        const timespec pause{options.beat / (1000 * kMillisecond), options.beat % (1000 * kMillisecond)};
        const int signal = ::sigtimedwait(&set, nullptr, &pause);
        if (signal > 0)
        {
            Note("signal", std::to_string(signal));
            const bool ends = signal == SIGTERM || signal == SIGINT || signal == SIGQUIT;
            if (ends && endedBy == 0 && options.ignored.count(signal) == 0)
            {
                endedBy = signal;
                end = Now() + options.linger;
            }
        }
        Note("beat");
        roles.Read();
        input.Read();
    }
    Note("end");
    if (options.die != 0)
    {
        DieOf(options.die);
    }
    // Like programs that know nothing of these.
    if (options.linger == 0 && (endedBy == SIGINT || endedBy == SIGQUIT))
    {
        DieOf(endedBy);
    }
    ::_exit(options.status);
}

void StartChild(const std::string& kind, const Options& options)
{
    if (::fork() != 0)
    {
        // One that has become a daemon leaves a process behind that has ended.
        if (kind == "daemon")
        {
            ::wait(nullptr);
        }
        return;
    }
    if (kind != "group")
    {
        ::setsid();
    }
    if (kind == "daemon" && ::fork() != 0)
    {
        ::_exit(0);
    }
    Live(options);
}

std::set<int> Numbers(const std::string& list)
{
    std::set<int> numbers;
    std::istringstream stream(list);
    for (std::string number; std::getline(stream, number, ',');)
    {
        numbers.insert(std::atoi(number.c_str()));
    }
    return numbers;
}

}  // namespace

int main(int argc, char** argv)
{
    const sigset_t set = SignalSet();
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    record = argc > 1 ? ::open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (record < 0)
    {
        std::perror("recording_service");
        return EXIT_FAILURE;
    }
    Options own;
    Options children;
    std::vector<std::string> kinds;
    for (int i = 2; i < argc; ++i)
    {
        const std::string argument = argv[i];
        const std::size_t middle = argument.find('=');
        const std::string name = argument.substr(0, middle);
        const std::string value = middle == std::string::npos ? std::string() : argument.substr(middle + 1);
        const int number = std::atoi(value.c_str());
        const std::map<std::string, bool*> switches{{"environment", &own.environment},
                                                    {"descriptors", &own.descriptors},
                                                    {"input", &own.input},
                                                    {"roles", &own.roles}};
        const std::map<std::string, std::int64_t*> durations{
            {"beat", &own.beat}, {"after", &own.after}, {"linger", &own.linger}, {"child-linger", &children.linger}};
        const std::map<std::string, int*> numbers{{"status", &own.status}, {"die", &own.die}};
        const std::map<std::string, std::set<int>*> sets{{"ignore", &own.ignored}, {"child-ignore", &children.ignored}};
        const std::map<std::string, std::string*> texts{{"as", &prefix}};
        if (const auto wanted = switches.find(name); wanted != switches.end())
        {
            *wanted->second = true;
        }
        else if (const auto duration = durations.find(name); duration != durations.end())
        {
            *duration->second = number * kMillisecond;
        }
        else if (const auto count = numbers.find(name); count != numbers.end())
        {
            *count->second = number;
        }
        else if (const auto list = sets.find(name); list != sets.end())
        {
            *list->second = Numbers(value);
        }
        else if (const auto text = texts.find(name); text != texts.end())
        {
            *text->second = value + ".";
        }
        else if (name == "child")
        {
            kinds.push_back(value);
        }
        else
        {
            std::fprintf(stderr, "recording_service: what is \"%s\"?\n", argument.c_str());
            return EXIT_FAILURE;
        }
    }
    for (const std::string& kind : kinds)
    {
        StartChild(kind, children);
    }
    Live(own);
}
