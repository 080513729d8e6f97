# quorvane_flags: what every source of the project is compiled with.
include(CheckCXXCompilerFlag)

add_library(quorvane_flags INTERFACE)
target_include_directories(quorvane_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(quorvane_flags INTERFACE quorvane::quorvane)
target_compile_options(quorvane_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow)
if(QUORVANE_WERROR)
  target_compile_options(quorvane_flags INTERFACE -Werror)
endif()

# Clang checks the annotations of quorvane_lib/mutex.h. Tests that have one thread take no locks.
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  set(only_tests $<BOOL:$<TARGET_PROPERTY:QUORVANE_NOT_OPTIMIZED>>)
  target_compile_options(quorvane_flags INTERFACE
    $<$<NOT:${only_tests}>:-Wthread-safety>
    $<$<NOT:${only_tests}>:-Wthread-safety-beta>)
endif()

# A unique symbol would keep the module mapped after dlclose, so that the host
# could never unload it.
check_cxx_compiler_flag(-fno-gnu-unique QUORVANE_HAVE_NO_GNU_UNIQUE)
if(QUORVANE_HAVE_NO_GNU_UNIQUE)
  target_compile_options(quorvane_flags INTERFACE -fno-gnu-unique)
endif()

# The checked variants of the C library's functions (_FORTIFY_SOURCE) need optimization.
set(not_optimized $<OR:$<CONFIG:Debug>,$<BOOL:$<TARGET_PROPERTY:QUORVANE_NOT_OPTIMIZED>>>)
set(fortified $<NOT:${not_optimized}>)

if(NOT QUORVANE_SANITIZE MATCHES "^(address,undefined|thread|)$")
  message(FATAL_ERROR "QUORVANE_SANITIZE is \"${QUORVANE_SANITIZE}\": address,undefined or thread")
endif()
if(QUORVANE_SANITIZE)
  target_compile_options(quorvane_flags INTERFACE
    -fsanitize=${QUORVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(quorvane_flags INTERFACE -fsanitize=${QUORVANE_SANITIZE})
  # Each program contains the sanitizer and its debug information. lld links it five times as fast.
  find_program(QUORVANE_LLD ld.lld)
  if(QUORVANE_LLD)
    target_link_options(quorvane_flags INTERFACE -fuse-ld=lld)
  endif()
else()
  target_compile_options(quorvane_flags INTERFACE
    -fstack-protector-strong
    $<${fortified}:-U_FORTIFY_SOURCE>
    $<${fortified}:-D_FORTIFY_SOURCE=2>)
  # No stack frame can skip the guard page; jumps and returns can only reach valid targets.
  check_cxx_compiler_flag(-fstack-clash-protection QUORVANE_HAVE_STACK_CLASH_PROTECTION)
  check_cxx_compiler_flag(-fcf-protection QUORVANE_HAVE_CF_PROTECTION)
  # With -Werror, because clang accepts this flag for every processor and only warns.
  check_cxx_compiler_flag("-Werror -mbranch-protection=standard" QUORVANE_HAVE_BRANCH_PROTECTION)
  target_compile_options(quorvane_flags INTERFACE
    $<$<BOOL:${QUORVANE_HAVE_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>
    $<$<BOOL:${QUORVANE_HAVE_CF_PROTECTION}>:-fcf-protection>
    $<$<BOOL:${QUORVANE_HAVE_BRANCH_PROTECTION}>:-mbranch-protection=standard>)
endif()

# The code under test tells the fuzzer which of its branches were taken.
if(QUORVANE_FUZZ)
  target_compile_options(quorvane_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_link_options(quorvane_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

# quorvane_runs_once(source...): sources of the present folder that run once, when a program starts,
# and take long to optimize.
function(quorvane_runs_once)
  set_source_files_properties(${ARGN} PROPERTIES
    COMPILE_OPTIONS $<$<NOT:$<CONFIG:Debug>>:-Og>)
endfunction()

# quorvane_computes(target): sanitizers make the code of this library many times slower, so it is
# optimized even in builds that are not. A precompiled header would have to be optimized alike.
function(quorvane_computes target)
  if(QUORVANE_SANITIZE)
    target_compile_options(${target} PRIVATE $<$<CONFIG:Debug>:-O1>)
    set_target_properties(${target} PROPERTIES DISABLE_PRECOMPILE_HEADERS ON)
  endif()
endfunction()
