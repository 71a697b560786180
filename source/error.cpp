#include <kx/velmor/error.h>

#include <zookeeper/zookeeper.h>

namespace kx::velmor {

ZooError::ZooError(int rc) : VelmorError(zerror(rc)), rc_(rc) {}

}  // namespace kx::velmor
