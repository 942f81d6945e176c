# What `cmake --install` installs of the platform libraries (component dev): headers, static libraries, the CMake package
# `zav` with a component for each library, and a pkg-config file for each. The libraries are static only, so their users
# link what these need: it is listed as required in both.
include(CMakePackageConfigHelpers)

set(ZAV_CMAKE_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/zav)
file(RELATIVE_PATH ZAV_FROM_PKGCONFIG ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZAV_FROM_PKGCONFIG "${ZAV_FROM_PKGCONFIG}")

# zav_install_library(NAME DESCRIPTION LINKED...): LINKED are the targets that the library links.
function(zav_install_library name description)
  set(needs "")
  set(ZAV_REQUIRES "")
  foreach(target IN LISTS ARGN)
    if(target MATCHES "^zav::(.*)")
      list(APPEND needs ${CMAKE_MATCH_1})
      list(APPEND ZAV_REQUIRES "zav-${CMAKE_MATCH_1} = ${PROJECT_VERSION}")
    else()
      get_property(found GLOBAL PROPERTY ZAV_FIND_${target})
      get_property(module GLOBAL PROPERTY ZAV_MODULE_${target})
      if(NOT found OR NOT module)
        message(FATAL_ERROR "cmake/Dependencies.cmake does not say how users of zav::${name} find ${target}")
      endif()
      list(APPEND needs ${found})
      list(APPEND ZAV_REQUIRES ${module})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES needs)
  list(JOIN ZAV_REQUIRES ", " ZAV_REQUIRES)
  set_property(GLOBAL APPEND PROPERTY ZAV_LIBRARIES ${name})
  set_property(GLOBAL PROPERTY ZAV_NEEDS_${name} "${needs}")

  set(ZAV_LIBRARY ${name})
  set(ZAV_DESCRIPTION ${description})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in zav-${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zav-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zav COMPONENT dev)
  install(TARGETS ${name} EXPORT zav-${name} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  install(EXPORT zav-${name} NAMESPACE zav:: DESTINATION ${ZAV_CMAKE_PACKAGE} COMPONENT dev)
endfunction()

# Call this after the last library.
function(zav_install_cmake_package)
  get_property(libraries GLOBAL PROPERTY ZAV_LIBRARIES)
  set(ZAV_NEEDS "set(zav_libraries ${libraries})\n")
  foreach(name IN LISTS libraries)
    get_property(needs GLOBAL PROPERTY ZAV_NEEDS_${name})
    string(APPEND ZAV_NEEDS "set(zav_${name}_needs ${needs})\n")
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/zav-config.cmake.in zav-config.cmake @ONLY)
  write_basic_package_version_file(zav-config-version.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zav-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/zav-config-version.cmake
    DESTINATION ${ZAV_CMAKE_PACKAGE} COMPONENT dev)
endfunction()
