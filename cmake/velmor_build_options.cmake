# How every target of this tree is compiled. Private to the build: nothing here reaches a consumer.
add_library(velmor_build_options INTERFACE)
target_compile_features(velmor_build_options INTERFACE cxx_std_17)
target_compile_options(velmor_build_options INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(velmor_build_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(velmor_build_options INTERFACE -Wthread-safety)
endif()
if(VELMOR_SANITIZE)
  target_compile_options(velmor_build_options INTERFACE
    -fsanitize=${VELMOR_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(velmor_build_options INTERFACE -fsanitize=${VELMOR_SANITIZE})
  if(VELMOR_SANITIZE MATCHES "undefined")
    # It looks at memory through a pipe, and takes any object for none where there are no descriptors left for one.
    target_compile_options(velmor_build_options INTERFACE -fno-sanitize=vptr)
  endif()
endif()
