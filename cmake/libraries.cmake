# The libraries that bring no CMake package of their own, where they are installed:
# quorvane::sndfile, quorvane::fftw, quorvane::speexdsp, quorvane::asio,
# quorvane::pcap.

# Headers are looked for by one of them, HEADER; the library, if there is one, by its name.
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
quorvane_find_library(pcap pcap/pcap.h pcap)
quorvane_find_library(asio asio.hpp)
if(TARGET quorvane::asio)
  target_compile_definitions(quorvane::asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
endif()
