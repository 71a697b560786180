# libvelmor0, libvelmor-dev and velmor, the program, by CPack.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmor)
set(CPACK_PACKAGE_VENDOR "Velmor")
set(CPACK_PACKAGE_CONTACT "Velmor maintainers <velmor@localhost>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvelmor0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# Which package programs depend on that load the library, and that the loader's cache is to be renewed.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/shlibs ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Elects a leader among processes that share a ZooKeeper ensemble, and names the
next one ahead of time. This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelmor-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libvelmor0 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libzookeeper-mt-dev")
if(TARGET velmor_logging_default)
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", libspdlog-dev")
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Elects a leader among processes that share a ZooKeeper ensemble, and names the
next one ahead of time. This package holds headers, static libraries, and what
CMake and pkg-config find them by.")

if(TARGET velmor_program)
  list(APPEND CPACK_COMPONENTS_ALL program)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME velmor)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION admin)
  set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
  set(CPACK_COMPONENT_PROGRAM_DESCRIPTION
    "Runs a command on one machine at a time, ends it before another one can begin,
tells standbys ahead of time, and shows who leads and who is next. This package
holds the program velmor.")
endif()

# What every package has to say about itself.
velmor_compressed(${CMAKE_CURRENT_LIST_DIR}/changelog changelog.Debian changelog)
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

include(CPack)
