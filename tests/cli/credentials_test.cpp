// The credentials come from a file that is nobody else's, and nowhere to light.

#include "cli/exit_status.h"
#include "tests/cli/front_fixture.h"

#include <gmock/gmock.h>

namespace kx::velmor::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kSecret = "user:top-secret";

class CredentialsTest : public FrontTest
{
protected:
    std::string File() const { return SystemFile().string() + ".digest"; }
};

TEST_F(CredentialsTest, AreReadFromALineWithAndWithoutItsEnd)
{
    for (const char* const end : {"", "\n", "\r\n"})
    {
        EXPECT_EQ(RunProbe({"--digest-file", Write(File(), std::string(kSecret) + end)}), 0) << Err();
        EXPECT_EQ(settings_->digest, kSecret);
        EXPECT_EQ(SessionOptionsFor(*settings_).digestCredentials, kSecret);
    }
    EXPECT_EQ(RunProbe({"--digest-file", Write(File(), "user:with:colons \n")}), 0) << Err();
    EXPECT_EQ(settings_->digest, "user:with:colons ");
}

TEST_F(CredentialsTest, MayBeReadByTheGroup)
{
    EXPECT_EQ(RunProbe({"--digest-file", Write(File(), kSecret, 0640)}), 0) << Err();
}

TEST_F(CredentialsTest, AreRefusedWhenEverybodyMayReadOrChangeThem)
{
    for (const mode_t mode : {0644U, 0604U, 0602U, 0666U})
    {
        EXPECT_EQ(RunProbe({"--digest-file", Write(File(), kSecret, mode)}), kUsage);
        EXPECT_THAT(Err(), testing::StartsWith("velmor probe: --digest-file: " + File() +
                                               ": everybody may read or change it, and it holds a password: take that "
                                               "away by chmod o= " +
                                               File() + "\n"));
        EXPECT_THAT(Err(), Not(HasSubstr("secret")));
        EXPECT_FALSE(settings_);
    }
}

TEST_F(CredentialsTest, AreRefusedWithoutBeingShownWhenTheyMakeNoSense)
{
    const std::string zero("user:top-secret\0", 16);
    const std::string twoLines = std::string(kSecret) + "\nuser:another-secret\n";
    for (const std::string& text : {std::string(), std::string("top-secret"), std::string(":top-secret"), zero,
                                    twoLines, "user:secret" + std::string(10'000, 'x')})
    {
        EXPECT_EQ(RunProbe({"--digest-file", Write(File(), text)}), kUsage);
        EXPECT_THAT(Err(), HasSubstr("it must hold one line like user:password\n"));
        EXPECT_THAT(Err(), Not(HasSubstr("secret")));
    }
    EXPECT_EQ(RunProbe({"--digest-file", std::filesystem::path(File()).parent_path()}), kUsage);
    EXPECT_THAT(Err(), HasSubstr(": Is a directory\n"));
}

}  // namespace
}  // namespace kx::velmor::cli
