# The toolchain of the portable archive: the build machine's clang and lld, with the C library, libc++
# and libgcc of the old system in the folder KTCLIENTD_SYSROOT. The programs link only the C library
# dynamically. No program of the old system runs, so its architecture, CMAKE_SYSTEM_PROCESSOR, may be
# a foreign one. The libraries that are only headers are in KTCLIENTD_HEADERS and not in the sysroot:
# there their folder would bring the C library's headers before those of libc++. scripts/portable.sh
# makes both folders.

set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KTCLIENTD_SYSROOT KTCLIENTD_HEADERS
    CMAKE_SYSTEM_PROCESSOR)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT "${KTCLIENTD_SYSROOT}")
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET "${CMAKE_SYSTEM_PROCESSOR}-linux-gnu")
set(CMAKE_CXX_COMPILER_TARGET "${CMAKE_SYSTEM_PROCESSOR}-linux-gnu")

file(GLOB libcxx "${CMAKE_SYSROOT}/usr/lib/llvm-*")
set(libraries "${libcxx}/lib/libc++.a" "${libcxx}/lib/libc++abi.a" -lpthread -ldl)
list(JOIN libraries " " CMAKE_CXX_STANDARD_LIBRARIES_INIT)
# The linker does not need the folder of the headers.
set(CMAKE_CXX_FLAGS_INIT
    "-stdlib++-isystem ${libcxx}/include/c++/v1 -Wno-unused-command-line-argument")
# The same commit gives the same bytes in any folder.
string(APPEND CMAKE_CXX_FLAGS_INIT " -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -static-libgcc -nostdlib++ -Wl,--strip-all")

set(CMAKE_FIND_ROOT_PATH "${KTCLIENTD_HEADERS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Debian 12 has this package in the folder of its build machine's architecture.
file(GLOB utf8cpp_DIR "${KTCLIENTD_HEADERS}/usr/lib/*/cmake/utf8cpp")
