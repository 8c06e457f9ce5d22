// libFuzzer target of the host camera's parameter text (android::CameraParameters): the input
// is unflattened, every typed getter the engine and the host camera use is read, and the text
// is flattened and read back, which must give the same parameters.
#include <camera/CameraParameters.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using android::CameraParameters;
    // The text is a C string in the camera API: it ends at the first NUL.
    const std::string text(reinterpret_cast<const char*>(data), size);
    CameraParameters params;
    params.unflatten(android::String8(text.c_str()));

    int w = 0;
    int h = 0;
    params.getPreviewSize(&w, &h);
    params.getVideoSize(&w, &h);
    params.getPictureSize(&w, &h);
    params.getPreferredPreviewSizeForVideo(&w, &h);
    android::Vector<android::Size> sizes;
    params.getSupportedPreviewSizes(sizes);
    params.getSupportedVideoSizes(sizes);
    params.getSupportedPictureSizes(sizes);
    for (size_t i = 0; i < sizes.size(); ++i) {
        if (sizes[i].width <= 0 || sizes[i].height <= 0)
            std::abort();
    }
    int lo = 0;
    int hi = 0;
    params.getPreviewFpsRange(&lo, &hi);
    params.getPreviewFrameRate();
    params.getPreviewFormat();
    params.getPictureFormat();
    params.getInt(CameraParameters::KEY_ZOOM);
    params.getFloat(CameraParameters::KEY_MAX_ZOOM);

    // Round trip: the flattened text unflattens to the same text.
    const android::String8 flat = params.flatten();
    CameraParameters again;
    again.unflatten(flat);
    if (std::strcmp(again.flatten().string(), flat.string()) != 0)
        std::abort();

    // Setting a value taken from the text is either refused or read back unchanged.
    const char* zoom = params.get(CameraParameters::KEY_ZOOM);
    if (zoom != nullptr) {
        const std::string kept = zoom;
        again.set(CameraParameters::KEY_PREVIEW_FORMAT, kept.c_str());
        const char* back = again.get(CameraParameters::KEY_PREVIEW_FORMAT);
        if (kept.find_first_of("=;") == std::string::npos && (back == nullptr || kept != back))
            std::abort();
    }
    return 0;
}
