#include "tests/chaos/timeline.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

namespace kx::velmor::chaos {

namespace {

// All in pixels.
constexpr double kLeft = 60;
constexpr double kRight = 30;
constexpr double kTitleHeight = 34;
constexpr double kLabelRow = 13;
constexpr double kLane = 46;
constexpr double kRoleBand = 20;
constexpr double kSessionBand = 7;
constexpr double kAxis = 30;
constexpr double kLegend = 34;
constexpr double kPerSecond = 16;
constexpr double kLeastWidth = 900;
/// Of the font in which labels are set, on the average and rather too much.
constexpr double kCharacter = 5.6;

struct Colour
{
    const char* what;
    const char* colour;
};

constexpr Colour kRoles[] = {{"leader", "#2e7d32"},  {"next", "#fbc02d"}, {"follower", "#90caf9"},
                             {"joining", "#e1bee7"}, {"lost", "#ef9a9a"}, {"left", "#eeeeee"}};
constexpr const char* kSureColour = "#0d47a1";

const char* ColourOf(const std::string& role)
{
    const auto* const found =
        std::find_if(std::begin(kRoles), std::end(kRoles), [&](const Colour& each) { return role == each.what; });
    return found == std::end(kRoles) ? "#000000" : found->colour;
}

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char c : text)
    {
        switch (c)
        {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                // What XML has no way to write.
                escaped += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
                break;
        }
    }
    return escaped;
}

class Drawing
{
public:
    explicit Drawing(const History& history) : history_(history)
    {
        const double seconds = Seconds(history.whole.end);
        scale_ = std::max(kPerSecond, (kLeastWidth - kLeft - kRight) / std::max(seconds, 1.0));
        width_ = kLeft + seconds * scale_ + kRight;
        PlaceLabels();
        top_ = kTitleHeight + kLabelRow * static_cast<double>(rowEnds_.size()) + 8;
        bottom_ = top_ + kLane * static_cast<double>(history.members.size());
    }

