# The toolchain of a cross build for Debian's arm64, with the packages that `scripts/setup.sh
# --host=arm64` installs. The emulator runs the tests.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# Tests that the emulator cannot run. QEMU 7.2 does not survive its program's end by a signal of the
# processor: it fails in an assertion of its own.
set(KTCLIENTD_NOT_EMULATED
    CrashTest.ASignalIsReportedAndEndsTheProcessAsItDoesWithoutAHandler
    CrashTest.NoSinkNoReport
    CrashTest.ACallToNowhereIsTracedToItsCaller
    CrashTest.AnOverflowOfTheStackIsReported
    CrashTest.ACrashInsideTheAllocatorOrTheTraceLogIsReported
    CrashTest.AReportIsNeitherEndedBySentSignalsNorHeldUpForEver
    CrashTest.OfThreadsThatCrashAtOnceOneIsReported
    CrashTest.AForkedChildReportsItsOwnCrashAndTheParentGoesOn
    CrashTest.SyslogGetsTheLines)
# The files of black-box tests that it can run. Others look at the daemon's command line or memory,
# trace its system calls, or let ktclientctl start another program of the tree.
set(KTCLIENTD_EMULATED_THEMES
    protocol sensor_commands hostile_clients fairness idle_exit resources native_host)
