# Hardening flags of release builds, on the same INTERFACE target as the warnings.
include(CheckCXXSourceCompiles)

# Sets _FORTIFY_SOURCE only if neither the user's flags (including -U) nor the compiler's default sets it, and only with
# optimisation, without which the C library warns. The check is cached for each set of flags, because they may change.
set(flags "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_RELEASE}")
string(MD5 key "${flags}")
set(CMAKE_REQUIRED_FLAGS "${CMAKE_CXX_FLAGS_RELEASE}")
set(CMAKE_REQUIRED_QUIET ON)
check_cxx_source_compiles("
  #if defined(_FORTIFY_SOURCE) || !defined(__OPTIMIZE__)
  #error
  #endif
  int main() {}" ZAV_MAY_FORTIFY_${key})
unset(CMAKE_REQUIRED_FLAGS)
unset(CMAKE_REQUIRED_QUIET)
if(ZAV_MAY_FORTIFY_${key} AND NOT flags MATCHES "_FORTIFY_SOURCE")
  target_compile_definitions(zav_options INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()

target_compile_options(zav_options INTERFACE $<$<CONFIG:Release>:-fstack-protector-strong>)
target_link_options(zav_options INTERFACE $<$<CONFIG:Release>:-Wl,-z,relro,-z,now>)
