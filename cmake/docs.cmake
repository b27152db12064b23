# SPDX-License-Identifier: Apache-2.0
# The API reference from the public headers (Doxygen) in build/docs/api/html,
# and the man pages of orvane, linxd and orvane-collector (help2man, from
# their --help) in build/docs/man.  Part of the normal build when doxygen and
# help2man are installed (target docs); a public name without a description
# fails it.
find_program(ORVANE_DOXYGEN doxygen)
find_program(ORVANE_HELP2MAN help2man)
if(ORVANE_DOXYGEN AND ORVANE_HELP2MAN AND TARGET orvane-cli AND TARGET linxd AND ORVANE_SANITIZE STREQUAL "")
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
  set(ORVANE_DOCS_STAMP ${CMAKE_BINARY_DIR}/docs/stamp)
  add_custom_command(OUTPUT ${ORVANE_DOCS_STAMP}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/docs/api
    COMMAND ${ORVANE_DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
    COMMAND ${PROJECT_SOURCE_DIR}/docs/man_pages.sh $<TARGET_FILE:orvane-cli> $<TARGET_FILE:linxd>
            $<TARGET_FILE:orvane-collector> ${CMAKE_BINARY_DIR}/docs/man
    COMMAND ${CMAKE_COMMAND} -E touch ${ORVANE_DOCS_STAMP}
    DEPENDS orvane-cli linxd orvane-collector ${PROJECT_SOURCE_DIR}/include/orvane.h ${PROJECT_SOURCE_DIR}/include/linx.h
            ${PROJECT_SOURCE_DIR}/docs/mainpage.md ${PROJECT_SOURCE_DIR}/docs/man_pages.sh
            ${CMAKE_BINARY_DIR}/Doxyfile
    COMMENT "API reference in ${CMAKE_BINARY_DIR}/docs/api/html, man pages in ${CMAKE_BINARY_DIR}/docs/man"
    VERBATIM)
  add_custom_target(docs ALL DEPENDS ${ORVANE_DOCS_STAMP})
endif()
