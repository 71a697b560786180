// Disassembled by log_statement_cost_test.cpp, which looks at what a statement below the threshold does; never run.

#include <kx/logging/logger.h>

#include <memory>
#include <string>
#include <vector>

extern "C" void LogStatementCostSubject(const std::shared_ptr<const kx::logging::Source>& source,
                                        const std::vector<std::string>& children);

// With C linkage for a name that is the same in every disassembler's output.
extern "C" void LogStatementCostSubject(const std::shared_ptr<const kx::logging::Source>& source,
                                        const std::vector<std::string>& children)
{
    KX_LOG(kx::logging::LogLevel::Info, source) << "children=" << children.size() << ", first " << children.front();
}
