# One INTERFACE target that everything of ours links: the warnings, each with its reason. They are errors in the presets
# only (CMAKE_COMPILE_WARNING_AS_ERROR): another compiler's new warning must not break a build elsewhere.
add_library(zav_options INTERFACE)
target_compile_options(zav_options INTERFACE
  -Wall -Wextra         # the compilers' own idea of what is suspicious
  -Wpedantic            # the language, not one compiler's dialect
  -Wshadow              # a shadowed name reads as the other one
  -Wconversion          # sizes, ports and HTTP codes cross int, long and size_t here
  -Wsign-conversion     # likewise for signs: a period of -1 is 4294967295 seconds
  -Wold-style-cast      # C casts hide which conversion is meant
  -Woverloaded-virtual  # an override that does not override
  -Wnon-virtual-dtor    # deleting through a base
  -Wformat=2            # format strings from variables
  -Wundef               # a macro that silently reads as 0
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>  # a guarded member that is touched without its mutex
)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  # With the sanitizer's checks in between, g++ sees paths that do not exist.
  target_compile_options(zav_options INTERFACE -Wno-maybe-uninitialized)
endif()

# Log lines carry the source's path below src/, platform code below the root; never this machine's folders. For g++ a
# distribution's -ffile-prefix-map beats -fmacro-prefix-map in whatever order; only another one beats it.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_FLAGS MATCHES "-ffile-prefix-map")
  target_compile_options(zav_options INTERFACE
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_SOURCE_DIR}/src/=
    -fdebug-prefix-map=${CMAKE_SOURCE_DIR}=.)
else()
  target_compile_options(zav_options INTERFACE
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/src/=)
endif()
