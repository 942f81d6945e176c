# Whatever is linked is a target, so that a misspelt name ends the configuration.
set(CMAKE_LINK_LIBRARIES_ONLY_TARGETS ON)

# zav_library(name DESCRIPTION text SOURCES ... [PUBLIC ...] [PRIVATE ...]): the static library of a platform folder,
# zav::name, and its installation.
function(zav_library name)
  cmake_parse_arguments(arg "" "DESCRIPTION" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  add_library(zav::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME zav-${name})
  target_include_directories(${name}
    PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/zav>
    PRIVATE src)
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_libraries(${name}
    PUBLIC ${arg_PUBLIC} Threads::Threads
    PRIVATE $<BUILD_INTERFACE:zav::options> ${arg_PRIVATE})
  if(ZAV_INSTALL_LIBRARIES)
    zav_install_library(${name} ${arg_DESCRIPTION} ${arg_PUBLIC} ${arg_PRIVATE})
  endif()
endfunction()

# Coverage counters are files in the build folder, which tests in the sandbox may write. lab/phone looks for the touched file.
if(CMAKE_CXX_FLAGS MATCHES "-fprofile-instr-generate")
  set(ZAV_WRITABLE --bind ${CMAKE_BINARY_DIR})
  file(TOUCH ${CMAKE_BINARY_DIR}/coverage-counters)
  add_library(zav_profile_path OBJECT ${CMAKE_SOURCE_DIR}/tests/coverage/profile_path.cpp)
  target_compile_definitions(zav_profile_path PRIVATE PROFILE_PATH="${CMAKE_BINARY_DIR}/profiles/%c%m.profraw")
  link_libraries($<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,STATIC_LIBRARY>>:zav_profile_path>)
endif()

# Optimising tests takes longer than it saves, above all with sanitizers. Without them _FORTIFY_SOURCE needs -O1.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(ZAV_TEST_OPTIONS -O0)
else()
  set(ZAV_TEST_OPTIONS $<$<CONFIG:Release>:-O1>)
endif()

# Under emulation tests take several times as long, and those that tests/emulation.txt names are not run.
if(CMAKE_CROSSCOMPILING_EMULATOR)
  set(ZAV_SLOWNESS 5)
  set(emulation ${CMAKE_SOURCE_DIR}/tests/emulation.txt)
  set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${emulation})
  file(STRINGS ${emulation} ZAV_NOT_EMULATED REGEX "^[*a-z]")
elseif(CMAKE_CXX_FLAGS MATCHES "-fprofile-instr-generate|-fsanitize")
  set(ZAV_SLOWNESS 4)  # counters and checks slow down header-only libraries most
else()
  set(ZAV_SLOWNESS 1)
endif()

# zav_runnable(target variable): the path of a program that tests start. Under emulation that is a script, which is also
# the name that the program has of itself, to start itself again.
function(zav_runnable target variable)
  set(path $<TARGET_FILE:${target}>)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(path ${CMAKE_BINARY_DIR}/emulated/bin/${target})
    get_property(written TARGET ${target} PROPERTY ZAV_RUNNABLE)
    if(NOT written)
      set_property(TARGET ${target} PROPERTY ZAV_RUNNABLE ON)
      list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" emulator)
      file(GENERATE OUTPUT ${path} CONTENT "#!/bin/sh\nexec '${emulator}' -0 \"$0\" '$<TARGET_FILE:${target}>' \"$@\"\n"
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    endif()
  endif()
  set(${variable} ${path} PARENT_SCOPE)
endfunction()

# zav_test(name SOURCES ... [LIBS ...] [LABELS unit] [TIMEOUT s] [SECONDS s]): a GoogleTest program. It runs in a sandbox
# with empty, private copies of the phone's folders: /var/volatile, /config, /custom, /etc/zav.d. SECONDS is the
# approximate run time; ctest starts long tests first, so that none of them runs alone at the end.
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
  target_link_libraries(${name} PRIVATE ${arg_LIBS} zav::options GTest::gmock GTest::gtest GTest::gtest_main)
  set(left_out)
  foreach(row IN LISTS ZAV_NOT_EMULATED)
    if(row MATCHES "^([*]|${ZAV_ARCHITECTURE}) +${name} +([^ ]+) ")
      string(APPEND left_out ":${CMAKE_MATCH_2}")
    endif()
  endforeach()
  if(left_out)
    set(left_out --gtest_filter=-${left_out})
  endif()
  zav_runnable(${name} program)
  add_test(NAME ${name} COMMAND ${CMAKE_SOURCE_DIR}/lab/sandbox ${ZAV_WRITABLE} -- ${program} ${left_out})
  math(EXPR timeout "${arg_TIMEOUT} * ${ZAV_SLOWNESS}")
  set_tests_properties(${name} PROPERTIES TIMEOUT ${timeout} LABELS "${arg_LABELS}" COST "0${arg_SECONDS}")
endfunction()
