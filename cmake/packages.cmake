# Libraries from the system: PkgConfig::systemd, PkgConfig::glib, PkgConfig::uuid, PkgConfig::re2,
# PkgConfig::archive, nlohmann_json::nlohmann_json, CLI11::CLI11, utf8cpp and, for the tests,
# GTest::gtest_main.

find_package(PkgConfig REQUIRED)
pkg_check_modules(systemd REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(glib REQUIRED IMPORTED_TARGET glib-2.0)
pkg_check_modules(uuid REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(re2 REQUIRED IMPORTED_TARGET re2)
pkg_check_modules(archive REQUIRED IMPORTED_TARGET libarchive)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(CLI11 2.1 REQUIRED)
find_package(utf8cpp 3.2 REQUIRED)
if(KTCLIENTD_TESTS)
  find_package(GTest REQUIRED)
endif()
