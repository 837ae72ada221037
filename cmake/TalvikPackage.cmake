# What a distribution's package adds to the library and the program: manual pages, completion, the
# sample; and the package itself (scripts/package).

if(TALVIK_BUILD_TOOLS)
  install(DIRECTORY data/sample DESTINATION "${CMAKE_INSTALL_DATADIR}/talvik")
  install(FILES cmake/completion.bash RENAME talvik
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")

  # A page for the program and one for each command, made of what --help says.
  find_program(TALVIK_HELP2MAN help2man)
  mark_as_advanced(TALVIK_HELP2MAN)
  if(TALVIK_HELP2MAN)
    set(pages "")
    foreach(command IN ITEMS "" index search explain corpus mnist convert prepare)
      set(name talvik)
      if(command)
        set(name talvik-${command})
      endif()
      add_custom_command(OUTPUT ${name}.1
        COMMAND ${CMAKE_COMMAND} -D HELP2MAN=${TALVIK_HELP2MAN} -D PROGRAM=$<TARGET_FILE:talvik>
                -D COMMAND=${command} -D VERSION=${PROJECT_VERSION}
                -D OUTPUT=${CMAKE_CURRENT_BINARY_DIR}/${name}.1
                -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/manual_page.cmake
        DEPENDS talvik cmake/manual_page.cmake VERBATIM)
      list(APPEND pages "${CMAKE_CURRENT_BINARY_DIR}/${name}.1")
    endforeach()
    add_custom_target(talvik_manual ALL DEPENDS ${pages})
    install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME talvik)
set(CPACK_PACKAGE_CONTACT "The talvik developers <talvik@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Nearest documents by relaxed word mover's distance")
set(CPACK_PACKAGE_DESCRIPTION "\
The libraries libtalvik and libtalvikmpi, their headers, and the program talvik: how far apart texts
or images are by the word mover's distance, relaxed or exact, and which are nearest, on all cores of
one machine or, through MPI, of many.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS openmpi-bin)
include(CPack)
