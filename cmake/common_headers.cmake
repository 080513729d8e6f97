# quorvane_common_headers(target...): these libraries take the standard library from one precompiled
# header. Builds for tests use it, because reading the headers takes a third of the time of most
# sources. Other builds show that every source includes what it needs.
option(QUORVANE_COMMON_HEADERS "Read the standard library from a precompiled header" OFF)

# A large header that only some sources need. Clang reads no more of a precompiled header than a
# source uses; with GCC every source would pay for it.
set(quorvane_large_headers)
find_package(nlohmann_json QUIET)
if(nlohmann_json_FOUND AND CMAKE_CXX_COMPILER_ID MATCHES Clang)
  set(quorvane_large_headers <nlohmann/json.hpp>)
endif()

if(QUORVANE_COMMON_HEADERS)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/common_headers.cpp
       CONTENT "// Nothing but a place for the precompiled header.\n")
  add_library(quorvane_common_headers OBJECT ${CMAKE_BINARY_DIR}/generated/common_headers.cpp)
  target_link_libraries(quorvane_common_headers PRIVATE quorvane_flags)
  target_precompile_headers(quorvane_common_headers PRIVATE
    <algorithm> <array> <chrono> <cstdint> <cstring> <deque> <functional> <map> <memory> <mutex>
    <optional> <string> <string_view> <system_error> <thread> <unordered_map> <utility> <vector>
    ${quorvane_large_headers})
endif()

function(quorvane_common_headers)
  if(QUORVANE_COMMON_HEADERS)
    foreach(target IN LISTS ARGN)
      target_precompile_headers(${target} REUSE_FROM quorvane_common_headers)
    endforeach()
  endif()
endfunction()

# quorvane_join_sources(target...): the sources of these targets are compiled as one for each folder.
# Builds that compile everything use it, because most of the compile time goes into headers and
# templates that many sources need. Without it a change of one source compiles no other, and every
# source has to include the project's headers that it needs.
option(QUORVANE_JOIN_SOURCES "Compile the media node and the tests folder by folder" OFF)

function(quorvane_join_sources)
  if(NOT QUORVANE_JOIN_SOURCES)
    return()
  endif()
  foreach(target IN LISTS ARGN)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
    # To the compiler, a joined source is a header.
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    get_target_property(sources ${target} SOURCES)
    foreach(source IN LISTS sources)
      get_filename_component(folder ${source} DIRECTORY)
      set_source_files_properties(${source} PROPERTIES UNITY_GROUP "joined_${folder}")
    endforeach()
  endforeach()
endfunction()
