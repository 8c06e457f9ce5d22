# 32-bit ARM (hard-float): Debian's cross toolchain (g++-arm-linux-gnueabihf) against the Debian
# 12 armhf sysroot that scripts/armhf-sysroot.sh extracts (QLMR_ARMHF_SYSROOT, by default
# build/armhf-sysroot). Programs run under user-mode QEMU with the sysroot as their root; GL
# runs on the sysroot's Mesa (llvmpipe) without a display (the host platform picks EGL's
# surfaceless platform itself).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT QLMR_ARMHF_SYSROOT)
  if(DEFINED ENV{QLMR_ARMHF_SYSROOT})
    set(QLMR_ARMHF_SYSROOT $ENV{QLMR_ARMHF_SYSROOT})
  else()
    get_filename_component(QLMR_ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
  endif()
endif()
if(NOT EXISTS ${QLMR_ARMHF_SYSROOT}/.qlmr-packages)
  message(FATAL_ERROR "no armhf sysroot at ${QLMR_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh")
endif()
# Passed on to try_compile projects, which read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QLMR_ARMHF_SYSROOT)
set(CMAKE_SYSROOT ${QLMR_ARMHF_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files and prefixes their paths with it.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})

# The sysroot's JDK (openjdk-17-jdk-headless:armhf): its jni.h for the binding, its libjvm for
# the tests that embed a JVM and its java for the JVM-driven tests (cmake/JavaHost.cmake).
set(QLMR_TARGET_JAVA_HOME ${CMAKE_SYSROOT}/usr/lib/jvm/java-17-openjdk-armhf)

# GCC notes, at every std::vector<T>::iterator passed by value, that GCC 7.1 changed how such
# arguments are passed on ARM; the whole build uses the one compiler, so the notes are noise.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# 64-bit file offsets and inode numbers: with 32-bit ones readdir() fails (EOVERFLOW) on file
# systems that hand out 64-bit directory cookies, as ext4 does.
add_compile_definitions(_FILE_OFFSET_BITS=64)

# qemu-arm with the sysroot as the programs' root (cross/armhf/qemu-run.sh: it also lets death
# tests re-execute their program).
get_filename_component(_qlmr_qemu_run ${CMAKE_CURRENT_LIST_DIR}/../cross/armhf/qemu-run.sh ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_qlmr_qemu_run} ${CMAKE_SYSROOT})
