# Uses ccache if it is installed and CMAKE_CXX_COMPILER_LAUNCHER is not set. Set that to "" to build without a cache.
if(NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(ZAV_CCACHE ccache DOC "Compiler cache")
  mark_as_advanced(ZAV_CCACHE)
  file(REAL_PATH "${CMAKE_CXX_COMPILER}" compiler)  # on some machines the compiler is a link to ccache
  if(ZAV_CCACHE AND NOT compiler MATCHES "/ccache$")
    set(CMAKE_CXX_COMPILER_LAUNCHER ${ZAV_CCACHE})
  endif()
endif()
