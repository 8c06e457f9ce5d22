#!/bin/sh
# The armhf build's CMAKE_CROSSCOMPILING_EMULATOR: runs an ARM program under qemu-arm with the
# sysroot as its root.
#   qemu-run.sh SYSROOT PROGRAM [ARGS...]
# GoogleTest's death tests re-execute their own program (argv[0]), which the kernel cannot run
# without a binfmt_misc entry for ARM; so test programs (*_tests) see this script as argv[0],
# and when it is executed that way (no SYSROOT and PROGRAM in front) it runs the program named
# in the environment again under qemu-arm.
if [ -d "${1:-}" ] && [ -f "${2:-}" ]; then
  QLMR_QEMU_SYSROOT=$1
  QLMR_QEMU_PROGRAM=$2
  shift 2
  export QLMR_QEMU_SYSROOT QLMR_QEMU_PROGRAM
fi
# The AOSP libraries' and the JVM's folders by their real paths: the programs' run path names them
# as on the target (/usr/lib/...), and neither the loader (which checks that a run path folder
# exists before it searches it) nor the JVM (which finds its home from where libjvm.so was
# loaded) always sees such paths through qemu's -L redirection.
# (The java launcher itself is left to find libjvm.so: with its folder in LD_LIBRARY_PATH it
# executes itself again, which the kernel cannot do for it.)
libs=$QLMR_QEMU_SYSROOT/usr/lib/arm-linux-gnueabihf/android
case "$QLMR_QEMU_PROGRAM" in
  *_tests)
    libs=$libs:$QLMR_QEMU_SYSROOT/usr/lib/jvm/java-17-openjdk-armhf/lib/server
    set -- -0 "$0" "$QLMR_QEMU_PROGRAM" "$@"
    ;;
  *) set -- "$QLMR_QEMU_PROGRAM" "$@" ;;
esac
# An ARMv7 processor with VFPv3-D16 and no NEON (Debian's armhf baseline): with NEON, llvmpipe's
# bilinear texture sampling under qemu-arm 7.2 returns texel (0, 0) everywhere (see
# docs/reliability.md), which would leave every warped frame one flat colour.
exec qemu-arm -cpu cortex-r5f -L "$QLMR_QEMU_SYSROOT" -E LD_LIBRARY_PATH="$libs" "$@"
