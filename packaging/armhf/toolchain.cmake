# Cross-compilation for 32-bit ARM routers with Debian's compiler, and running the result under qemu's user emulation.
# TANDEM_SYSROOT is a directory that sysroot.sh made.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Debian's armhf baseline; some routers' processors have no NEON. The note that -Wno-psabi silences is about compilers
# before GCC 7.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=vfpv3-d16 -Wno-psabi")

set(TANDEM_SYSROOT "" CACHE PATH "The root directory with the libraries for armhf")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TANDEM_SYSROOT)
if(NOT EXISTS "${TANDEM_SYSROOT}/usr/include/arm-linux-gnueabihf")
  message(FATAL_ERROR "TANDEM_SYSROOT (\"${TANDEM_SYSROOT}\") is not a root directory of armhf: packaging/armhf/sysroot.sh makes one")
endif()
set(CMAKE_SYSROOT "${TANDEM_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TANDEM_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${TANDEM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${TANDEM_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${TANDEM_SYSROOT}")
