# How sources that only test are compiled: fast. What they test keeps the flags of the build.
#
# quorvane_only_tests(target [COMMON_HEADERS]): the sources of the target itself are not
# optimized, which would take more time than all runs of them. With COMMON_HEADERS they take
# GoogleTest and the standard library from one precompiled header; such a target links
# GTest::gtest_main.
find_package(GTest REQUIRED)

function(quorvane_only_tests target)
  cmake_parse_arguments(ARG "COMMON_HEADERS" "" "" ${ARGN})
  set_target_properties(${target} PROPERTIES QUORVANE_NOT_OPTIMIZED ON)
  target_compile_options(${target} PRIVATE -O0)
  if(ARG_COMMON_HEADERS)
    target_precompile_headers(${target} REUSE_FROM quorvane_test_headers)
  endif()
endfunction()

# A program, since the header has to be compiled as the sources of programs are.
if(QUORVANE_TESTS)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/test_headers.cpp
       CONTENT "// Nothing but a place for the precompiled header.\n")
  add_executable(quorvane_test_headers ${CMAKE_BINARY_DIR}/generated/test_headers.cpp)
  target_link_libraries(quorvane_test_headers PRIVATE quorvane_flags GTest::gtest_main)
  quorvane_only_tests(quorvane_test_headers)
  target_precompile_headers(quorvane_test_headers PRIVATE
    <gtest/gtest.h>
    <algorithm> <array> <atomic> <cerrno> <chrono> <cstdint> <cstring> <filesystem> <fstream>
    <functional> <map> <memory> <mutex> <optional> <regex> <sstream> <stdexcept> <string>
    <thread> <utility> <vector>
    ${quorvane_large_headers})
endif()
