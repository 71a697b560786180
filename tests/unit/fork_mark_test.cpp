#include "source/fork_mark.h"

#include "tests/support/forked_child.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <thread>
#include <vector>

namespace kx::velmor {
namespace {

using testing_support::AwaitEndOf;
using testing_support::FindInChild;
using testing_support::Findings;

constexpr int kInherited = 3;
constexpr int kNotInherited = 4;

TEST(ForkMark, IsInheritedByAChildAndStaysItsMakers)
{
    const ForkMark mark;
    const ForkMark copy = mark;
    EXPECT_EQ(FindInChild([&](Findings& findings) {
                  findings.Expect(mark.Inherited(), "the mark is not inherited");
                  findings.Expect(copy.Inherited(), "the copy is not inherited");
              }),
              "");
    EXPECT_FALSE(mark.Inherited());
    EXPECT_FALSE(copy.Inherited());
    EXPECT_FALSE(ForkMark().Inherited());
}

TEST(ForkMark, IsInheritedByTheChildOfARawSystemCall)
{
    const ForkMark mark;
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0)
    {
        ::_exit(mark.Inherited() ? kInherited : kNotInherited);
    }
    ASSERT_GT(child, 0);
    EXPECT_EQ(AwaitEndOf(child), kInherited);
}

const ForkMark* g_marked = nullptr;
bool g_inheritedInHandler = false;
/// 0 for success. This handler runs before each one that a mark registers: no mark exists yet.
const int g_registered =
    ::pthread_atfork(nullptr, nullptr, [] { g_inheritedInHandler = g_marked != nullptr && g_marked->Inherited(); });

TEST(ForkMark, IsInheritedInForkHandlers)
{
    ASSERT_EQ(g_registered, 0);
    const ForkMark mark;
    g_marked = &mark;
    EXPECT_EQ(FindInChild([](Findings& findings) { findings.Expect(g_inheritedInHandler, "not inherited"); }), "");
    g_marked = nullptr;
}

TEST(ForkMark, MadeInAChildIsTheChildsUntilThatForks)
{
    const ForkMark ours;
    EXPECT_EQ(FindInChild([&](Findings& child) {
                  const ForkMark childs;
                  child.Expect(!childs.Inherited(), "the child inherits its own mark");
                  child.Expect(ours.Inherited(), "the parent's mark becomes the child's");
                  child.Expect(FindInChild([&](Findings& grandchild) {
                                   grandchild.Expect(ours.Inherited() && childs.Inherited(), "not inherited");
                                   const ForkMark own;
                                   grandchild.Expect(!own.Inherited(), "it inherits its own mark");
                                   grandchild.Expect(ours.Inherited() && childs.Inherited(), "not inherited any more");
                               }).empty(),
                               "the grandchild is wrong");
                  child.Expect(!childs.Inherited(), "the grandchild takes over");
              }),
              "");
    EXPECT_FALSE(ours.Inherited());
}

TEST(ForkMark, MadeOnManyThreadsOfAChildAreAllTheChilds)
{
    const ForkMark ours;
    EXPECT_EQ(FindInChild([&](Findings& findings) {
                  std::atomic<int> inherited{0};
                  std::vector<std::thread> threads;
                  for (int i = 0; i < 8; ++i)
                  {
                      threads.emplace_back([&] { inherited += ForkMark().Inherited() ? 1 : 0; });
                  }
                  for (std::thread& thread : threads)
                  {
                      thread.join();
                  }
                  findings.Expect(inherited == 0, "inherited from itself");
                  findings.Expect(ours.Inherited(), "the parent's becomes the child's");
              }),
              "");
}

/// From now on this process cannot have pages wiped.
void RefuseToWipe()
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_madvise, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, MADV_WIPEONFORK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof(filter) / sizeof(filter[0]), filter};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    {
        std::_Exit(EXIT_FAILURE);
    }
}

void ForkWhereTheKernelRefuses()
{
    RefuseToWipe();
    const ForkMark ours;
    const std::string found = FindInChild([&](Findings& child) {
        child.Expect(ours.Inherited(), "the parent's mark is not inherited");
        const ForkMark childs;
        child.Expect(!childs.Inherited() && ours.Inherited(), "the child's mark is wrong");
        child.Expect(FindInChild([&](Findings& grandchild) {
                         grandchild.Expect(ours.Inherited() && childs.Inherited(), "not inherited");
                     }).empty(),
                     "the grandchild is wrong");
    });
    std::_Exit(found.empty() && !ours.Inherited() ? kInherited : kNotInherited);
}

TEST(ForkMarkDeathTest, WorksWhereTheKernelWipesNothing)
{
    // A process that has made no mark before.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(ForkWhereTheKernelRefuses(), ::testing::ExitedWithCode(kInherited), "");
}

struct Counted
{
    int count = 0;
};

TEST(OfThisProcess, IsOnePerProcess)
{
    OfThisProcess<Counted>().count = 7;
    EXPECT_EQ(OfThisProcess<Counted>().count, 7);
    EXPECT_EQ(FindInChild([](Findings& findings) {
                  findings.Expect(OfThisProcess<Counted>().count == 0, "the child has its parent's");
                  OfThisProcess<Counted>().count = 8;
                  findings.Expect(OfThisProcess<Counted>().count == 8, "the child has none of its own");
              }),
              "");
    EXPECT_EQ(OfThisProcess<Counted>().count, 7);
}

TEST(Abandon, KeepsAnObjectForGood)
{
    std::weak_ptr<int> weak;
    EXPECT_EQ(FindInChild([&](Findings& findings) {
                  auto object = std::make_shared<int>(1);
                  weak = object;
                  Abandon(object);
                  object.reset();
                  findings.Expect(!weak.expired(), "it is gone");
              }),
              "");
}

}  // namespace
}  // namespace kx::velmor
