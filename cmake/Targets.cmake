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

# zav_test(name SOURCES ... [LIBS ...] [LABELS unit] [TIMEOUT s]): a GoogleTest program, run in a sandbox that has
# the phone's own folders ("/var/volatile", "/config", "/custom", "/etc/zav.d"), empty and private to the run.
function(zav_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT arg_LABELS)
    set(arg_LABELS unit)
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_executable(${name} ${arg_SOURCES})
  # Tests are compiled often and run once: optimising them costs more than it gives.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${arg_LIBS} zav_options GTest::gmock GTest::gtest GTest::gtest_main)
  add_test(NAME ${name} COMMAND ${CMAKE_SOURCE_DIR}/lab/sandbox ${ZAV_WRITABLE} -- $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}")
endfunction()
