# zav_library(name SOURCES ... [PUBLIC ...] [PRIVATE ...]): one platform folder = one static library.
function(zav_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC include PRIVATE src)
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} Threads::Threads PRIVATE zav_options ${arg_PRIVATE})
endfunction()

# The lab's option that lets a test write its coverage counters, which lie beside the objects.
if(CMAKE_CXX_FLAGS MATCHES "--coverage")
  set(ZAV_WRITABLE --bind ${CMAKE_BINARY_DIR})
endif()

# Tests are compiled often and run once: optimising them costs more than it gives. With sanitizers it takes most of the
# time; without them _FORTIFY_SOURCE needs -O1.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(ZAV_TEST_OPTIONS -O0)
else()
  set(ZAV_TEST_OPTIONS $<$<CONFIG:Release>:-O1>)
endif()

# zav_test(name SOURCES ... [LIBS ...] [LABELS unit] [TIMEOUT s] [SECONDS s]): a GoogleTest program, run in a sandbox that
# has the phone's own folders ("/var/volatile", "/config", "/custom", "/etc/zav.d"), empty and private to the run.
# SECONDS is about how long it takes: long tests start first, so that none of them runs alone at the end.
function(zav_test name)
  cmake_parse_arguments(arg "" "TIMEOUT;SECONDS" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT arg_LABELS)
    set(arg_LABELS unit)
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_compile_options(${name} PRIVATE ${ZAV_TEST_OPTIONS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${arg_LIBS} zav_options GTest::gmock GTest::gtest GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${CMAKE_SOURCE_DIR}/lab/sandbox ${ZAV_WRITABLE} -- $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}" COST "0${arg_SECONDS}")
endfunction()
