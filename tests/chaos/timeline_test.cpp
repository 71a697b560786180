#include "tests/chaos/timeline.h"

#include "tests/chaos/made_up_history.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace kx::velmor::chaos {
namespace {

using boost::property_tree::ptree;
using ::testing::SizeIs;

using namespace std::chrono_literals;

/// Throws for what is not well-formed.
ptree Parse(const std::string& svg)
{
    std::istringstream stream(svg);
    ptree document;
    read_xml(stream, document);
    return document.get_child("svg");
}

std::vector<ptree> ChildrenWith(const ptree& parent, const std::string& element, const std::string& attribute,
                                const std::string& value)
{
    std::vector<ptree> found;
    for (const auto& [name, child] : parent)
    {
        if (name == element && child.get("<xmlattr>." + attribute, "") == value)
        {
            found.push_back(child);
        }
    }
    return found;
}

class ChaosTimeline : public ::testing::Test
{
protected:
    ptree Draw() { return Parse(DrawTimeline(history_.Get(), violations_, "title")); }

    MadeUpHistory history_{60s, 3};
    std::vector<Violation> violations_;
};

TEST_F(ChaosTimeline, HasALaneForEachMember)
{
    const std::vector<ptree> lanes = ChildrenWith(Draw(), "g", "class", "lane");
    ASSERT_THAT(lanes, SizeIs(3));
    EXPECT_EQ(lanes[1].get<std::string>("text"), "m2");
}

TEST_F(ChaosTimeline, ShowsRolesForAsLongAsTheyLast)
{
    history_.Get().members[0].roles = {{10s, "follower"}, {20s, "leader"}};
    const ptree lane = ChildrenWith(Draw(), "g", "class", "lane").at(0);
    const std::vector<ptree> leads = ChildrenWith(lane, "rect", "fill", "#2e7d32");
    ASSERT_THAT(leads, SizeIs(1));
    const std::vector<ptree> follows = ChildrenWith(lane, "rect", "fill", "#90caf9");
    ASSERT_THAT(follows, SizeIs(1));
    EXPECT_NEAR(leads[0].get<double>("<xmlattr>.width"), 4 * follows[0].get<double>("<xmlattr>.width"), 1);
}

TEST_F(ChaosTimeline, ShowsNoRoleOfAProcessThatIsNoMore)
{
    history_.Get().members[0].lives.clear();
    history_.AddLife(0, 0s, 30s);
    history_.Get().members[0].roles = {{20s, "leader"}};
    history_.Get().members[1].roles = {{20s, "leader"}};
    const std::vector<ptree> lanes = ChildrenWith(Draw(), "g", "class", "lane");
    const double ended = ChildrenWith(lanes[0], "rect", "fill", "#2e7d32").at(0).get<double>("<xmlattr>.width");
    const double living = ChildrenWith(lanes[1], "rect", "fill", "#2e7d32").at(0).get<double>("<xmlattr>.width");
    EXPECT_NEAR(living, 4 * ended, 1);
}

TEST_F(ChaosTimeline, ShowsLeadershipByTheSessionsViewApart)
{
    history_.AddStay(0, 1);
    history_.Lead(0, 0, 5s, 6s);
    history_.Lead(0, 0, 7s, 8s);
    history_.LeadByFlagOnly(0, 0, 9s, 10s);
    const ptree lane = ChildrenWith(Draw(), "g", "class", "lane").at(0);
    EXPECT_THAT(ChildrenWith(lane, "rect", "fill", "#0d47a1"), SizeIs(2));
}

TEST_F(ChaosTimeline, LabelsEachFaultAndEscapesTheLabels)
{
    history_.AddFault("a < b & \"c\" > d\n\x01", 5s, 6s, {"m1"});
    history_.AddFault("cut", 5s, 5s);
    const std::vector<ptree> labels = ChildrenWith(Draw(), "text", "class", "fault");
    ASSERT_THAT(labels, SizeIs(2));
    EXPECT_EQ(labels[0].data(), "a < b & \"c\" > d  ");
    EXPECT_EQ(labels[1].data(), "cut");
    // Both begin at once: in different rows, or one would cover the other.
    EXPECT_NE(labels[0].get<double>("<xmlattr>.y"), labels[1].get<double>("<xmlattr>.y"));
}

TEST_F(ChaosTimeline, ShowsAFaultInTheLanesOfThoseItHit)
{
    const auto shades = [this] {
        const ptree svg = Draw();
        return std::count_if(svg.begin(), svg.end(),
                             [](const auto& child) {
                                 // The legend has one, too.
                                 return child.second.get("<xmlattr>.fill-opacity", "") == "0.25";
                             }) -
               1;
    };
    history_.AddFault("cut", 5s, 6s, {"m1"});
    EXPECT_EQ(shades(), 1);
    history_.AddFault("lose quorum", 7s, 8s);
    EXPECT_EQ(shades(), 4);
}

TEST_F(ChaosTimeline, MarksViolations)
{
    EXPECT_THAT(ChildrenWith(Draw(), "text", "class", "violation"), SizeIs(0));
    violations_ = {{"overlap", "m1 and m2", 30s}, {"orphan", "c-1", 60s}};
    const std::vector<ptree> marks = ChildrenWith(Draw(), "text", "class", "violation");
    ASSERT_THAT(marks, SizeIs(2));
    EXPECT_EQ(marks[0].data(), "overlap");
    EXPECT_LT(marks[0].get<double>("<xmlattr>.x"), marks[1].get<double>("<xmlattr>.x"));
}

TEST(ChaosTimelineOfNothing, IsAPictureAllTheSame)
{
    EXPECT_NO_THROW(Parse(DrawTimeline(History{{0s, 0s}, 2s}, {}, "nothing")));
}

}  // namespace
}  // namespace kx::velmor::chaos
