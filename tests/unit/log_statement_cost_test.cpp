#include <kx/logging/logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

std::atomic<int> g_allocations{0};
std::size_t g_lastTextSize = 0;

}  // namespace

// Replaced for the whole executable, to count. Not inlined: the compiler would warn of each half it sees alone.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    ++g_allocations;
    if (void* const memory = std::malloc(size == 0 ? 1 : size))
    {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{static_cast<std::int32_t>(LogLevel::Info)};

void ForceLockHandlers() {}

void LogMessage(LogLevel /*level*/, unsigned int /*code*/, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& /*source*/, const char* /*file*/, int /*line*/,
                const std::string& text, const std::string& /*extra*/)
{
    g_lastTextSize = text.size();
}

}  // namespace kx::logging

namespace {

using kx::logging::LogLevel;
using kx::logging::Source;

const std::shared_ptr<const Source> g_source = std::make_shared<const Source>("cost");

std::string LongText()
{
    return std::string(1000, 'x');
}

void Statement(LogLevel level)
{
    KX_LOG(level, g_source) << "children=" << LongText() << ' ' << 4711 << LongText();
}

TEST(LogStatementCostTest, BelowTheThresholdNothingIsAllocated)
{
    const int before = g_allocations;
    Statement(LogLevel::Debug);
    EXPECT_EQ(g_allocations - before, 0);
}

TEST(LogStatementCostTest, WrittenStatementReusesTheStreamsStorage)
{
    const auto write = [] {
        for (int i = 0; i < 200; ++i)
        {
            kx::logging::GetThreadLocalStream() << "0123456789";
        }
        KX_LOG(LogLevel::Info, g_source) << "the end";
    };
    write();
    const int before = g_allocations;
    write();
    EXPECT_EQ(g_lastTextSize, 2007U);
    EXPECT_EQ(g_allocations - before, 1) << "the copy of the text for the library, and no more";
}

struct Instruction
{
    std::string mnemonic;
    std::string operands;
    /// What the linker is to fill in, if anything.
    std::string relocation;
};

using Code = std::map<unsigned long, Instruction>;

std::string Disassembly()
{
    const std::string command = std::string(VELMOR_OBJDUMP) + " -d -r --no-show-raw-insn '" VELMOR_SUBJECT_OBJECT "'";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
    {
        throw std::runtime_error("cannot run " + command);
    }
    std::string output;
    char buffer[4096];
    while (const std::size_t size = std::fread(buffer, 1, sizeof buffer, pipe.get()))
    {
        output.append(buffer, size);
    }
    return output;
}

/// The subject's instructions by address, without its cold parts.
Code SubjectCode(const std::string& disassembly)
{
    Code code;
    bool inSubject = false;
    std::istringstream lines(disassembly);
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        std::string address;
        std::string mnemonic;
        words >> address >> mnemonic >> std::ws;
        std::string operands;
        std::getline(words, operands);

        if (address.empty() || mnemonic.empty())
        {
            continue;
        }
        if (mnemonic.front() == '<')
        {
            inSubject = mnemonic == "<LogStatementCostSubject>:";
        }
        else if (inSubject && mnemonic.rfind("R_", 0) == 0)
        {
            code.rbegin()->second.relocation = operands;
        }
        else if (inSubject && address.back() == ':')
        {
            code[std::stoul(address, nullptr, 16)] = Instruction{mnemonic, operands, ""};
        }
    }
    return code;
}

bool IsConditionalJump(const Instruction& instruction)
{
    return instruction.mnemonic.front() == 'j' && instruction.mnemonic.rfind("jmp", 0) != 0;
}

/// Whether the code at `address` leads to the end without calling anything or branching again.
bool JustReturns(const Code& code, unsigned long address)
{
    for (auto at = code.find(address); at != code.end(); ++at)
    {
        const std::string& mnemonic = at->second.mnemonic;
        if (mnemonic.rfind("ret", 0) == 0)
        {
            return true;
        }
        if (mnemonic.rfind("call", 0) == 0 || mnemonic.front() == 'j')
        {
            return false;
        }
    }
    return false;
}

TEST(LogStatementCostTest, BelowTheThresholdTheCodeIsOneLoadAndOneComparison)
{
#if !defined(__x86_64__)
    GTEST_SKIP() << "reads x86-64 code";
#endif
    const std::string disassembly = Disassembly();
    const Code code = SubjectCode(disassembly);
    SCOPED_TRACE(disassembly);

    int thresholdReferences = 0;
    for (const auto& [address, instruction] : code)
    {
        thresholdReferences += instruction.relocation.find("g_minLogLevel") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(thresholdReferences, 1);

    // Up to the first branch nothing happens but the test and, with some compilers, the making of a stack frame.
    int comparisons = 0;
    auto branch = code.begin();
    for (; branch != code.end() && !IsConditionalJump(branch->second); ++branch)
    {
        const std::string& mnemonic = branch->second.mnemonic;
        for (const std::string_view costly : {"call", "lock", "xchg", "mfence"})
        {
            EXPECT_NE(mnemonic.rfind(costly, 0), 0U) << mnemonic << " before the test";
        }
        comparisons += mnemonic.rfind("cmp", 0) == 0 || mnemonic.rfind("test", 0) == 0 ? 1 : 0;
    }
    ASSERT_NE(branch, code.end()) << "no branch";
    EXPECT_EQ(comparisons, 1);
    EXPECT_LE(std::distance(code.begin(), branch), 12);

    const unsigned long target = std::stoul(branch->second.operands, nullptr, 16);
    EXPECT_NE(JustReturns(code, target), JustReturns(code, std::next(branch)->first))
        << "one way returns at once, the other writes";
}

}  // namespace
