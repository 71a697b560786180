// Schedules that have shown defects, each of which stays here: none may show anything any more.

#include "tests/simulation/isolated_run.h"
#include "tests/simulation/schedule.h"
#include "tests/simulation/schedule_draw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace kx::velmor::simulation {
namespace {

std::vector<std::filesystem::path> FoundSchedules()
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(VELMOR_SCHEDULES))
    {
        if (entry.path().extension() == ".schedule")
        {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string TestName(const ::testing::TestParamInfo<std::filesystem::path>& file)
{
    std::string name = file.param.stem().string();
    for (char& letter : name)
    {
        letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    return name;
}

std::string Read(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class FoundScheduleTest : public ::testing::TestWithParam<std::filesystem::path>
{};

/// With other seeds, too: the code may take other steps than when the schedule was found.
TEST_P(FoundScheduleTest, ShowsNothing)
{
    Schedule schedule = Parse(Read(GetParam()));
    const std::uint64_t found = schedule.seed;
    for (std::uint64_t other = 0; other <= 20; ++other)
    {
        schedule.seed = other == 0 ? found : other;
        const RunResult result = RunIsolated(schedule, {});

        EXPECT_FALSE(result.violation) << Describe(*result.violation) << '\n' << Print(schedule);
    }
}

INSTANTIATE_TEST_SUITE_P(, FoundScheduleTest, ::testing::ValuesIn(FoundSchedules()), TestName);

/// The output of the program, which runs in a process with other addresses each time.
std::string Replay(const std::filesystem::path& schedule)
{
    const std::string command = std::string(VELMOR_SIMULATE) + " --replay '" + schedule.string() + "'";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::string output;
    std::array<char, 512> buffer{};
    while (pipe && std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr)
    {
        output += buffer.data();
    }
    return output;
}

TEST(ReplayTest, TakesTheSameStepsInAnotherProcess)
{
    const std::filesystem::path file = std::filesystem::path(::testing::TempDir()) / "velmor-replayed.schedule";
    for (std::uint64_t seed = 1; seed <= 10; ++seed)
    {
        const Schedule schedule = DrawSchedule(seed);
        std::ofstream(file) << Print(schedule);

        const std::string fingerprint = "fingerprint " + std::to_string(RunIsolated(schedule, {}).fingerprint) + ",";

        EXPECT_EQ(Replay(file).substr(0, fingerprint.size()), fingerprint) << Print(schedule);
    }
    std::filesystem::remove(file);
}

TEST(ReplayTest, AnotherSeedTakesOtherSteps)
{
    Schedule schedule = DrawSchedule(1);
    const std::uint64_t first = RunIsolated(schedule, {}).fingerprint;

    ++schedule.seed;

    EXPECT_NE(RunIsolated(schedule, {}).fingerprint, first);
}

}  // namespace
}  // namespace kx::velmor::simulation
