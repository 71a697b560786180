# How tests and what they stand on are compiled: many large translation units, so what counts is the compiler's time.
option(VELMOR_PRECOMPILE_TESTS "Precompile the headers that most tests, and most of the program, include" ON)

# velmor_compile_quickly()
#
# For targets of the calling directory and those below it. They wait for servers rather than compute, and take up to four
# times as long to compile when optimised. What they test is optimised all the same. Backtraces need lines, not types.
macro(velmor_compile_quickly)
  add_compile_options(-O0)
  if(VELMOR_SANITIZE)
    add_compile_options(-g1)
  endif()
endmacro()

# velmor_precompile_header(<target> <header>)
#
# Precompiles a header for a target. With ccache in mind, which looks into it only so.
function(velmor_precompile_header target header)
  target_precompile_headers(${target} PRIVATE ${header})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -fpch-preprocess)
  else()
    target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
endfunction()

# velmor_precompile(<target>)
#
# For targets that use GoogleTest. All share one precompiled header, made once per build.
function(velmor_precompile target)
  if(NOT VELMOR_PRECOMPILE_TESTS)
    return()
  endif()
  target_precompile_headers(${target} REUSE_FROM velmor_test_headers)
  # ccache looks into the header only so.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -fpch-preprocess)
  endif()
endfunction()

# With ccache in front: what goes into a precompiled header is made from system headers, which ccache looks at anyway.
if(VELMOR_PRECOMPILE_TESTS AND CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
  list(PREPEND CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_SLOPPINESS=pch_defines,time_macros)
endif()
