#include "tests/chaos/history.h"

#include <nlohmann/json.hpp>

namespace kx::velmor::chaos {

std::string ToJson(const Fault& fault)
{
    nlohmann::ordered_json line{{"kind", fault.kind},
                                {"label", fault.label},
                                {"begin", fault.when.begin.count()},
                                {"end", fault.when.end.count()},
                                {"members", fault.members}};
    return line.dump();
}

}  // namespace kx::velmor::chaos
