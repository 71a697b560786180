#include "cli/live_view.h"

#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/queue_table.h"
#include "cli/settings.h"
#include "cli/texts.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

namespace {

// As every terminal of today understands them: the second screen and back, the cursor hidden and shown, the cursor to
// the top, what is right of it cleared, what is below it cleared.
constexpr const char* kEnter = "\x1b[?1049h\x1b[?25l";
constexpr const char* kLeave = "\x1b[?25h\x1b[?1049l";
constexpr const char* kTop = "\x1b[H";
constexpr const char* kClearLine = "\x1b[K";
constexpr const char* kClearRest = "\x1b[J";

std::string Headline(const ElectionView& view)
{
    if (!view.known)
    {
        return "Waiting for a server";
    }
    std::string text = view.connected ? "" : "No server answers; before that: ";
    if (!view.leader)
    {
        return text + "nobody leads";
    }
    const Leader& leader = *view.leader;
    text += Printable(leader.identity.empty() ? leader.node : leader.identity) + " leads";
    return leader.epoch == 0 ? text : text + ", epoch " + std::to_string(leader.epoch);
}

}  // namespace

std::string Frame(const std::string& election, const ElectionView& view, ScreenSize size,
                  std::chrono::system_clock::time_point now)
{
    ElectionView aged = view;
    for (Participant& participant : aged.queue)
    {
        participant.age = std::max(std::chrono::duration_cast<std::chrono::milliseconds>(now - participant.joined),
                                   std::chrono::milliseconds(0));
    }
    std::vector<std::string> lines{Printable(election) + "  " + IsoTime(now), Headline(view), ""};
    for (std::string& line : TableOf(aged))
    {
        lines.push_back(std::move(line));
    }
    if (lines.size() > size.rows)
    {
        const std::size_t shown = size.rows - std::min<std::size_t>(size.rows, 1);
        const std::string more = std::to_string(lines.size() - shown) + " more";
        lines.resize(shown);
        lines.push_back(more);
    }

    std::string frame = kTop;
    for (std::size_t row = 0; row < lines.size(); ++row)
    {
        frame += (row == 0 ? "" : "\r\n") + Cut(lines[row], size.columns) + kClearLine;
    }
    return frame + kClearRest;
}

LiveScreen::LiveScreen()
{
    if (isatty(STDOUT_FILENO) == 0)
    {
        throw Failure(kUsage, "--live: standard output is no terminal; leave the option out for a line per change");
    }
    termios input{};
    // In the background this process would be stopped for changing it.
    if (tcgetpgrp(STDIN_FILENO) == getpgrp() && tcgetattr(STDIN_FILENO, &input) == 0)
    {
        input_ = input;
    }
    Enter();
}

LiveScreen::~LiveScreen()
{
    try
    {
        Leave();
    }
    catch (const std::exception&)
    {
        // The terminal has gone.
    }
}

ScreenSize LiveScreen::Size() const
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
    {
        return {24, 80};
    }
    return {size.ws_row, size.ws_col};
}

void LiveScreen::Enter()
{
    if (std::exchange(entered_, true))
    {
        return;
    }
    if (input_)
    {
        termios quiet = *input_;
        // Keys for signals go on to work.
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    Write(STDOUT_FILENO, kEnter);
}

void LiveScreen::Leave()
{
    if (!std::exchange(entered_, false))
    {
        return;
    }
    if (input_)
    {
        // What was typed meanwhile was not meant for the shell.
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &*input_);
    }
    Write(STDOUT_FILENO, kLeave);
}

}  // namespace kx::velmor::cli
