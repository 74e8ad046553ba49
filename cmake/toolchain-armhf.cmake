# 32-bit ARM (armhf, the ABI family of armeabi-v7a) on Debian: the
# arm-linux-gnueabihf cross compilers and the multiarch armhf libraries that
# `scripts/setup --arm` installs. Programs the build makes (tests, tools,
# benchmarks) run on this machine under qemu-user; `scripts/test --arm` uses
# this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Libraries (libmpg123, GoogleTest) live in the multiarch folders
# /usr/lib/arm-linux-gnueabihf, the C library with the cross compiler.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# pkg-config must see only the armhf .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# CTest and GoogleTest's test discovery start every test program through the
# emulator. The loader and libraries it needs are the multiarch armhf ones
# under /, so qemu needs no sysroot. The tests read SONVARA_EMULATOR to start
# the programs they run themselves (their own re-exec into the private
# network, the receiver command) through the same emulator.
find_program(SONVARA_QEMU_ARM NAMES qemu-arm-static qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${SONVARA_QEMU_ARM})

# GCC notes at every std::vector<long long> call that its argument passing
# changed in GCC 7.1: only code mixed across that old compiler would care.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
