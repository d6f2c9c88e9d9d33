# The toolchain of a cross build for Debian's arm64, with the packages that `scripts/setup.sh
# --host=arm64` installs. The emulator runs the tests.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Debian 12 has this package, which is only headers, in the folder of its build machine.
file(GLOB utf8cpp_DIR /usr/lib/*/cmake/utf8cpp)
