#include "cli/duration.h"
#include "cli/election_changes.h"
#include "cli/exit_status.h"
#include "cli/live_view.h"
#include "cli/output.h"
#include "cli/queue_json.h"
#include "cli/subcommand.h"
#include "cli/texts.h"
#include "cli/view_queue.h"

#include <kx/logging/logger.h>
#include <kx/velmor/observer.h>

#include <CLI/CLI.hpp>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace kx::velmor::cli {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr const char* kDescription =
    "Shows what becomes of an election: a line for each change as it happens, beginning\n"
    "with what is there. Lines say \"joined\", \"left\", \"leader\", \"next\" (the second in the\n"
    "queue), with identity, node and epoch, or \"no leader\", \"disconnected\", \"connected\".\n"
    "Outages are survived; SIGINT and SIGTERM end it.";

constexpr const char* kFooter =
    "Examples:\n"
    "  velmor watch --servers zk1:2181,zk2:2181 --election /services/billing\n"
    "  velmor watch --live\n"
    "  velmor watch --json | jq -r 'select(.event == \"leader\") | .identity'\n"
    "\n"
    "Exit status: 0 when it was ended, or nobody reads its output any more; 64 usage,\n"
    "69 no server answered in time at the start, 70 internal error, 77 not permitted,\n"
    "78 configuration file.";

struct WatchOptions
{
    bool json = false;
    bool live = false;
};

/// Signals to be read in place of being delivered, by the threads that are started later, too.
class SignalDescriptor
{
public:
    explicit SignalDescriptor(const std::vector<int>& signals)
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : signals)
        {
            sigaddset(&set, signal);
        }
        pthread_sigmask(SIG_BLOCK, &set, &previous_);
        descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        if (descriptor_ < 0)
        {
            throw std::system_error(errno, std::generic_category(), "signalfd");
        }
    }
    ~SignalDescriptor()
    {
        close(descriptor_);
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SignalDescriptor(const SignalDescriptor&) = delete;
    SignalDescriptor& operator=(const SignalDescriptor&) = delete;

    int Descriptor() const { return descriptor_; }

    /// 0 when there is none.
    int Next() const
    {
        signalfd_siginfo info{};
        return read(descriptor_, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo) : 0;
    }

private:
    sigset_t previous_{};
    int descriptor_;
};

class Watch
{
public:
    Watch(const Settings& settings, WatchOptions options)
        : settings_(settings),
          options_(options),
          // Ctrl-Z stops whoever has no screen to put back by itself.
          signals_(options.live ? std::vector<int>{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP}
                                : std::vector<int>{SIGINT, SIGTERM, SIGHUP}),
          screen_(options.live ? std::make_unique<LiveScreen>() : nullptr)
    {
        if (options.live && isatty(STDERR_FILENO) != 0)
        {
            // There is one screen for both.
            constexpr std::int32_t kNothing = 1'000;
            logging::g_minLogLevel = kNothing;
        }
    }

    int Run()
    {
        const auto session = Session::OpenInBackground(SessionOptionsFor(settings_));
        const Observer observer(session, settings_.election,
                                [views = views_](const ElectionView& view) { views->Push(view); });
        // A read that is under way would hold the observer up otherwise.
        struct Closing
        {
            ~Closing() { session.Close(); }
            Session& session;
        } const closing{*session};

        const auto begin = steady_clock::now();
        while (!ended_)
        {
            if (settings_.connectTimeout && !view_.known && steady_clock::now() - begin >= *settings_.connectTimeout)
            {
                throw Failure(kUnavailable, "no server answered within " + FormatDuration(*settings_.connectTimeout) +
                                                " (--connect-timeout): " + settings_.servers);
            }
            Await(begin);
            TakeSignals();
            TakeViews();
            if (options_.live && !ended_)
            {
                Show(Frame(settings_.election, view_, screen_->Size(), system_clock::now()));
            }
        }
        return kSuccess;
    }

private:
    /// Until there is something to do.
    void Await(steady_clock::time_point begin)
    {
        milliseconds timeout = options_.live ? milliseconds(1'000) : milliseconds(60'000);
        if (settings_.connectTimeout && !view_.known)
        {
            const auto left = std::chrono::ceil<milliseconds>(begin + *settings_.connectTimeout - steady_clock::now());
            timeout = std::max(std::min(timeout, left), milliseconds(0));
        }
        std::array<pollfd, 3> ready{{{signals_.Descriptor(), POLLIN, 0},
                                     {views_->Descriptor(), POLLIN, 0},
                                     // That nobody reads any more is told without being asked for.
                                     {STDOUT_FILENO, 0, 0}}};
        if (poll(ready.data(), ready.size(), static_cast<int>(timeout.count())) < 0 && errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if ((ready[2].revents & (POLLERR | POLLHUP)) != 0)
        {
            ended_ = true;
        }
    }

    void TakeSignals()
    {
        while (const int signal = signals_.Next())
        {
            if (signal == SIGTSTP)
            {
                screen_->Leave();
                raise(SIGSTOP);
                screen_->Enter();
            }
            else if (signal != SIGWINCH)
            {
                ended_ = true;
            }
        }
    }

    void TakeViews()
    {
        for (const ViewQueue::Entry& entry : views_->Take())
        {
            if (entry.view.code != ZOK)
            {
                throw Failure(entry.view.code == ZNOAUTH ? kNotPermitted : kInternal,
                              "cannot look at " + settings_.election + ": " + entry.view.error +
                                  (entry.view.code == ZNOAUTH ? "; --digest-file names credentials" : ""));
            }
            if (!options_.live)
            {
                std::string text;
                for (const ElectionChange& change : Changes(view_, entry.view))
                {
                    text += Line(change, entry.time) + "\n";
                }
                Show(text);
            }
            view_ = entry.view;
        }
    }

    std::string Line(const ElectionChange& change, system_clock::time_point time) const
    {
        return options_.json ? ChangeJson(settings_.election, change, time) : ChangeText(change, time);
    }

    void Show(const std::string& text)
    {
        switch (Write(STDOUT_FILENO, text, signals_.Descriptor()))
        {
            case Written::All:
                break;
            case Written::ReaderGone:
                ended_ = true;
                break;
            case Written::Interrupted:
                TakeSignals();
                break;
        }
    }

    const Settings& settings_;
    const WatchOptions options_;
    const SignalDescriptor signals_;
    /// Put back before signals are delivered again.
    const std::unique_ptr<LiveScreen> screen_;
    const std::shared_ptr<ViewQueue> views_ = std::make_shared<ViewQueue>();
    /// What was shown last.
    ElectionView view_;
    bool ended_ = false;
};

}  // namespace

Subcommand AddWatch(CLI::App& application)
{
    const auto options = std::make_shared<WatchOptions>();
    CLI::App* const app = application.add_subcommand("watch", kDescription);
    app->footer(kFooter);
    CLI::Option* const json = app->add_flag("--json", options->json, "One JSON object a line, for programs");
    app->add_flag("--live", options->live, "On a terminal: the queue as it is, as velmor status shows it")
        ->excludes(json);
    Subcommand watch;
    watch.app = app;
    watch.run = [options](const Settings& settings) {
        // That nobody reads any more is no reason to die.
        ::signal(SIGPIPE, SIG_IGN);
        return Watch(settings, *options).Run();
    };
    return watch;
}

}  // namespace kx::velmor::cli
