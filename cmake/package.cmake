# What `cpack` makes of the installed files: a Debian package and, where rpmbuild is
# installed, an RPM; each for the module, for the headers and, if they were built, the tools.
set(QUORVANE_MAINTAINER "quorvane maintainers <maintainers@delmaren.example>" CACHE STRING
    "Name and address for the packages")

# The documents that Debian expects of a package. One changelog serves all.
function(quorvane_debian_documents component package)
  set(folder ${CMAKE_BINARY_DIR}/generated/${package})
  configure_file(packaging/debian/changelog.in ${folder}/changelog @ONLY)
  file(ARCHIVE_CREATE OUTPUT ${folder}/changelog.gz PATHS ${folder}/changelog
       FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
  install(FILES packaging/debian/copyright ${folder}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endfunction()

set(CPACK_COMPONENTS_ALL module dev)
quorvane_debian_documents(module ${module_package})
quorvane_debian_documents(dev ${dev_package})
if(QUORVANE_HAVE_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  quorvane_debian_documents(tools ${tools_package})
endif()

# Common to all packages. The host's release is part of the version, so that packages
# for different hosts can be told apart and do not pass for one another.
set(CPACK_GENERATOR "")
find_program(DPKG_DEB dpkg-deb)
find_program(RPMBUILD rpmbuild)
if(DPKG_DEB)
  list(APPEND CPACK_GENERATOR DEB)
endif()
if(RPMBUILD)
  list(APPEND CPACK_GENERATOR RPM)
endif()
set(CPACK_PACKAGE_NAME quorvane)
# Not the folder in which cpack is called, which is usually the source folder.
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_VENDOR "the quorvane maintainers")
set(CPACK_PACKAGE_CONTACT ${QUORVANE_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION}+fs${QUORVANE_HOST_RELEASE})
# Each package has its own summary; a common one would override it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(module_summary "call audio tap for FreeSWITCH")
set(module_description
"This FreeSWITCH module taps the audio of calls and streams both directions,
unaltered, to a media node. It sends UDP datagrams of its own protocol. A
dialplan application starts the tap of a call. An API command switches
detection on and off while the call runs.

This package is for FreeSWITCH ${QUORVANE_HOST_FIRST} and later, before ${QUORVANE_HOST_BEFORE}.")
set(tools_summary "receiver and call driver for the quorvane call audio tap")
set(tools_description
"Tools for writing and running media nodes. The receiver takes the datagrams
of mod_quorvane and writes the audio of each call to files. The driver runs
calls through the module without a telephony server. The package also has a
Wireshark dissector, a service for systemd, examples and documents.")
set(dev_summary "headers of the quorvane call audio tap's packets")
set(dev_description
"The public headers of the quorvane call audio tap, one for receivers in C++17
and one for receivers in C99. They have the constants of the datagrams and
decode them. The package also has files for pkg-config and CMake.")

# ---- Debian -------------------------------------------------------------------------

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# The object is not linked to the host, so it does not show which host it needs.
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME ${module_package})
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS
    "freeswitch (>= ${QUORVANE_HOST_FIRST}~), freeswitch (<< ${QUORVANE_HOST_BEFORE}~)")
set(CPACK_DEBIAN_MODULE_PACKAGE_SUGGESTS ${tools_package})
set(CPACK_DEBIAN_MODULE_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles)
set(CPACK_DEBIAN_MODULE_DESCRIPTION "${module_summary}\n${module_description}")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "${module_package}, tshark | wireshark")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "${tools_summary}\n${tools_description}")
file(COPY ${PROJECT_SOURCE_DIR}/packaging/debian/tools/
     DESTINATION ${CMAKE_BINARY_DIR}/generated/debian-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/generated/debian-tools/conffiles
    ${CMAKE_BINARY_DIR}/generated/debian-tools/postinst
    ${CMAKE_BINARY_DIR}/generated/debian-tools/prerm
    ${CMAKE_BINARY_DIR}/generated/debian-tools/postrm)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${dev_package})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_DESCRIPTION "${dev_summary}\n${dev_description}")

# ---- RPM ----------------------------------------------------------------------------

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_GROUP "Applications/Communications")
set(CPACK_RPM_SPEC_MORE_DEFINE "%define _build_id_links none")
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /etc /etc/default /usr/lib/freeswitch /usr/lib/freeswitch/mod /usr/lib/systemd
    /usr/lib/systemd/system /usr/share/bash-completion /usr/share/bash-completion/completions
    /usr/share/cmake /usr/share/doc /usr/share/man /usr/share/man/man1 /usr/share/pkgconfig)

set(CPACK_RPM_MODULE_PACKAGE_NAME ${module_package})
set(CPACK_RPM_MODULE_PACKAGE_SUMMARY ${module_summary})
set(CPACK_RPM_MODULE_PACKAGE_DESCRIPTION ${module_description})
set(CPACK_RPM_MODULE_PACKAGE_REQUIRES
    "freeswitch >= ${QUORVANE_HOST_FIRST}, freeswitch < ${QUORVANE_HOST_BEFORE}")
set(CPACK_RPM_MODULE_USER_FILELIST
    "%config(noreplace) ${QUORVANE_CONFIG_DIR}/freeswitch_mod.conf")

set(CPACK_RPM_TOOLS_PACKAGE_NAME ${tools_package})
set(CPACK_RPM_TOOLS_PACKAGE_SUMMARY ${tools_summary})
set(CPACK_RPM_TOOLS_PACKAGE_DESCRIPTION ${tools_description})
set(CPACK_RPM_TOOLS_USER_FILELIST "%config(noreplace) /etc/default/quorvane-node")

set(CPACK_RPM_DEV_PACKAGE_NAME quorvane-devel)
set(CPACK_RPM_DEV_PACKAGE_ARCHITECTURE noarch)
set(CPACK_RPM_DEV_PACKAGE_SUMMARY ${dev_summary})
set(CPACK_RPM_DEV_PACKAGE_DESCRIPTION ${dev_description})

include(CPack)
