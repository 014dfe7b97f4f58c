# Man pages of the programs, made from their own --help while building, so that the two cannot drift.
#
# add_man_page(TARGET SUMMARY COMPONENT) makes and installs <program>(1). The program is run for it: a cross build makes none.

if(CMAKE_CROSSCOMPILING)
  message(STATUS "Man pages: not made by a cross build, which cannot run the programs")
else()
  find_program(REPORT_EVENT_HELP2MAN help2man DOC "Makes the man pages from --help")
  if(NOT REPORT_EVENT_HELP2MAN)
    message(WARNING "Man pages: help2man is not installed, so none are made")
  endif()
endif()

function(add_man_page target summary component)
  if(CMAKE_CROSSCOMPILING OR NOT REPORT_EVENT_HELP2MAN)
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
  # Two headings that help2man does not know become sections, and no line is padded with blanks.
  add_custom_command(
    OUTPUT ${page}
    COMMAND ${REPORT_EVENT_HELP2MAN} --no-info --name ${summary} --output ${page} $<TARGET_FILE:${target}>
    COMMAND sed -i -e "s/^[.]SS \"Exit status:\"/.SH \"EXIT STATUS\"/" -e "s/^[.]SS \"See also:\"/.SH \"SEE ALSO\"/" -e
            "s/^[.]TH .*/&\\n.ad l\\n.nh/" ${page}
    DEPENDS ${target}
    COMMENT "Making ${target}(1)"
    VERBATIM)
  add_custom_target(${target}-man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
