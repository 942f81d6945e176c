# Debian's cross compilers with a sysroot of the target's libraries. The toolchain file of an architecture sets
# ZAV_PROCESSOR (CMake's name), ZAV_TRIPLET (the compiler's and the library folders' prefix), ZAV_EMULATOR (runs the tests)
# and ZAV_ARCHITECTURE (Debian's name), then includes this file. -DZAV_SYSROOT=FOLDER replaces the sysroot that
# scripts/build makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${ZAV_PROCESSOR})
# A compiler check is a project of its own, which includes this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZAV_SYSROOT)
if(NOT ZAV_SYSROOT)
  cmake_path(SET ZAV_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot-${ZAV_ARCHITECTURE})
endif()

find_program(ZAV_CROSS_COMPILER ${ZAV_TRIPLET}-g++ NO_CMAKE_FIND_ROOT_PATH)
mark_as_advanced(ZAV_CROSS_COMPILER)
if(NOT ZAV_CROSS_COMPILER)
  message(FATAL_ERROR "The compiler ${ZAV_TRIPLET}-g++ is missing; install Debian's g++-${ZAV_TRIPLET}")
endif()
if(NOT IS_DIRECTORY ${ZAV_SYSROOT}/usr)
  message(FATAL_ERROR "There is no sysroot in ${ZAV_SYSROOT}; scripts/sysroot ${ZAV_ARCHITECTURE} makes one")
endif()
set(CMAKE_CXX_COMPILER ${ZAV_CROSS_COMPILER})

# Headers and libraries come from the sysroot only, programs from this machine only.
set(CMAKE_SYSROOT ${ZAV_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${ZAV_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${ZAV_SYSROOT}/usr/lib/${ZAV_TRIPLET}/pkgconfig:${ZAV_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZAV_SYSROOT})

find_program(ZAV_EMULATOR_PROGRAM ${ZAV_EMULATOR} NO_CMAKE_FIND_ROOT_PATH)
mark_as_advanced(ZAV_EMULATOR_PROGRAM)
if(ZAV_EMULATOR_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZAV_EMULATOR_PROGRAM} -L ${ZAV_SYSROOT})
endif()
