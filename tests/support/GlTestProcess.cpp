// Process set-up of every GL test and benchmark program, run before main():
// - EGL's default display exists on this host only with the surfaceless platform (the host
//   platform library sets it as well when it loads; a value already set is kept);
// - the software rasteriser is pinned in memory so that eglTerminate does not unload it, which
//   would make LeakSanitizer report the driver's own unload-time allocations as leaks.
// Programs link it as the object library qlmr_gl_test_process: nothing refers to it, so a
// static library would leave it out.
#include <dlfcn.h>
#include <stdlib.h>

#ifndef QLMR_SWRAST_DRIVER
#define QLMR_SWRAST_DRIVER "/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so"
#endif

namespace {

struct GlTestProcess {
    GlTestProcess() {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        const int flags = RTLD_NOW | RTLD_NODELETE;
        if (dlopen(QLMR_SWRAST_DRIVER, flags) == nullptr) {
            dlopen("swrast_dri.so", flags);
        }
    }
} gGlTestProcess;

}  // namespace
