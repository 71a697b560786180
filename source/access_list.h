#pragma once

#include <kx/velmor/session.h>

#include <zookeeper/zookeeper.h>

#include <vector>

namespace kx::velmor {

/// The access list that a session's nodes get instead of the open one.
///
/// Threads: any.
class AccessList
{
public:
    /// Empty `rules` stand for none.
    explicit AccessList(std::vector<AccessRule> rules);
    AccessList(const AccessList&) = delete;
    AccessList& operator=(const AccessList&) = delete;

    /// This list when `asked` is the open one and there is something to replace it with; otherwise `asked`. Refers to
    /// `asked` or to this object.
    ACL_vector InPlaceOf(const ACL_vector& asked) const;

private:
    /// Owns the texts that `entries_` refer to.
    std::vector<AccessRule> rules_;
    std::vector<ACL> entries_;
};

}  // namespace kx::velmor
