# The libraries that bring no CMake package of their own, where they are installed:
# quorvane::sndfile, quorvane::fftw, quorvane::speexdsp, quorvane::asio,
# quorvane::nettle, quorvane::pcap, quorvane::nats, quorvane::civetweb.

# Finds a library by one of its headers, HEADER, and by its name, if it is not header-only.
function(quorvane_find_library name header)
  string(TOUPPER ${name} prefix)
  find_path(${prefix}_INCLUDE_DIR ${header})
  set(found ${${prefix}_INCLUDE_DIR})
  if(ARGN)
    find_library(${prefix}_LIBRARY ${ARGN})
    if(NOT ${prefix}_LIBRARY)
      set(found OFF)
    endif()
  endif()
  if(found)
    add_library(quorvane::${name} INTERFACE IMPORTED GLOBAL)
    target_include_directories(quorvane::${name} INTERFACE ${${prefix}_INCLUDE_DIR})
    if(ARGN)
      target_link_libraries(quorvane::${name} INTERFACE ${${prefix}_LIBRARY})
    endif()
  endif()
endfunction()

quorvane_find_library(sndfile sndfile.h sndfile)
quorvane_find_library(fftw fftw3.h fftw3f)
quorvane_find_library(speexdsp speex/speex_resampler.h speexdsp)
quorvane_find_library(nettle nettle/sha2.h nettle)
quorvane_find_library(pcap pcap/pcap.h pcap)
quorvane_find_library(nats nats/nats.h nats)
quorvane_find_library(civetweb civetweb.h civetweb)
quorvane_find_library(asio asio.hpp)
if(TARGET quorvane::asio)
  target_compile_definitions(quorvane::asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
  # The thread sanitizer does not understand memory fences and would report false races. Asio's
  # locks order all that the program shares between threads.
  if(QUORVANE_SANITIZE STREQUAL thread)
    target_compile_definitions(quorvane::asio INTERFACE ASIO_DISABLE_FENCED_BLOCK)
  endif()
endif()

# quorvane_require(RESULT PROGRAM TARGET...): sets RESULT to whether all libraries that a
# program needs, named by their targets, have been found.
function(quorvane_require result program)
  set(missing)
  foreach(library IN LISTS ARGN)
    if(NOT TARGET ${library})
      string(REGEX REPLACE "^quorvane::" "" name ${library})
      list(APPEND missing ${name})
    endif()
  endforeach()
  if(missing)
    list(JOIN missing ", " missing)
    message(STATUS "${program} is left out; missing: ${missing}")
    set(${result} OFF PARENT_SCOPE)
  else()
    set(${result} ON PARENT_SCOPE)
  endif()
endfunction()
