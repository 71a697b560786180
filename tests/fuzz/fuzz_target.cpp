#include "tests/fuzz/fuzz_target.h"

#include <algorithm>
#include <charconv>

namespace kx::velmor::testing_support {

std::string InputLines::Line()
{
    const std::size_t end = std::min(input_.find('\n', position_), input_.size());
    std::string line = input_.substr(position_, end - position_);
    position_ = std::min(end + 1, input_.size());
    return line;
}

std::optional<std::int64_t> InputLines::Number()
{
    const std::string line = Line();
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    return error == std::errc() && end == line.data() + line.size() ? std::optional(number) : std::nullopt;
}

std::string InputLines::Rest()
{
    std::string rest = input_.substr(position_);
    position_ = input_.size();
    return rest;
}

std::vector<std::string> SplitAt(char separator, const std::string& text)
{
    std::vector<std::string> parts{std::string()};
    for (const char character : text)
    {
        if (character == separator)
        {
            parts.emplace_back();
        }
        else
        {
            parts.back() += character;
        }
    }
    return parts;
}

std::optional<std::vector<std::string>> ExpectedComponents(const std::string& path)
{
    std::vector<std::string> components = SplitAt('/', path);
    components.erase(std::remove(components.begin(), components.end(), std::string()), components.end());
    const bool refused =
        components.empty() || std::any_of(components.begin(), components.end(), [](const std::string& component) {
            return component == "." || component == ".." || component.find('\0') != std::string::npos;
        });
    return refused ? std::nullopt : std::optional(components);
}

std::string Shown(const std::string& text)
{
    return Join("\\0", SplitAt('\0', text));
}

std::string Join(const std::string& separator, const std::vector<std::string>& parts)
{
    std::string joined;
    for (const std::string& part : parts)
    {
        joined += (&part == &parts.front() ? "" : separator) + part;
    }
    return joined;
}

}  // namespace kx::velmor::testing_support

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Without any bytes there may be no address.
    kx::velmor::testing_support::CheckInput(size == 0 ? std::string()
                                                      : std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
