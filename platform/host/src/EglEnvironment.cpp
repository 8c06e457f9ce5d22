// Selects the EGL platform before any EGL call of the process.
#include <cstdlib>

namespace {

// Runs when the library is loaded, before the program's own initialisers. The host has no
// window system, so eglGetDisplay(EGL_DEFAULT_DISPLAY) must use Mesa's surfaceless platform; a
// value already set in the environment is kept.
__attribute__((constructor)) void selectSurfacelessPlatform() {
    setenv("EGL_PLATFORM", "surfaceless", 0);
}

}  // namespace
