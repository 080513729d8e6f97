# What `cmake --install` puts where, in two components: module and tools.
include(GNUInstallDirs)

set(QUORVANE_MODULE_DIR "" CACHE STRING
    "Folder of the module; empty: that of the installed FreeSWITCH, else lib/freeswitch/mod")
set(module_dir ${QUORVANE_MODULE_DIR})
if(NOT module_dir AND QUORVANE_REAL_HOST)
  pkg_get_variable(module_dir freeswitch modulesdir)
endif()
if(NOT module_dir)
  set(module_dir lib/freeswitch/mod)
endif()
message(STATUS "Module folder: ${module_dir}")

# The module reads just this file, whatever the prefix is; DESTDIR counts.
set(QUORVANE_CONFIG_DIR /etc/delmaren/quorvane)
set(module_package freeswitch-mod-quorvane)
set(tools_package quorvane-tools)
set(module_doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${module_package})

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

file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.ksy)
install(FILES README.md SECURITY.md ${documents}
        DESTINATION ${module_doc_dir} COMPONENT module)
install(FILES packaging/freeswitch_mod.conf packaging/modules.conf.xml
        DESTINATION ${module_doc_dir}/examples COMPONENT module)
install(DIRECTORY examples/dialplan
        DESTINATION ${module_doc_dir}/examples COMPONENT module FILES_MATCHING PATTERN *.xml)

set(QUORVANE_HAVE_TOOLS OFF)
foreach(tool IN ITEMS quorvane-node quorvane-call)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    set(QUORVANE_HAVE_TOOLS ON)
  endif()
endforeach()
if(QUORVANE_HAVE_TOOLS)
  install(FILES tools/wireshark/quorvane.lua examples/receiver.py examples/send_call.py
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${tools_package}/examples COMPONENT tools)
endif()
