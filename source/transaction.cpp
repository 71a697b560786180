#include <kx/velmor/transaction.h>

#include <utility>

namespace kx::velmor {

Operation Operation::Create(std::string path, std::string data, NodeMode mode)
{
    return {Kind::Create, std::move(path), std::move(data), kAnyVersion, mode};
}

Operation Operation::Set(std::string path, std::string data, int version)
{
    return {Kind::Set, std::move(path), std::move(data), version, NodeMode::Persistent};
}

Operation Operation::Delete(std::string path, int version)
{
    return {Kind::Delete, std::move(path), std::string(), version, NodeMode::Persistent};
}

Operation Operation::Check(std::string path, int version)
{
    return {Kind::Check, std::move(path), std::string(), version, NodeMode::Persistent};
}

}  // namespace kx::velmor
