#include "tests/fuzz/server_grammar.h"

#include "tests/fuzz/fuzz_target.h"

#include <algorithm>

namespace kx::velmor::testing_support {

namespace {

bool IsPort(const std::string& text)
{
    long number = 0;
    for (const char digit : text)
    {
        if (digit < '0' || digit > '9')
        {
            return false;
        }
        number = number * 10 + (digit - '0');
        if (number > 65'535)
        {
            return false;
        }
    }
    return number > 0 && text.size() <= 5;
}

bool IsHost(const std::string& text)
{
    return !text.empty() && std::none_of(text.begin(), text.end(), [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte <= 0x20 || byte == 0x7f || character == '[' || character == ']' || character == '/';
    });
}

bool IsServer(const std::string& text)
{
    // From the front, where the product begins at the end.
    if (!text.empty() && text.front() == '[')
    {
        const std::size_t end = text.find("]:");
        return end != std::string::npos && IsHost(text.substr(1, end - 1)) && IsPort(text.substr(end + 2));
    }
    const std::size_t colon = text.find(':');
    return colon != std::string::npos && IsHost(text.substr(0, colon)) && IsPort(text.substr(colon + 1));
}

}  // namespace

bool ServersAreGood(const std::string& servers)
{
    const std::vector<std::string> items = SplitAt(',', servers);
    return std::all_of(items.begin(), items.end(), IsServer);
}

}  // namespace kx::velmor::testing_support
