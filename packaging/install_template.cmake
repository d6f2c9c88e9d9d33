# Runs at installation; packaging/CMakeLists.txt sets the variables.

cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
foreach(path IN ITEMS destination bindir sbindir datadir)
  cmake_path(ABSOLUTE_PATH ${path} BASE_DIRECTORY "${prefix}")
endforeach()

set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
if(isExecutable)
  list(APPEND permissions OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
endif()
message(STATUS "Installing: $ENV{DESTDIR}${destination}")
configure_file("${template}" "$ENV{DESTDIR}${destination}" @ONLY FILE_PERMISSIONS ${permissions})
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${destination}")
