#pragma once

#include <zookeeper/zookeeper.h>

namespace kx::velmor {

/// Whether a write that ends with this code has been before a majority of the servers. A single server gives other
/// codes by itself: it may check access lists eagerly, or refuse work while it is overloaded.
inline bool AgreedByMajority(int rc)
{
    switch (rc)
    {
        case ZOK:
        case ZNONODE:
        case ZNODEEXISTS:
        case ZBADVERSION:
        case ZNOTEMPTY:
        case ZNOCHILDRENFOREPHEMERALS:
            return true;
        default:
            return false;
    }
}

}  // namespace kx::velmor
