// Process set-up of every GL test program, before main():
// - EGL's default display exists on this host only with the surfaceless platform;
// - the software rasteriser is pinned in memory so that eglTerminate does not unload it, which
//   would make LeakSanitizer report the driver's own unload-time allocations as leaks.
#include <dlfcn.h>
#include <stdlib.h>

namespace {

struct GLTestProcess {
    GLTestProcess() {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        const int flags = RTLD_NOW | RTLD_NODELETE;
        if (dlopen("/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so", flags) == nullptr) {
            dlopen("swrast_dri.so", flags);
        }
    }
} gGLTestProcess;

}  // namespace
