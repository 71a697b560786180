#include "source/access_list.h"

#include <string_view>
#include <utility>

namespace kx::velmor {

namespace {

bool IsOpen(const ACL_vector& list)
{
    using std::string_view;
    return list.count == 1 && list.data[0].perms == ZOO_PERM_ALL &&
           string_view(list.data[0].id.scheme) == ZOO_ANYONE_ID_UNSAFE.scheme &&
           string_view(list.data[0].id.id) == ZOO_ANYONE_ID_UNSAFE.id;
}

}  // namespace

AccessList::AccessList(std::vector<AccessRule> rules) : rules_(std::move(rules))
{
    entries_.reserve(rules_.size());
    for (AccessRule& rule : rules_)
    {
        entries_.push_back(ACL{rule.permissions, Id{rule.scheme.data(), rule.id.data()}});
    }
}

ACL_vector AccessList::InPlaceOf(const ACL_vector& asked) const
{
    if (entries_.empty() || !IsOpen(asked))
    {
        return asked;
    }
    // The client library's record has no constness; it only reads.
    return ACL_vector{static_cast<std::int32_t>(entries_.size()), const_cast<ACL*>(entries_.data())};
}

}  // namespace kx::velmor
