# SPDX-License-Identifier: Apache-2.0
# cmake --build build --target docs: the API reference from the public
# headers (Doxygen) in build/docs/api/html, and the man pages of orvane,
# linxd and orvane-collector (help2man, from their --help) in build/docs/man.  Not part of the
# default build; scripts/docs.sh runs it.
find_program(ORVANE_DOXYGEN doxygen)
find_program(ORVANE_HELP2MAN help2man)
if(ORVANE_DOXYGEN AND ORVANE_HELP2MAN AND TARGET orvane-cli)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/docs/api
    COMMAND ${ORVANE_DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
    COMMAND ${PROJECT_SOURCE_DIR}/docs/man_pages.sh $<TARGET_FILE:orvane-cli> $<TARGET_FILE:linxd> $<TARGET_FILE:orvane-collector>
            ${CMAKE_BINARY_DIR}/docs/man
    DEPENDS orvane-cli linxd orvane-collector
    COMMENT "API reference in ${CMAKE_BINARY_DIR}/docs/api/html, man pages in ${CMAKE_BINARY_DIR}/docs/man"
    VERBATIM)
endif()
