#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// What a target defines: looks at one input, and throws `BrokenProperty` when something does not hold for it that has
/// to hold for every input. Keeps nothing from one input to the next.
void CheckInput(const std::string& input);

/// Of no type that a target expects from the product, so that it leaves `CheckInput`: the fuzzer takes that for a
/// crash, and the replay for a failed test.
class BrokenProperty : public std::logic_error
{
public:
    using std::logic_error::logic_error;
};

inline void Require(bool holds, const std::string& property)
{
    if (!holds)
    {
        throw BrokenProperty(property);
    }
}

/// An input of several values, a line each, which keeps corpora readable. What is missing is empty.
class InputLines
{
public:
    explicit InputLines(const std::string& input) : input_(input) {}

    std::string Line();
    /// Empty where the line is no number.
    std::optional<std::int64_t> Number();
    /// All that is left, line breaks included.
    std::string Rest();

private:
    const std::string& input_;
    std::size_t position_ = 0;
};

/// "/a//b" split at '/' as "", "a", "", "b".
std::vector<std::string> SplitAt(char separator, const std::string& text);

/// The components that a path is expected to have; empty where it must be refused, as naming no node.
std::optional<std::vector<std::string>> ExpectedComponents(const std::string& path);

/// How messages show a text: with "\0" for each NUL, at which they would end.
std::string Shown(const std::string& text);

/// The parts with the separator between them.
std::string Join(const std::string& separator, const std::vector<std::string>& parts);

}  // namespace kx::velmor::testing_support

/// One input, from the fuzzer or from a file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
