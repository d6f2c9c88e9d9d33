# The functions that declare the targets of this tree. Their arguments:
#
#   DEPENDS           targets of this tree, such as ktclientd::base
#   PACKAGES          targets from packages.cmake, such as PkgConfig::systemd
#   PRIVATE_PACKAGES  the same, of headers that only the library's own source files include
#
# File names are relative to the folder of the call. `scripts/check-layers` parses the calls for
# libraries and programs, so their arguments must be plain names, without variables.

include(GNUInstallDirs)
include(GoogleTest)

# Defines the version as the string literal KTCLIENTD_VERSION, for each target that depends on this
# one.
add_library(ktclientd_version INTERFACE)
add_library(ktclientd::version ALIAS ktclientd_version)
target_compile_definitions(ktclientd_version
                           INTERFACE "KTCLIENTD_VERSION=\"${PROJECT_VERSION}\"")

# ktclientd_precompile(<kind> <header>...): with KTCLIENTD_PRECOMPILE, the targets of that kind,
# `library` or `test`, get these headers precompiled. Then a source file compiles even if it does
# not include them; the builds without the option find that.
function(ktclientd_precompile kind)
  if(KTCLIENTD_PRECOMPILE)
    set(target "precompiled_${kind}")
    set(empty "${PROJECT_BINARY_DIR}/${target}.cc")
    file(CONFIGURE OUTPUT "${empty}" CONTENT "")
    add_library("${target}" OBJECT "${empty}")
    target_precompile_headers("${target}" PRIVATE ${ARGN})
    if(kind STREQUAL "test")
      # Compiled as the tests are, which are programs.
      target_link_libraries("${target}" PRIVATE GTest::gtest_main)
      set_target_properties("${target}" PROPERTIES POSITION_INDEPENDENT_CODE OFF)
      target_compile_options("${target}" PRIVATE -fPIE)
    endif()
  endif()
endfunction()

function(ktclientd_use_precompiled target kind)
  if(KTCLIENTD_PRECOMPILE)
    target_precompile_headers("${target}" REUSE_FROM "precompiled_${kind}")
  endif()
endfunction()

# The libraries that other programs can link. They are installed with their public headers, and
# find_package(ktclientd) defines them (packaging/ktclientd-config.cmake.in).
set(ktclientd_installed base arguments trace loop glib io net process utilities)

# Static library ktclientd::<name>, named as its folder. HEADERS are for every target that depends
# on it, PRIVATE_HEADERS only for its own folder. Each header must compile alone.
function(ktclientd_library name)
  set(library "ktclientd_${name}")
  add_library("${library}" STATIC)
  add_library("ktclientd::${name}" ALIAS "${library}")
  target_compile_features("${library}" PUBLIC cxx_std_20)
  ktclientd_use_precompiled("${library}" library)
  ktclientd_library_part("${name}" ${ARGN})
  if(name IN_LIST ktclientd_installed)
    set_target_properties("${library}" PROPERTIES EXPORT_NAME "${name}")
    install(TARGETS "${library}" EXPORT ktclientd
            ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}/ktclientd" COMPONENT development
            FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/ktclientd"
                             COMPONENT development)
  endif()
endfunction()

# Adds files to the library ktclientd::<name>: those of an option, such as KTCLIENTD_GLIB.
function(ktclientd_library_part name)
  ktclientd_parse_arguments("HEADERS;PRIVATE_HEADERS;SOURCES;DEPENDS;PACKAGES;PRIVATE_PACKAGES"
                            ${ARGN})
  set(library "ktclientd_${name}")
  target_sources("${library}"
    PRIVATE ${ARG_SOURCES} ${ARG_PRIVATE_HEADERS}
    PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${ARG_HEADERS})
  target_link_libraries("${library}" PUBLIC ${ARG_DEPENDS} ${ARG_PACKAGES})
  if(ARG_PRIVATE_PACKAGES)
    # An installed library does not ask its users for these packages.
    target_link_libraries("${library}" PRIVATE "$<BUILD_INTERFACE:${ARG_PRIVATE_PACKAGES}>")
  endif()
  ktclientd_check_headers("${library}" ${ARG_HEADERS} ${ARG_PRIVATE_HEADERS})
endfunction()

# Program <name>.
function(ktclientd_program name)
  ktclientd_parse_arguments("SOURCES;DEPENDS;PACKAGES" ${ARGN})
  add_executable("${name}" ${ARG_SOURCES})
  target_link_libraries("${name}" PRIVATE ${ARG_DEPENDS} ${ARG_PACKAGES})
endfunction()

# GoogleTest program <name>. ctest runs each of its test cases as <name>.<Suite>.<Case>.
function(ktclientd_test name)
  ktclientd_parse_arguments("SOURCES;DEPENDS;PACKAGES" ${ARGN})
  ktclientd_program("${name}" SOURCES ${ARG_SOURCES} DEPENDS ${ARG_DEPENDS}
                    PACKAGES ${ARG_PACKAGES} GTest::gtest_main)
  ktclientd_use_precompiled("${name}" test)
  set(filter)
  if(KTCLIENTD_NOT_EMULATED)
    list(JOIN KTCLIENTD_NOT_EMULATED ":" excluded)
    set(filter TEST_FILTER "-${excluded}")
  endif()
  gtest_discover_tests("${name}" TEST_PREFIX "${name}." ${filter} DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# libFuzzer program <name>; only for builds with KTCLIENTD_FUZZ.
function(ktclientd_fuzzer name)
  ktclientd_parse_arguments("SOURCES;DEPENDS;PACKAGES" ${ARGN})
  ktclientd_program("${name}" SOURCES ${ARG_SOURCES} DEPENDS ${ARG_DEPENDS}
                    PACKAGES ${ARG_PACKAGES})
  target_link_options("${name}" PRIVATE -fsanitize=fuzzer)
endfunction()

# Compiles each header alone, as the first include of a source file: of its own one, or of one in
# the target `headers`, which the test of this name builds.
function(ktclientd_check_headers library)
  if(NOT BUILD_TESTING)
    return()
  endif()
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY "${PROJECT_SOURCE_DIR}"
             OUTPUT_VARIABLE folder)
  foreach(header IN LISTS ARGN)
    # A source file that includes its own header first, compiles this header alone already.
    string(REGEX REPLACE "h$" "cc" own "${CMAKE_CURRENT_SOURCE_DIR}/${header}")
    set(first)
    if(EXISTS "${own}")
      file(STRINGS "${own}" first REGEX "^#include" LIMIT_COUNT 1)
    endif()
    if(first STREQUAL "#include \"${folder}/${header}\"")
      continue()
    endif()
    set(source "${PROJECT_BINARY_DIR}/headers/${folder}/${header}.cc")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${folder}/${header}\"\n")
    list(APPEND sources "${source}")
  endforeach()
  if(NOT TARGET headers)
    add_library(headers OBJECT EXCLUDE_FROM_ALL)
  endif()
  target_sources(headers PRIVATE ${sources})
  target_link_libraries(headers PRIVATE "${library}")
endfunction()

# Sets ARG_<list> for each of `lists`. An argument that belongs to no list is an error.
macro(ktclientd_parse_arguments lists)
  cmake_parse_arguments(ARG "" "" "${lists}" ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${name}: unexpected ${ARG_UNPARSED_ARGUMENTS}")
  endif()
endmacro()
