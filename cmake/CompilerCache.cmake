# Compiles through ccache where it is installed, unless CMAKE_CXX_COMPILER_LAUNCHER is set; set to nothing, it means none.
if(NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(ZAV_CCACHE ccache DOC "Compiler cache")
  mark_as_advanced(ZAV_CCACHE)
  file(REAL_PATH "${CMAKE_CXX_COMPILER}" compiler)  # some machines set ccache up as a link of the compiler's name
  if(ZAV_CCACHE AND NOT compiler MATCHES "/ccache$")
    set(CMAKE_CXX_COMPILER_LAUNCHER ${ZAV_CCACHE})
  endif()
endif()
