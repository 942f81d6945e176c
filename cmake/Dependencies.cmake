# External libraries with their minimum versions; docs/operating.md has the reasons. A missing one stops the
# configuration with its name, and the name of Debian's package. What the installed platform libraries need of them is
# recorded for cmake/Install.cmake.
find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)
if(NOT PKG_CONFIG_FOUND)
  message(FATAL_ERROR "pkg-config is missing (Debian: pkg-config). On Debian, scripts/setup installs what a build needs.")
endif()

function(zav_missing what debian)
  message(FATAL_ERROR "${what} is missing (Debian: ${debian}).\n"
    "On Debian, scripts/setup installs what a build needs; docs/operating.md lists it for other systems. When cross "
    "compiling, the library must be in the target's sysroot.")
endfunction()

# zav_find_package(NAME VERSION DEBIAN [TARGETS ... MODULES ...]): a library that CMake finds. MODULES are the names that
# pkg-config has for the TARGETS.
function(zav_find_package name version debian)
  cmake_parse_arguments(arg "" "" "TARGETS;MODULES" ${ARGN})
  find_package(${name} ${version} QUIET)
  if(NOT ${name}_FOUND)
    zav_missing("${name} ${version} or later" ${debian})
  endif()
  foreach(target module IN ZIP_LISTS arg_TARGETS arg_MODULES)
    set_property(GLOBAL PROPERTY ZAV_FIND_${target} "package:${name}:${version}")
    set_property(GLOBAL PROPERTY ZAV_MODULE_${target} "${module} >= ${version}")
  endforeach()
endfunction()

# zav_find_module(PREFIX MODULE VERSION DEBIAN): a library that pkg-config finds; its target is PkgConfig::PREFIX.
function(zav_find_module prefix module version debian)
  pkg_check_modules(${prefix} QUIET IMPORTED_TARGET GLOBAL ${module}>=${version})
  if(NOT ${prefix}_FOUND)
    zav_missing("${module} ${version} or later" ${debian})
  endif()
  set_property(GLOBAL PROPERTY ZAV_FIND_PkgConfig::${prefix} "module:${prefix}:${module}:${version}")
  set_property(GLOBAL PROPERTY ZAV_MODULE_PkgConfig::${prefix} "${module} >= ${version}")
endfunction()

zav_find_package(OpenSSL 3.0 libssl-dev TARGETS OpenSSL::SSL OpenSSL::Crypto MODULES libssl libcrypto)
zav_find_package(LibXml2 2.9 libxml2-dev)
zav_find_package(CURL 7.87 libcurl4-openssl-dev TARGETS CURL::libcurl MODULES libcurl)
zav_find_package(SQLite3 3.37 libsqlite3-dev)
zav_find_package(CLI11 2.0 libcli11-dev)
zav_find_module(MOSQUITTO libmosquitto 2.0 libmosquitto-dev)
zav_find_module(JSONCPP jsoncpp 1.9 libjsoncpp-dev)
zav_find_module(PCRE2_POSIX libpcre2-posix 10.37 libpcre2-dev)
if(ZAV_TESTS OR ZAV_PLATFORM_TESTS)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    zav_missing("GoogleTest" "libgtest-dev, libgmock-dev; -DZAV_TESTS=OFF builds without it")
  endif()
endif()
