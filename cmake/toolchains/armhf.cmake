# 32-bit ARM (version 7 with hardware floating point) with Debian's cross compiler.
set(ZAV_ARCHITECTURE armhf)
set(ZAV_PROCESSOR armv7l)
set(ZAV_TRIPLET arm-linux-gnueabihf)
set(ZAV_EMULATOR qemu-arm)
# No notes about calling conventions of g++ before 7.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
