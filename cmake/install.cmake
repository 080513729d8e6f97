# What `cmake --install` puts where, in three components: module, tools and dev.
set(module_package freeswitch-mod-quorvane)
set(tools_package quorvane-tools)
set(dev_package quorvane-dev)

# Installs the documents of a package, in the folders that they have in the sources: a link
# from one to another leads there, too.
function(quorvane_install_documents component package)
  set(folder ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package})
  install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md
          DESTINATION ${folder} COMPONENT ${component})
  install(DIRECTORY docs DESTINATION ${folder} COMPONENT ${component}
          FILES_MATCHING PATTERN *.md PATTERN *.ksy PATTERN *.png)
  install(DIRECTORY examples DESTINATION ${folder} COMPONENT ${component}
          FILES_MATCHING PATTERN *.md PATTERN *.py PATTERN *.c PATTERN *.cpp PATTERN *.xml
          PATTERN *.nft PATTERN *.json PATTERN *.yml)
  install(DIRECTORY tests/data DESTINATION ${folder}/tests COMPONENT ${component}
          FILES_MATCHING PATTERN *.md PATTERN *.hex PATTERN *.json PATTERN *.txt)
  install(FILES tools/wireshark/README.md DESTINATION ${folder}/tools/wireshark
          COMPONENT ${component})
endfunction()

# ---- module -------------------------------------------------------------------------

install(TARGETS mod_quorvane LIBRARY DESTINATION ${module_dir} COMPONENT module)

# An operator's settings are never overwritten.
install(CODE "
  set(present \"\$ENV{DESTDIR}${QUORVANE_CONFIG_DIR}/freeswitch_mod.conf\")
  if(EXISTS \"\${present}\" OR IS_SYMLINK \"\${present}\")
    message(STATUS \"Kept: \${present}\")
  else()
    file(INSTALL DESTINATION \"${QUORVANE_CONFIG_DIR}\" TYPE FILE
         FILES \"${PROJECT_SOURCE_DIR}/packaging/freeswitch_mod.conf\")
  endif()" COMPONENT module)

quorvane_install_documents(module ${module_package})
install(FILES packaging/freeswitch_mod.conf packaging/modules.conf.xml
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${module_package}/examples COMPONENT module)

# ---- tools --------------------------------------------------------------------------

# Makes the manual page of a program from its --help and packaging/man/PROGRAM.h2m.
find_program(HELP2MAN help2man)
if(NOT HELP2MAN)
  message(STATUS "Manual pages are left out; missing: help2man")
endif()
function(quorvane_install_manual program)
  if(NOT HELP2MAN OR QUORVANE_SANITIZE)
    return()
  endif()
  set(page ${CMAKE_BINARY_DIR}/generated/${program}.1)
  set(more ${PROJECT_SOURCE_DIR}/packaging/man/${program}.h2m)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C ${HELP2MAN} --no-info --include=${more}
            --version-string=${PROJECT_VERSION} --output=${page} $<TARGET_FILE:${program}>
    COMMAND gzip -9 --no-name --force ${page}
    DEPENDS ${program} ${more} VERBATIM)
  add_custom_target(${program}_manual ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/man/man1 COMPONENT tools)
endfunction()

set(QUORVANE_HAVE_TOOLS OFF)
foreach(tool IN ITEMS quorvane-node quorvane-call)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    quorvane_install_manual(${tool})
    install(FILES packaging/bash-completion/quorvane RENAME ${tool}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
    set(QUORVANE_HAVE_TOOLS ON)
  endif()
endforeach()

if(QUORVANE_HAVE_TOOLS)
  quorvane_install_documents(tools ${tools_package})
  # Where Wireshark and tshark load every script.
  if(CMAKE_LIBRARY_ARCHITECTURE)
    set(wireshark_dir lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
  else()
    set(wireshark_dir ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins)
  endif()
  install(FILES tools/wireshark/quorvane.lua DESTINATION ${wireshark_dir} COMPONENT tools)
  install(FILES docs/quorvane.ksy DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/quorvane
          COMPONENT tools)
endif()
if(TARGET quorvane-call)
  install(TARGETS mod_quorvane LIBRARY DESTINATION ${driver_module_dir} COMPONENT tools)
  install(TARGETS mod_quorvane_relocated
          LIBRARY DESTINATION ${driver_module_dir}/relocated COMPONENT tools)
endif()
if(TARGET quorvane-node)
  install(FILES packaging/systemd/quorvane-node.service
          DESTINATION lib/systemd/system COMPONENT tools)
  install(FILES packaging/systemd/quorvane-node.default RENAME quorvane-node
          DESTINATION /etc/default COMPONENT tools)
endif()

# ---- dev ----------------------------------------------------------------------------

# The headers for C++17 and C99. The target serves projects in either language, or in both.
include(CMakePackageConfigHelpers)
set(config_dir ${CMAKE_INSTALL_DATAROOTDIR}/cmake/quorvane)
install(DIRECTORY include/quorvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(TARGETS quorvane_headers EXPORT quorvane COMPONENT dev)
install(EXPORT quorvane NAMESPACE quorvane:: FILE quorvaneConfig.cmake DESTINATION ${config_dir}
        COMPONENT dev)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/quorvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES ${CMAKE_BINARY_DIR}/generated/quorvaneConfigVersion.cmake DESTINATION ${config_dir}
        COMPONENT dev)

configure_file(packaging/quorvane.pc.in ${CMAKE_BINARY_DIR}/generated/quorvane.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/generated/quorvane.pc
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/pkgconfig COMPONENT dev)
quorvane_install_documents(dev ${dev_package})
