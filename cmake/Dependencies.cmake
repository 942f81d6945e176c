# Every library that is installed and called, under one name each.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(CURL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(MOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
find_library(TRE_LIBRARY tre REQUIRED)  # its pkg-config file carries compiler flags that are not ours
if(ZAV_TESTS OR NOT DEFINED ZAV_TESTS)
  find_package(GTest REQUIRED)
endif()
