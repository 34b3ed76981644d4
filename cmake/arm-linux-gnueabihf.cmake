# 32-bit ARM Linux (armhf) with Debian's cross toolchain and multiarch -dev packages
# (crossbuild-essential-armhf, libssl-dev:armhf, ...): headers in /usr/include, libraries in
# /usr/lib/arm-linux-gnueabihf, no separate sysroot. scripts/armhf.sh installs them.
#
# When qemu-arm is there, CTest runs the tests through it, and so do the programs that start
# other programs (see ZEL_LAUNCH_EMULATOR in vault/CMakeLists.txt).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC notes, at every std::map of strings, that GCC 7.1 changed how ARM passes such arguments;
# everything here is built by one compiler, so the notes only bury the build's real messages.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Build tools (pkg-config, the code generator of nothing) come from the build machine; libraries,
# headers and CMake packages only from armhf's folders, never the build machine's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")

find_program(ZEL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(ZEL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ZEL_QEMU_ARM}")
endif()
