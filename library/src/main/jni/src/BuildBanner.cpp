#include "BuildBanner.h"

#include "Log.h"

namespace qlmr {

void logBuildBanner() {
    QLOGI("[VStab] Built for platform: %s", kBuildPlatform);
    QLOGI("[VStab] Built for ndk : %s", "android-23");
    QLOGI("[VStab] Built for Android : %s", "6.0");
    QLOGI("[VStab] Built for GPU : %s", "adreno");
    QLOGI("[VStab] Built with GLES : %d", 2);
    QLOGI("[VStab] Built with GLSL : %s", "300");
    QLOGI("[VStab] Built with Android Headers for : %s", kBuildPlatform);
    QLOGI("[VStab] Built with Android Libraries for : %s", kBuildPlatform);
}

}  // namespace qlmr
