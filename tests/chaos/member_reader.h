#pragma once

#include "tests/chaos/history.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace kx::velmor::chaos {

/// Reads what a member writes, while it writes it.
///
/// Threads: one at a time.
class MemberReader
{
public:
    /// The file need not be there yet.
    MemberReader(std::string name, std::filesystem::path file);

    /// What the file tells up to now; a line that has no end yet is left for later. Throws `std::runtime_error` for
    /// what cannot be understood.
    const Member& Update();

private:
    using Json = nlohmann::ordered_json;

    void Add(const std::string& text);
    void Session(const Json& line);
    void OwnerSign(const Json& line);
    void Joining(const Json& line);
    void Role(const Json& line);
    void Node(const Json& line);
    void Queued(const Json& line);
    void Leads(const Json& line);
    void TenureOf(const Json& line);
    void NoticeOf(const Json& line);
    void Consumption(const Json& line);
    void Child(const Json& line);

    std::size_t StayIndex(const Json& line) const;
    Stay& StayOf(const Json& line) { return member_.stays.at(StayIndex(line)); }

    const std::filesystem::path path_;
    std::ifstream file_;
    std::string rest_;
    Member member_;
    /// Each process of the member numbers its stays anew.
    std::size_t firstStay_ = 0;
};

}  // namespace kx::velmor::chaos
