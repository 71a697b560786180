#include "tests/cli/records.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kx::velmor::cli {

std::vector<Record> ReadRecords(const std::filesystem::path& file)
{
    std::vector<Record> records;
    std::ifstream stream(file);
    std::string line;
    // The last line may be about to be written.
    while (std::getline(stream, line) && !stream.eof())
    {
        Record record;
        std::int64_t at = 0;
        std::istringstream fields(line);
        if (!(fields >> record.word >> record.process >> record.epoch >> at))
        {
            throw std::runtime_error("no record: " + line);
        }
        record.at = std::chrono::nanoseconds(at);
        fields.ignore();
        std::getline(fields, record.text);
        records.push_back(std::move(record));
    }
    return records;
}

std::vector<Tenure> Tenures(const std::vector<Record>& records)
{
    std::map<std::int64_t, Tenure> byEpoch;
    for (const Record& record : records)
    {
        if (record.epoch == 0 || record.word.find('.') != std::string::npos)
        {
            continue;
        }
        Tenure& tenure = byEpoch.try_emplace(record.epoch, Tenure{record.epoch, record.at, record.at}).first->second;
        tenure.begin = std::min(tenure.begin, record.at);
        tenure.end = std::max(tenure.end, record.at);
    }
    std::vector<Tenure> tenures;
    for (const auto& [epoch, tenure] : byEpoch)
    {
        tenures.push_back(tenure);
    }
    std::sort(tenures.begin(), tenures.end(),
              [](const Tenure& left, const Tenure& right) { return left.begin < right.begin; });
    return tenures;
}

std::vector<std::string> Conflicts(const std::vector<Tenure>& tenures)
{
    std::vector<std::string> conflicts;
    Tenure latest = tenures.empty() ? Tenure() : tenures.front();
    for (std::size_t i = 1; i < tenures.size(); ++i)
    {
        const Tenure& next = tenures[i];
        const std::string which = std::to_string(latest.epoch) + " and " + std::to_string(next.epoch);
        if (next.begin <= latest.end)
        {
            conflicts.push_back(which + " overlap by " + std::to_string((latest.end - next.begin).count()) + " ns");
        }
        if (next.epoch <= tenures[i - 1].epoch)
        {
            conflicts.push_back("the epochs did not grow: " + which);
        }
        if (next.end > latest.end)
        {
            latest = next;
        }
    }
    return conflicts;
}

}  // namespace kx::velmor::cli
