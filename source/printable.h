#pragma once

#include <string>

namespace kx::velmor {

/// The text with "\0" in place of each NUL, at which what() would end.
inline std::string Printable(const std::string& text)
{
    std::string printable;
    for (const char character : text)
    {
        printable += character == '\0' ? std::string("\\0") : std::string(1, character);
    }
    return printable;
}

}  // namespace kx::velmor
