# What `cmake --install` and the Debian packages hold: the library, shared and static, its headers, and how CMake and
# pkg-config find them; the program, and what goes with it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The objects of the static library, which are compiled so that both can be made from them. Tests reach into the static
# one; the shared one shows what exports.map names. It has no definition of the three entry points of
# <kx/logging/logger.h> on purpose: the process that loads it defines them, or takes them from velmor::logging_default.
add_library(velmor_shared SHARED $<TARGET_OBJECTS:velmor> $<TARGET_OBJECTS:velmor_logging>)
target_include_directories(velmor_shared PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(velmor_shared PUBLIC cxx_std_17)
target_link_libraries(velmor_shared
  PUBLIC ZooKeeperClient::mt Threads::Threads
  PRIVATE $<BUILD_INTERFACE:velmor_build_options>)
set(exports ${PROJECT_SOURCE_DIR}/packaging/exports.map)
target_link_options(velmor_shared PRIVATE "LINKER:--version-script=${exports}")
set_target_properties(velmor_shared PROPERTIES
  OUTPUT_NAME velmor
  EXPORT_NAME velmor
  VERSION ${PROJECT_VERSION}
  SOVERSION 0
  LINKER_LANGUAGE CXX
  LINK_DEPENDS ${exports})
set_target_properties(velmor PROPERTIES EXPORT_NAME velmor_static)
set_target_properties(velmor_logging PROPERTIES EXPORT_NAME logging)

install(TARGETS velmor_shared EXPORT velmorTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
set(archives velmor velmor_logging)
if(TARGET velmor_testing)
  set_target_properties(velmor_testing PROPERTIES EXPORT_NAME testing)
  list(APPEND archives velmor_testing)
endif()
install(TARGETS ${archives} EXPORT velmorTargets ARCHIVE COMPONENT development)
install(EXPORT velmorTargets NAMESPACE velmor::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/velmor COMPONENT development)
if(TARGET velmor_logging_default)
  # Apart, since it takes a library more.
  set_target_properties(velmor_logging_default PROPERTIES EXPORT_NAME logging_default)
  install(TARGETS velmor_logging_default EXPORT velmorLoggingDefaultTargets ARCHIVE COMPONENT development)
  install(EXPORT velmorLoggingDefaultTargets NAMESPACE velmor::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/velmor COMPONENT development)
endif()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN "*.h")

configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/velmorConfig.cmake.in velmorConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/velmor
  NO_SET_AND_CHECK_MACRO)
# Before 1.0 every minor version may break what compiles against it.
write_basic_package_version_file(velmorConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/velmorConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/velmorConfigVersion.cmake
    ${PROJECT_SOURCE_DIR}/cmake/FindZooKeeperClient.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/velmor COMPONENT development)

file(RELATIVE_PATH velmor_prefix_from_pc
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
set(modules velmor)
if(TARGET velmor_logging_default)
  list(APPEND modules velmor-logging-default)
endif()
foreach(module ${modules})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${module}.pc.in ${module}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

find_program(VELMOR_GZIP gzip)
mark_as_advanced(VELMOR_GZIP)

# velmor_compressed(<file> <name without .gz> <result>)
#
# As Debian wants documents: small, and the same at each build. Without gzip, as they are.
function(velmor_compressed file name result)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  set(copy ${PROJECT_BINARY_DIR}/${name})
  if(VELMOR_GZIP)
    string(APPEND copy .gz)
    execute_process(COMMAND ${VELMOR_GZIP} -9nc ${file} OUTPUT_FILE ${copy} COMMAND_ERROR_IS_FATAL ANY)
  else()
    configure_file(${file} ${copy} COPYONLY)
  endif()
  set(${result} ${copy} PARENT_SCOPE)
endfunction()

if(TARGET velmor_program)
  install(TARGETS velmor_program RUNTIME COMPONENT program)
  velmor_compressed(${PROJECT_SOURCE_DIR}/packaging/man/velmor.1 velmor.1 manual)
  install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion/velmor.bash RENAME velmor
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion/_velmor
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/systemd/velmor-example.service
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmor/examples COMPONENT program)
endif()

include(${PROJECT_SOURCE_DIR}/packaging/debian.cmake)
