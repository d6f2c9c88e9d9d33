# Every optimised build is hardened: Release, RelWithDebInfo, MinSizeRel, and flags that optimise.
# `scripts/check-hardening` checks the programs. The options of position-independent programs are in
# compile_options.cmake.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

set(isOptimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
if(CMAKE_CXX_FLAGS MATCHES "(^| )-O([123gsz]|fast)")
  set(isOptimised 1)
endif()

# Undefined first: some compilers predefine a level, and warn about a different one.
set(hardening -U_FORTIFY_SOURCE -fstack-protector-strong -ffunction-sections -fdata-sections)

# Level 3 needs both a compiler and a C library that know it.
set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -Werror")
check_cxx_source_compiles("
  #include <features.h>
  #if __USE_FORTIFY_LEVEL < 3
  #error
  #endif
  int main() {}" KTCLIENTD_HAS_FORTIFY_3)
list(APPEND hardening "-D_FORTIFY_SOURCE=$<IF:$<BOOL:${KTCLIENTD_HAS_FORTIFY_3}>,3,2>")

# Options that only some compilers and architectures have: a large frame is touched page by page;
# indirect jumps and returns are checked, on x86 and on arm64.
set(CMAKE_REQUIRED_FLAGS -Werror)
foreach(option IN ITEMS -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "KTCLIENTD_HAS${option}" has)
  check_cxx_compiler_flag("${option}" "${has}")
  if(${has})
    list(APPEND hardening "${option}")
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)

add_compile_options("$<${isOptimised}:${hardening}>")
add_link_options("$<${isOptimised}:-Wl,-z,relro,-z,now,--gc-sections>")
add_compile_definitions("$<$<NOT:${isOptimised}>:_GLIBCXX_ASSERTIONS>")
