#include "cli/texts.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace kx::velmor::cli {

namespace {

/// What the C library knows of characters, whatever language the user has, or the program has set up.
class Utf8Locale
{
public:
    Utf8Locale() : previous_(uselocale(Shared())) {}
    ~Utf8Locale() { uselocale(previous_); }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

private:
    static locale_t Shared()
    {
        // Never destroyed: a thread may be using it when the process ends.
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        if (locale == nullptr)
        {
            throw std::system_error(errno, std::generic_category(), "C.UTF-8");
        }
        return locale;
    }

    const locale_t previous_;
};

/// One character from the beginning of a text, which is not empty.
struct Character
{
    /// 1 for a byte that is no UTF-8.
    std::size_t bytes;
    wchar_t code;
    /// -1 for what cannot be shown.
    int columns;
};

Character First(std::string_view text)
{
    wchar_t code = L'\0';
    std::mbstate_t state{};
    const std::size_t bytes = std::mbrtowc(&code, text.data(), text.size(), &state);
    constexpr std::size_t kLongest = 4;
    if (bytes == 0 || bytes > kLongest)
    {
        return {1, static_cast<wchar_t>(static_cast<unsigned char>(text.front())), -1};
    }
    return {bytes, code, wcwidth(code)};
}

/// Marks that turn the direction of what follows, and line ends that are no control characters.
bool MovesText(wchar_t code)
{
    return code == L'\u061c' || (code >= L'\u200e' && code <= L'\u200f') || (code >= L'\u2028' && code <= L'\u202e') ||
           (code >= L'\u2066' && code <= L'\u2069');
}

std::string Escaped(const Character& character)
{
    constexpr wchar_t kOneByte = 0xff;
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), character.code > kOneByte ? "\\u%04x" : "\\x%02x",
                  static_cast<unsigned>(character.code));
    return text.data();
}

}  // namespace

std::string Printable(std::string_view text)
{
    const Utf8Locale locale;
    std::string printable;
    while (!text.empty())
    {
        const Character next = First(text);
        printable += next.columns < 0 || MovesText(next.code) ? Escaped(next) : std::string(text.substr(0, next.bytes));
        text.remove_prefix(next.bytes);
    }
    return printable;
}

std::size_t Width(std::string_view text)
{
    const Utf8Locale locale;
    std::size_t columns = 0;
    while (!text.empty())
    {
        const Character next = First(text);
        columns += static_cast<std::size_t>(std::max(next.columns, 0));
        text.remove_prefix(next.bytes);
    }
    return columns;
}

std::string Cut(std::string_view text, std::size_t columns)
{
    if (Width(text) <= columns)
    {
        return std::string(text);
    }
    if (columns == 0)
    {
        return {};
    }
    const Utf8Locale locale;
    std::size_t bytes = 0;
    for (std::size_t used = 1; bytes < text.size();)
    {
        const Character next = First(text.substr(bytes));
        used += static_cast<std::size_t>(std::max(next.columns, 0));
        if (used > columns)
        {
            break;
        }
        bytes += next.bytes;
    }
    return std::string(text.substr(0, bytes)) + "\u2026";
}

std::string IsoTime(std::chrono::system_clock::time_point time)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(time - whole);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(whole);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 40> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 8> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(rest.count()));
    return std::string(date.data()) + fraction.data();
}

std::string ShortDuration(std::chrono::milliseconds duration)
{
    struct Unit
    {
        const char* name;
        std::int64_t seconds;
    };
    constexpr std::array<Unit, 4> kUnits{{{"d", 86'400}, {"h", 3'600}, {"m", 60}, {"s", 1}}};
    const std::int64_t seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();
    for (std::size_t i = 0; i + 1 < kUnits.size(); ++i)
    {
        if (seconds >= kUnits[i].seconds)
        {
            const std::int64_t rest = seconds % kUnits[i].seconds / kUnits[i + 1].seconds;
            return std::to_string(seconds / kUnits[i].seconds) + kUnits[i].name + (rest < 10 ? " 0" : " ") +
                   std::to_string(rest) + kUnits[i + 1].name;
        }
    }
    return std::to_string(seconds) + "s";
}

std::string SessionNumber(std::int64_t session)
{
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "0x%" PRIx64, static_cast<std::uint64_t>(session));
    return text.data();
}

}  // namespace kx::velmor::cli