    std::string Draw(const std::vector<Violation>& violations, const std::string& title)
    {
        const double height = bottom_ + kAxis + kLegend;
        svg_ << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << Number(width_) << R"(" height=")"
             << Number(height) << R"(" font-family="sans-serif" font-size="11">)" << '\n';
        Rectangle(0, 0, width_, height, R"(fill="white")");
        Text(kLeft, 20, title, R"(font-size="14")");
        Axis();
        Faults();
        for (std::size_t i = 0; i < history_.members.size(); ++i)
        {
            Lane(history_.members[i], top_ + kLane * static_cast<double>(i));
        }
        for (const Violation& violation : violations)
        {
            Rectangle(X(violation.at), top_, 1.5, bottom_ + 22 - top_, R"(fill="#d50000")");
            Text(X(violation.at) + 4, bottom_ + 28, violation.rule, R"(class="violation" fill="#d50000")");
        }
        Legend(bottom_ + kAxis + 16);
        svg_ << "</svg>\n";
        return svg_.str();
    }

private:
    double Seconds(Instant at) const { return static_cast<double>((at - history_.whole.begin).count()) / 1e6; }
    double X(Instant at) const
    {
        return kLeft + Seconds(std::clamp(at, history_.whole.begin, history_.whole.end)) * scale_;
    }

    static std::string Number(double value)
    {
        char text[32];
        std::snprintf(text, sizeof(text), "%.1f", value);
        return text;
    }

    void Rectangle(double x, double y, double width, double height, const std::string& style)
    {
        svg_ << "<rect x=\"" << Number(x) << "\" y=\"" << Number(y) << "\" width=\"" << Number(width) << "\" height=\""
             << Number(height) << "\" " << style << "/>\n";
    }

    void Text(double x, double y, const std::string& text, const std::string& style)
    {
        svg_ << "<text x=\"" << Number(x) << "\" y=\"" << Number(y) << "\" " << style << '>' << Escaped(text)
             << "</text>\n";
    }

    /// Each label goes into the first row with room for it.
    void PlaceLabels()
    {
        for (const Fault& fault : history_.faults)
        {
            const double x = X(fault.when.begin);
            const double end = x + kCharacter * static_cast<double>(fault.label.size()) + 10;
            auto row = std::find_if(rowEnds_.begin(), rowEnds_.end(), [&](double taken) { return taken <= x; });
            if (row == rowEnds_.end())
            {
                row = rowEnds_.insert(row, 0);
            }
            *row = end;
            rows_.push_back(static_cast<std::size_t>(row - rowEnds_.begin()));
            width_ = std::max(width_, end);
        }
    }

    double LabelTop(std::size_t fault) const { return kTitleHeight + kLabelRow * static_cast<double>(rows_[fault]); }

    void Axis()
    {
        const double seconds = Seconds(history_.whole.end);
        const int step = seconds > 120 ? 10 : seconds > 30 ? 5 : 1;
        for (int second = 0; second <= seconds; second += step)
        {
            const double x = kLeft + second * scale_;
            Rectangle(x, top_, 0.6, bottom_ - top_ + 5, R"(fill="#cccccc")");
            Text(x, bottom_ + 17, std::to_string(second) + " s", R"(text-anchor="middle" fill="#555555")");
        }
    }

    void Faults()
    {
        for (std::size_t i = 0; i < history_.faults.size(); ++i)
        {
            const Fault& fault = history_.faults[i];
            const double x = X(fault.when.begin);
            const double y = LabelTop(i);
            Rectangle(x, y, 0.8, top_ - y, R"(fill="#9e9e9e")");
            for (std::size_t lane = 0; lane < history_.members.size(); ++lane)
            {
                const std::vector<std::string>& hit = fault.members;
                if (hit.empty() || std::find(hit.begin(), hit.end(), history_.members[lane].name) != hit.end())
                {
                    Rectangle(x, top_ + kLane * static_cast<double>(lane), std::max(X(fault.when.end) - x, 2.0), kLane,
                              R"(fill="#616161" fill-opacity="0.25")");
                }
            }
        }
        // After all lines, so that none of them goes through a label.
        for (std::size_t i = 0; i < history_.faults.size(); ++i)
        {
            Text(X(history_.faults[i].when.begin) + 3, LabelTop(i) + 10, history_.faults[i].label,
                 R"(class="fault" font-size="10" fill="#333333" stroke="white" stroke-width="3" paint-order="stroke")");
        }
    }

    void Lane(const Member& member, double y)
    {
        svg_ << "<g class=\"lane\">\n";
        Rectangle(kLeft, y, width_ - kLeft - kRight, 0.6, R"(fill="#999999")");
        Text(kLeft - 10, y + 24, member.name, R"(text-anchor="end" font-size="13")");
        for (std::size_t i = 0; i < member.roles.size(); ++i)
        {
            const RoleChange& change = member.roles[i];
            const Instant next = i + 1 < member.roles.size() ? member.roles[i + 1].at : history_.whole.end;
            const double x = X(change.at);
            const double end = X(std::min(next, EndOfLife(member, change.at)));
            Rectangle(x, y + 8, std::max(end - x, 0.5), kRoleBand,
                      std::string("fill=\"") + ColourOf(change.role) + '"');
        }
        for (const Leadership& leadership : member.bySession)
        {
            SureLead(leadership.when, y);
        }
        for (const Tenure& tenure : member.tenures)
        {
            if (tenure.epoch != 0)
            {
                SureLead({tenure.from, tenure.until}, y);
            }
        }
        svg_ << "</g>\n";
    }

    void SureLead(const Interval& when, double y)
    {
        const double x = X(when.begin);
        Rectangle(x, y + 8 + kRoleBand + 2, std::max(X(when.end) - x, 0.5), kSessionBand,
                  std::string("fill=\"") + kSureColour + '"');
    }

    /// When the process that lived then was last heard of.
    static Instant EndOfLife(const Member& member, Instant at)
    {
        Instant end = at;
        for (const Life& life : member.lives)
        {
            if (life.begin <= at)
            {
                end = life.end;
            }
        }
        return end;
    }

    void Legend(double y)
    {
        double x = kLeft;
        const auto entry = [&](const std::string& what, const std::string& style, double height) {
            Rectangle(x, y - height / 2 - 4, 16, height, style);
            Text(x + 21, y, what, "");
            x += 36 + 6 * static_cast<double>(what.size());
        };
        for (const Colour& role : kRoles)
        {
            entry(role.what, std::string("fill=\"") + role.colour + '"', 10);
        }
        entry(history_.subject == Subject::Candidate ? "leader by IsLeader" : "leader by the session's view",
              std::string("fill=\"") + kSureColour + '"', kSessionBand);
        entry("fault", R"(fill="#616161" fill-opacity="0.25")", 14);
    }

    const History& history_;
    double scale_ = kPerSecond;
    double width_ = 0;
    double top_ = 0;
    double bottom_ = 0;
    /// How far each row of labels is taken, and which row each fault's label is in.
    std::vector<double> rowEnds_;
    std::vector<std::size_t> rows_;
    std::ostringstream svg_;
};

}  // namespace

std::string DrawTimeline(const History& history, const std::vector<Violation>& violations, const std::string& title)
{
    return Drawing(history).Draw(violations, title);
}

}  // namespace kx::velmor::chaos
