# 64-bit ARM with Debian's cross compiler.
set(ZAV_ARCHITECTURE arm64)
set(ZAV_PROCESSOR aarch64)
set(ZAV_TRIPLET aarch64-linux-gnu)
set(ZAV_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
