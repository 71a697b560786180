#include "tests/support/transaction_log.h"

#include <fstream>
#include <stdexcept>
#include <type_traits>

namespace kx::velmor::testing_support {

namespace {

/// Numbers and texts as they stand in the file: big-endian, texts with their length ahead.
class Bytes
{
public:
    template <typename Number>
    Bytes& Add(Number number)
    {
        const auto bits = static_cast<std::make_unsigned_t<Number>>(number);
        for (std::size_t shift = 8 * sizeof bits; shift > 0; shift -= 8)
        {
            bytes_ += static_cast<char>(bits >> (shift - 8) & 0xFFU);
        }
        return *this;
    }

    Bytes& AddText(const std::string& text)
    {
        Add(static_cast<std::int32_t>(text.size()));
        bytes_ += text;
        return *this;
    }

    const std::string& Get() const { return bytes_; }

private:
    std::string bytes_;
};

std::int64_t Adler32(const std::string& bytes)
{
    constexpr std::int64_t kBase = 65'521;
    std::int64_t low = 1;
    std::int64_t high = 0;
    for (const char byte : bytes)
    {
        low = (low + static_cast<unsigned char>(byte)) % kBase;
        high = (high + low) % kBase;
    }
    return high << 16U | low;
}

/// The first transaction of the second epoch.
constexpr std::int64_t kTransaction = 0x1'0000'0000;
constexpr std::int64_t kTime = 1'000'000'000'000;
constexpr std::int32_t kCreate = 1;
constexpr std::int32_t kAllPermissions = 31;
constexpr std::int32_t kVersion = 2;

}  // namespace

void RecordCreation(const std::filesystem::path& dataDirectory, const std::string& path, std::int32_t counter)
{
    Bytes transaction;
    // Session, request, number, time and kind; then path, no data, an open access list, not ephemeral, the counter.
    transaction.Add(std::int64_t{0}).Add(std::int32_t{0}).Add(kTransaction).Add(kTime).Add(kCreate);
    transaction.AddText(path).AddText({});
    transaction.Add(std::int32_t{1}).Add(kAllPermissions).AddText("world").AddText("anyone");
    transaction.Add(std::int8_t{0}).Add(counter);

    Bytes file;
    file.Add('Z').Add('K').Add('L').Add('G').Add(kVersion).Add(std::int64_t{0});
    file.Add(Adler32(transaction.Get())).AddText(transaction.Get()).Add('B');

    std::ofstream log(dataDirectory / "version-2" / "log.100000000", std::ios::binary);
    log << file.Get();
    log.flush();
    if (!log)
    {
        throw std::runtime_error("cannot write a transaction log below " + dataDirectory.string());
    }
}

}  // namespace kx::velmor::testing_support
