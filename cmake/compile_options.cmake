# How every target of the tree is compiled and linked. Imported targets are not affected.

get_property(isMultiConfig GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
if(NOT CMAKE_BUILD_TYPE AND NOT isMultiConfig)
  set_property(CACHE CMAKE_BUILD_TYPE PROPERTY VALUE RelWithDebInfo)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")

# Position-independent code alone does not make the linker produce position-independent programs.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
link_libraries(Threads::Threads)

if(KTCLIENTD_PRECOMPILE)
  # All users of a precompiled header need the same options, and RE2 brings this one.
  add_compile_options(-pthread)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # In such a header GCC does not know the system's headers, and warns of their code.
    add_compile_options(-Wno-array-bounds -Wno-stringop-overflow)
  endif()
endif()

# Headers are named from the root: "base/shared.h".
include_directories("${PROJECT_SOURCE_DIR}")

# The presets make a warning an error. Other compilers know warnings that ours do not.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
add_link_options(-Wl,--as-needed)

include(hardening)

set(sanitizers "${KTCLIENTD_SANITIZERS}")
if(KTCLIENTD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KTCLIENTD_FUZZ needs clang")
  endif()
  string(PREPEND sanitizers "fuzzer-no-link,")
endif()
if(sanitizers)
  add_compile_options("-fsanitize=${sanitizers}" -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1)
  # The check of virtual pointers opens a pipe to look at memory. When a test has used up all
  # descriptors, that fails, and the check then reports a valid object as invalid.
  add_compile_options(-fno-sanitize=vptr)
  add_link_options("-fsanitize=${sanitizers}")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The added checks hide from GCC that a variable is always set.
    add_compile_options(-Wno-maybe-uninitialized)
  else()
    # Only clang has this check. It reads what is before a function, and so it crashes first when a
    # test calls an address where nothing is.
    add_compile_options(-fno-sanitize=function)
    # The macros by which GCC tells of a sanitizer.
    foreach(sanitizer IN ITEMS address thread)
      if(sanitizers MATCHES "${sanitizer}")
        string(TOUPPER "__SANITIZE_${sanitizer}__" macro)
        add_compile_definitions("${macro}")
      endif()
    endforeach()
  endif()
endif()

if(KTCLIENTD_COVERAGE)
  # Atomic counters: threads run the same lines.
  add_compile_options(--coverage -fprofile-abs-path -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
