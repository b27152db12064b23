# SPDX-License-Identifier: Apache-2.0
# cmake --install: the library with its SONAME and headers; linxd, the
# orvane command and the collector in bin (where the library looks for
# linxd); the Wireshark dissector in Wireshark's global plugin folder
# (Debian: /usr/lib/x86_64-linux-gnu/wireshark/plugins with the /usr
# prefix); bash completion; a pkg-config file and a CMake package, so that
# find_package(orvane) gives the imported target orvane::orvane; the man
# pages the build made (when doxygen and help2man are there); the systemd
# user unit linxd@.service.  The Debian packages are built from the same
# install by debhelper (debian/, scripts/package.sh).
include(CMakePackageConfigHelpers)

set(ORVANE_WIRESHARK_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/wireshark/plugins"
    CACHE PATH "Where the Wireshark dissector orvane.lua is installed")
set(ORVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/orvane")

install(TARGETS orvane EXPORT orvaneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Unspecified)
# The tools find the library of their own prefix wherever it is installed;
# a distribution's packages, whose library is on the loader's path, turn
# that off.
option(ORVANE_INSTALL_RPATH "Installed tools look for the library relative to themselves" ON)
file(RELATIVE_PATH ORVANE_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
if(ORVANE_INSTALL_RPATH)
  set_target_properties(orvane-collector PROPERTIES INSTALL_RPATH "$ORIGIN/${ORVANE_BIN_TO_LIB}")
  if(TARGET orvane-cli)
    set_target_properties(orvane-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${ORVANE_BIN_TO_LIB}")
  endif()
endif()
install(TARGETS orvane-collector RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET linxd)
  install(TARGETS linxd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  configure_file(linxd/linxd@.service.in ${CMAKE_BINARY_DIR}/linxd@.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/linxd@.service DESTINATION lib/systemd/user)
endif()
if(TARGET orvane-cli)
  install(TARGETS orvane-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES tools/orvane.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME orvane)
endif()
install(FILES include/orvane.h include/linx.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES tools/orvane.lua DESTINATION ${ORVANE_WIRESHARK_PLUGIN_DIR})
install(DIRECTORY ${CMAKE_BINARY_DIR}/docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 OPTIONAL
        FILES_MATCHING PATTERN "*.1")

install(EXPORT orvaneTargets NAMESPACE orvane:: DESTINATION ${ORVANE_CMAKE_DIR})
configure_package_config_file(cmake/orvaneConfig.cmake.in ${CMAKE_BINARY_DIR}/orvaneConfig.cmake
                              INSTALL_DESTINATION ${ORVANE_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orvaneConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/orvaneConfig.cmake ${CMAKE_BINARY_DIR}/orvaneConfigVersion.cmake
        DESTINATION ${ORVANE_CMAKE_DIR})
# Two pkg-config files: the installed one finds its prefix from where it
# lies; the build tree's (build/orvane.pc, for PKG_CONFIG_PATH=build) points
# at the source headers and the library in the build tree.
file(RELATIVE_PATH ORVANE_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ORVANE_PC_TO_PREFIX "${ORVANE_PC_TO_PREFIX}")
set(ORVANE_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(ORVANE_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(cmake/orvane.pc.in ${CMAKE_BINARY_DIR}/install/orvane.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/install/orvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(ORVANE_PC_TO_PREFIX ".")
set(ORVANE_PC_LIBDIR "${CMAKE_BINARY_DIR}")
set(ORVANE_PC_INCLUDEDIR "${PROJECT_SOURCE_DIR}/include")
configure_file(cmake/orvane.pc.in ${CMAKE_BINARY_DIR}/orvane.pc @ONLY)
