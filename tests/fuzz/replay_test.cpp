// Feeds the inputs that are kept in the tree to a target that was built without a fuzzer, so that its properties are
// checked in every build.

#include "tests/fuzz/fuzz_target.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::vector<char> Read(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(VELMOR_FUZZ_SUITE, PropertiesHoldForEveryInputInTheTree)
{
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VELMOR_FUZZ_CORPUS))
    {
        SCOPED_TRACE(entry.path());
        const std::vector<char> input = Read(entry.path());
        EXPECT_NO_THROW(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()));
        ++inputs;
    }
    EXPECT_GT(inputs, 0);
}

TEST(VELMOR_FUZZ_SUITE, PropertiesHoldForNoInput)
{
    EXPECT_NO_THROW(LLVMFuzzerTestOneInput(nullptr, 0));
}

}  // namespace
