# quorvane_host_headers: where the module finds switch.h. The module is never
# linked to the host: the process that loads it provides the host's functions.
#
#   QUORVANE_HOST_RELEASE   the release that the build is for, a name of the table below
#   QUORVANE_HOST_FIRST     the first version of the host that the module may run in
#   QUORVANE_HOST_BEFORE    the first version after those
if(NOT QUORVANE_HOST MATCHES "^(auto|freeswitch|embedded)$")
  message(FATAL_ERROR "QUORVANE_HOST=${QUORVANE_HOST}: expected auto, freeswitch or embedded")
endif()

# Each release: SWITCH_EVENT_ALL and CF_MEDIA_SET, the two values that differ between
# releases of the host, the first version that has them and the first after it.
set(known_releases 1.10.0 1.10.2 1.10 1.11)
set(release_1.10.0 90 54 1.10.0 1.10.1)
set(release_1.10.2 91 54 1.10.2 1.10.3)
set(release_1.10 92 55 1.10.7 1.11)
set(release_1.11 93 55 1.11 1.12)

# Sets OUT to the release that VERSION ("1.10.12-release") belongs to; to nothing when
# the table has none for it.
function(quorvane_find_release version out)
  set(${out} "" PARENT_SCOPE)
  string(REGEX MATCH "^[0-9]+(\\.[0-9]+)*" number "${version}")
  foreach(name IN LISTS known_releases)
    list(GET release_${name} 2 first)
    list(GET release_${name} 3 before)
    if(number VERSION_GREATER_EQUAL first AND number VERSION_LESS before)
      set(${out} ${name} PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

set(QUORVANE_REAL_HOST OFF)
set(installed_release "")
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(FREESWITCH QUIET freeswitch)
endif()
if(FREESWITCH_FOUND)
  quorvane_find_release("${FREESWITCH_VERSION}" installed_release)
  if(NOT QUORVANE_HOST STREQUAL embedded)
    set(QUORVANE_REAL_HOST ON)
  endif()
elseif(QUORVANE_HOST STREQUAL freeswitch)
  message(FATAL_ERROR "QUORVANE_HOST=freeswitch, but pkg-config finds no package 'freeswitch'")
endif()

set(QUORVANE_HOST_RELEASE ${QUORVANE_HOST_VERSION})
if(QUORVANE_HOST_VERSION STREQUAL auto)
  set(QUORVANE_HOST_RELEASE 1.10)
  if(QUORVANE_REAL_HOST)
    set(QUORVANE_HOST_RELEASE ${installed_release})
  endif()
elseif(NOT QUORVANE_HOST_VERSION IN_LIST known_releases)
  list(JOIN known_releases ", " names)
  message(FATAL_ERROR "QUORVANE_HOST_VERSION=${QUORVANE_HOST_VERSION}: expected auto, ${names}")
endif()

if(QUORVANE_HOST_RELEASE)
  list(GET release_${QUORVANE_HOST_RELEASE} 2 QUORVANE_HOST_FIRST)
  list(GET release_${QUORVANE_HOST_RELEASE} 3 QUORVANE_HOST_BEFORE)
  set(embedded_values ${release_${QUORVANE_HOST_RELEASE}})
else()
  # Headers of a release that the table does not know: the module takes what they say,
  # and is for just that version.
  message(WARNING "FreeSWITCH ${FREESWITCH_VERSION} is not among the releases whose "
                  "SWITCH_EVENT_ALL and CF_MEDIA_SET are known: these two are not checked")
  string(REGEX MATCH "^([0-9]+\\.[0-9]+)\\.?([0-9]*)" QUORVANE_HOST_RELEASE "${FREESWITCH_VERSION}")
  math(EXPR next "0${CMAKE_MATCH_2} + 1")
  set(QUORVANE_HOST_FIRST ${QUORVANE_HOST_RELEASE})
  set(QUORVANE_HOST_BEFORE ${CMAKE_MATCH_1}.${next})
  set(embedded_values ${release_1.10})
endif()
list(GET embedded_values 0 QUORVANE_SWITCH_EVENT_ALL)
list(GET embedded_values 1 QUORVANE_CF_MEDIA_SET)

# quorvane_embedded_headers: our own declaration of the host's interface.
add_library(quorvane_embedded_headers INTERFACE)
target_include_directories(quorvane_embedded_headers SYSTEM INTERFACE
  ${PROJECT_SOURCE_DIR}/host/include)
target_compile_definitions(quorvane_embedded_headers INTERFACE
  QUORVANE_SWITCH_EVENT_ALL=${QUORVANE_SWITCH_EVENT_ALL}
  QUORVANE_CF_MEDIA_SET=${QUORVANE_CF_MEDIA_SET})

# quorvane_freeswitch_headers: the real ones, where they are installed.
if(FREESWITCH_FOUND)
  add_library(quorvane_freeswitch_headers INTERFACE)
  target_include_directories(quorvane_freeswitch_headers SYSTEM INTERFACE
    ${FREESWITCH_INCLUDE_DIRS})
  target_compile_options(quorvane_freeswitch_headers INTERFACE ${FREESWITCH_CFLAGS_OTHER})
endif()

add_library(quorvane_host_headers INTERFACE)
if(QUORVANE_REAL_HOST)
  message(STATUS "Host headers: FreeSWITCH ${FREESWITCH_VERSION} (pkg-config)")
  target_link_libraries(quorvane_host_headers INTERFACE quorvane_freeswitch_headers)
else()
  message(STATUS "Host headers: host/include, as in FreeSWITCH ${QUORVANE_HOST_RELEASE}")
  target_link_libraries(quorvane_host_headers INTERFACE quorvane_embedded_headers)
endif()
