# Manual pages: docs/man/NAME.SECTION.md, converted with lowdown and installed with their program. Without lowdown there are
# none. Their date is that of the version in CHANGELOG.md, so that the same sources make the same pages.
find_program(ZAV_LOWDOWN lowdown)
mark_as_advanced(ZAV_LOWDOWN)
if(NOT ZAV_LOWDOWN)
  message(STATUS "No manual pages: lowdown is missing (Debian: lowdown)")
endif()

file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md release REGEX "^## ${PROJECT_VERSION} - ")
string(REGEX REPLACE "^.* - " "" ZAV_MANUAL_DATE "${release}")
set(ZAV_MANUALS ${PROJECT_SOURCE_DIR}/docs/man)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

# zav_install_man_page(COMPONENT NAME.SECTION)
function(zav_install_man_page component page)
  if(NOT ZAV_LOWDOWN)
    return()
  endif()
  set(source ${ZAV_MANUALS}/${page}.md)
  set(made ${PROJECT_BINARY_DIR}/man/${page})
  add_custom_command(OUTPUT ${made}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${ZAV_MANUALS}/convert ${source} ${PROJECT_VERSION} "${ZAV_MANUAL_DATE}" > ${made}
    DEPENDS ${source} ${ZAV_MANUALS}/convert
    VERBATIM)
  add_custom_target(man-${page} ALL DEPENDS ${made})
  string(REGEX REPLACE "^.*\\." "" section ${page})
  install(FILES ${made} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
