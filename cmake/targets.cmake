# The functions that declare the targets of this tree. Their arguments:
#
#   DEPENDS   targets of this tree, such as ktclientd::base
#   PACKAGES  targets from packages.cmake, such as PkgConfig::systemd
#
# File names are relative to the folder of the call. `scripts/check-layers` parses the calls for
# libraries and programs, so their arguments must be plain names, without variables.

include(GoogleTest)

# Defines the version as the string literal KTCLIENTD_VERSION, for each target that depends on this
# one.
add_library(ktclientd_version INTERFACE)
add_library(ktclientd::version ALIAS ktclientd_version)
target_compile_definitions(ktclientd_version
                           INTERFACE "KTCLIENTD_VERSION=\"${PROJECT_VERSION}\"")

# Library ktclientd::<name>, named as its folder: static, or an interface library without SOURCES. HEADERS are for every target that depends on it, PRIVATE_HEADERS only for its own
# folder. Each header must compile alone.
function(ktclientd_library name)
  ktclientd_parse_arguments("HEADERS;PRIVATE_HEADERS;SOURCES;DEPENDS;PACKAGES" ${ARGN})
  set(headers ${ARG_HEADERS} ${ARG_PRIVATE_HEADERS})
  set(library "ktclientd_${name}")
  if(ARG_SOURCES)
    add_library("${library}" STATIC ${ARG_SOURCES} ${headers})
    target_link_libraries("${library}" PUBLIC ${ARG_DEPENDS} ${ARG_PACKAGES})
  else()
    add_library("${library}" INTERFACE ${headers})
    target_link_libraries("${library}" INTERFACE ${ARG_DEPENDS} ${ARG_PACKAGES})
  endif()
  add_library("ktclientd::${name}" ALIAS "${library}")
  ktclientd_check_headers("${library}" ${headers})
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
  gtest_discover_tests("${name}" TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST
                       DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# libFuzzer program <name>; only for builds with KTCLIENTD_FUZZ.
function(ktclientd_fuzzer name)
  ktclientd_parse_arguments("SOURCES;DEPENDS;PACKAGES" ${ARGN})
  ktclientd_program("${name}" SOURCES ${ARG_SOURCES} DEPENDS ${ARG_DEPENDS}
                    PACKAGES ${ARG_PACKAGES})
  target_link_options("${name}" PRIVATE -fsanitize=fuzzer)
endfunction()

# Compiles each header alone: as the only include of a source file.
function(ktclientd_check_headers library)
  if(NOT KTCLIENTD_CHECK_HEADERS OR NOT ARGN)
    return()
  endif()
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY "${PROJECT_SOURCE_DIR}"
             OUTPUT_VARIABLE folder)
  foreach(header IN LISTS ARGN)
    set(source "${PROJECT_BINARY_DIR}/headers/${folder}/${header}.cc")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${folder}/${header}\"\n")
    list(APPEND sources "${source}")
  endforeach()
  add_library("${library}_headers" OBJECT ${sources})
  target_link_libraries("${library}_headers" PRIVATE "${library}")
endfunction()

# Sets ARG_<list> for each of `lists`. An argument that belongs to no list is an error.
macro(ktclientd_parse_arguments lists)
  cmake_parse_arguments(ARG "" "" "${lists}" ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${name}: unexpected ${ARG_UNPARSED_ARGUMENTS}")
  endif()
endmacro()
