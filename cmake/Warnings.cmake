# An INTERFACE target that all our targets link: the warnings, each with its reason. They are errors only in the presets
# (CMAKE_COMPILE_WARNING_AS_ERROR): a new warning of another compiler must not break a build elsewhere.
add_library(zav_options INTERFACE)
add_library(zav::options ALIAS zav_options)
target_compile_options(zav_options INTERFACE
  -Wall -Wextra         # the compilers' general checks
  -Wpedantic            # standard C++ only, no compiler extensions
  -Wshadow              # a shadowing name is easily mistaken for the outer one
  -Wconversion          # sizes, ports and HTTP codes cross int, long and size_t here
  -Wsign-conversion     # a period of -1 would become 4294967295 seconds
  -Wold-style-cast      # C casts hide the kind of conversion
  -Woverloaded-virtual  # a function that hides a virtual one instead of overriding it
  -Wnon-virtual-dtor    # deletion through a base class
  -Wformat=2            # format strings that are not literals
  -Wundef               # an undefined macro silently evaluates to 0
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>  # access to a guarded member without its mutex
)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  # The sanitizer's checks make g++ report paths that cannot be taken.
  target_compile_options(zav_options INTERFACE -Wno-maybe-uninitialized)
endif()

# Log lines contain source paths relative to src/ (platform code: to the root), never the build machine's folders. ccache
# may turn absolute paths into relative ones (base_dir), hence both. In g++, -ffile-prefix-map, which distributions set,
# overrides -fmacro-prefix-map in any order; only a later one overrides it.
set(map -fmacro-prefix-map)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_FLAGS MATCHES "-ffile-prefix-map")
  set(map -ffile-prefix-map)
endif()
file(RELATIVE_PATH root ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
foreach(prefix ${CMAKE_SOURCE_DIR}/ ${root})
  target_compile_options(zav_options INTERFACE ${map}=${prefix}= ${map}=${prefix}src/=)
endforeach()
if(map STREQUAL "-ffile-prefix-map")
  target_compile_options(zav_options INTERFACE -fdebug-prefix-map=${CMAKE_SOURCE_DIR}=.)
endif()
