# Files over 2 GiB, and file systems that hold them, on 32-bit systems too.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(zav_options INTERFACE _FILE_OFFSET_BITS=64)
endif()
