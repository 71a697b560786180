# The multi-threaded ZooKeeper C client as Debian packages it; it ships neither a pkg-config nor a CMake file.
#
# Defines the imported target ZooKeeperClient::mt.
find_path(ZooKeeperClient_INCLUDE_DIR zookeeper/zookeeper.h)
find_library(ZooKeeperClient_LIBRARY zookeeper_mt)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZooKeeperClient
  REQUIRED_VARS ZooKeeperClient_LIBRARY ZooKeeperClient_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "Install libzookeeper-mt-dev (script/bootstrap does).")
mark_as_advanced(ZooKeeperClient_INCLUDE_DIR ZooKeeperClient_LIBRARY)

if(ZooKeeperClient_FOUND AND NOT TARGET ZooKeeperClient::mt)
  find_package(Threads REQUIRED GLOBAL)
  add_library(ZooKeeperClient::mt UNKNOWN IMPORTED)
  set_target_properties(ZooKeeperClient::mt PROPERTIES
    IMPORTED_LOCATION "${ZooKeeperClient_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeperClient_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES Threads::Threads)
endif()
