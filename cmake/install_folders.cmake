# Where installed files go, for cmake/install.cmake and for programs that look for them.
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

# The module that comes with the call driver, for machines without a telephone switch.
set(driver_module_dir lib/quorvane)
# The module reads only this folder, whatever the prefix is; DESTDIR is respected.
set(QUORVANE_CONFIG_DIR /etc/delmaren/quorvane)
