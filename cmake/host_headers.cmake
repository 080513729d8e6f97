# quorvane_host_headers: where the module finds switch.h. The module is never
# linked to the host: the process that loads it provides the host's functions.
add_library(quorvane_host_headers INTERFACE)

set(QUORVANE_REAL_HOST OFF)
if(NOT QUORVANE_HOST STREQUAL embedded)
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(FREESWITCH QUIET freeswitch)
  endif()
  if(FREESWITCH_FOUND)
    set(QUORVANE_REAL_HOST ON)
  elseif(QUORVANE_HOST STREQUAL freeswitch)
    message(FATAL_ERROR "QUORVANE_HOST=freeswitch, but pkg-config finds no package 'freeswitch'")
  endif()
endif()

# The two values that move between releases of the host.
set(event_all_1.10.0 90)
set(event_all_1.10.2 91)
set(event_all_1.10 92)
set(event_all_1.11 93)
set(media_set_1.10.0 54)
set(media_set_1.10.2 54)
set(media_set_1.10 55)
set(media_set_1.11 55)
if(NOT DEFINED event_all_${QUORVANE_HOST_VERSION})
  message(FATAL_ERROR "QUORVANE_HOST_VERSION=${QUORVANE_HOST_VERSION}: "
                      "expected 1.10.0, 1.10.2, 1.10 or 1.11")
endif()
set(QUORVANE_SWITCH_EVENT_ALL ${event_all_${QUORVANE_HOST_VERSION}})
set(QUORVANE_CF_MEDIA_SET ${media_set_${QUORVANE_HOST_VERSION}})

# quorvane_embedded_headers: our own declaration of the host's interface.
add_library(quorvane_embedded_headers INTERFACE)
target_include_directories(quorvane_embedded_headers SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/host/include)
target_compile_definitions(quorvane_embedded_headers INTERFACE
  QUORVANE_SWITCH_EVENT_ALL=${QUORVANE_SWITCH_EVENT_ALL}
  QUORVANE_CF_MEDIA_SET=${QUORVANE_CF_MEDIA_SET})

if(QUORVANE_REAL_HOST)
  message(STATUS "Host headers: FreeSWITCH ${FREESWITCH_VERSION} (pkg-config)")
  target_include_directories(quorvane_host_headers SYSTEM INTERFACE ${FREESWITCH_INCLUDE_DIRS})
  target_compile_options(quorvane_host_headers INTERFACE ${FREESWITCH_CFLAGS_OTHER})
else()
  message(STATUS "Host headers: host/include, as in FreeSWITCH ${QUORVANE_HOST_VERSION}")
  target_link_libraries(quorvane_host_headers INTERFACE quorvane_embedded_headers)
endif()
