# cmake --install: the library with its SONAME and headers; linxd, the
# orvane command and the collector in bin (where the library looks for
# linxd); the Wireshark dissector in Wireshark's global plugin folder
# (Debian: /usr/lib/x86_64-linux-gnu/wireshark/plugins with the /usr
# prefix); bash completion; a pkg-config file and a CMake package, so that
# find_package(orvane) gives the imported target orvane::orvane; the man
# pages when `cmake --build build --target docs` made them.
# CPack makes a Debian package of the same install (scripts/package.sh).
include(CMakePackageConfigHelpers)

set(ORVANE_WIRESHARK_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/wireshark/plugins"
    CACHE PATH "Where the Wireshark dissector orvane.lua is installed")
set(ORVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/orvane")

install(TARGETS orvane EXPORT orvaneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Unspecified)
# The tools find the library of their own prefix wherever it is installed.
file(RELATIVE_PATH ORVANE_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(orvane-collector PROPERTIES INSTALL_RPATH "$ORIGIN/${ORVANE_BIN_TO_LIB}")
install(TARGETS orvane-collector RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET linxd)
  install(TARGETS linxd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET orvane-cli)
  set_target_properties(orvane-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${ORVANE_BIN_TO_LIB}")
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
file(RELATIVE_PATH ORVANE_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ORVANE_PC_TO_PREFIX "${ORVANE_PC_TO_PREFIX}")
configure_file(cmake/orvane.pc.in ${CMAKE_BINARY_DIR}/orvane.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/orvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_VENDOR "liborvane")
set(CPACK_PACKAGE_CONTACT "liborvane developers <liborvane@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "typed messages between processes over LINX, with the linxd stand-in and tools")
set(CPACK_PACKAGE_DESCRIPTION "liborvane: processes open named endpoints, find peers by name, are told when \
they appear and die, and exchange typed messages over LINX.  On a host without \
the LINX kernel module the linxd stand-in plays its part.  Includes the orvane \
command, the telemetry collector and a Wireshark dissector.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The dynamic linker's cache learns of the library at install and removal.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "wireshark | tshark")
include(CPack)
