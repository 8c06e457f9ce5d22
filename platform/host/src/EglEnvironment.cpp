// Process set-up for EGL, run when the host platform library is loaded, before the program's
// own initialisers and before any EGL call of the process. Every program that draws (the
// replay tool, tests, benchmarks, fuzzers) loads this library, so each gets the same set-up.
#include <dlfcn.h>

#include <cstdlib>

#ifndef QLMR_SWRAST_DRIVER
#define QLMR_SWRAST_DRIVER "/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so"
#endif

namespace {

__attribute__((constructor)) void prepareEgl() {
    // The host has no window system, so eglGetDisplay(EGL_DEFAULT_DISPLAY) must use Mesa's
    // surfaceless platform; a value already set in the environment is kept.
    setenv("EGL_PLATFORM", "surfaceless", 0);
    // Mesa's software rasteriser is pinned in memory: eglTerminate would otherwise unload it,
    // and LeakSanitizer would then report the driver's own unload-time allocations (112 bytes
    // in two objects, from frames it can no longer name) as leaks of the program.
    const int flags = RTLD_NOW | RTLD_NODELETE;
    if (dlopen(QLMR_SWRAST_DRIVER, flags) == nullptr)
        dlopen("swrast_dri.so", flags);
}

}  // namespace
