// Camera parameters in the platform's text form: "key=value;key=value;...".
//
// Keys and values may not contain '=' or ';' (set() refuses them with a logged error). Sizes
// are written "WIDTHxHEIGHT", lists of sizes "W1xH1,W2xH2". Numeric getters return -1 when the
// key is missing or its value is not a number. flatten() writes the entries sorted by key.
//
// Not thread-safe: each thread works on its own copy (the camera hands out text).
#pragma once

#include <map>
#include <string>

#include <utils/String8.h>
#include <utils/Vector.h>

namespace android {

struct Size {
    int width;
    int height;

    Size() : width(0), height(0) {}
    Size(int w, int h) : width(w), height(h) {}
};

class CameraParameters {
  public:
    CameraParameters();
    explicit CameraParameters(const String8& params) { unflatten(params); }
    ~CameraParameters();

    String8 flatten() const;
    // Replaces every entry by those of `params`. A malformed entry (no '=', or an empty key) is
    // logged and skipped; the entries around it are kept.
    void unflatten(const String8& params);

    void set(const char* key, const char* value);
    void set(const char* key, int value);
    void setFloat(const char* key, float value);
    // The value, or null when the key is missing. The pointer stays valid until the entry is
    // changed or removed.
    const char* get(const char* key) const;
    int getInt(const char* key) const;
    float getFloat(const char* key) const;
    void remove(const char* key);

    void setPreviewSize(int width, int height);
    void getPreviewSize(int* width, int* height) const;
    void getSupportedPreviewSizes(Vector<Size>& sizes) const;

    // Video size. When the camera has no separate video sizes (no "video-size-values"), the
    // video size is the preview size; getVideoSize() then reports -1 x -1.
    void setVideoSize(int width, int height);
    void getVideoSize(int* width, int* height) const;
    void getSupportedVideoSizes(Vector<Size>& sizes) const;
    void getPreferredPreviewSizeForVideo(int* width, int* height) const;

    // Frames per second; -1 when not set.
    void setPreviewFrameRate(int fps);
    int getPreviewFrameRate() const;
    // Range in frames per second times 1000; -1, -1 when not set.
    void getPreviewFpsRange(int* minFps, int* maxFps) const;

    void setPreviewFormat(const char* format);
    const char* getPreviewFormat() const;

    void setPictureSize(int width, int height);
    void getPictureSize(int* width, int* height) const;
    void getSupportedPictureSizes(Vector<Size>& sizes) const;
    void setPictureFormat(const char* format);
    const char* getPictureFormat() const;

    // Logs every entry (debug priority).
    void dump() const;

    static const char KEY_PREVIEW_SIZE[];
    static const char KEY_SUPPORTED_PREVIEW_SIZES[];
    static const char KEY_PREVIEW_FPS_RANGE[];
    static const char KEY_SUPPORTED_PREVIEW_FPS_RANGE[];
    static const char KEY_PREVIEW_FORMAT[];
    static const char KEY_SUPPORTED_PREVIEW_FORMATS[];
    static const char KEY_PREVIEW_FRAME_RATE[];
    static const char KEY_SUPPORTED_PREVIEW_FRAME_RATES[];
    static const char KEY_PICTURE_SIZE[];
    static const char KEY_SUPPORTED_PICTURE_SIZES[];
    static const char KEY_PICTURE_FORMAT[];
    static const char KEY_SUPPORTED_PICTURE_FORMATS[];
    static const char KEY_VIDEO_SIZE[];
    static const char KEY_SUPPORTED_VIDEO_SIZES[];
    static const char KEY_PREFERRED_PREVIEW_SIZE_FOR_VIDEO[];
    static const char KEY_VIDEO_FRAME_FORMAT[];
    static const char KEY_RECORDING_HINT[];
    static const char KEY_VIDEO_STABILIZATION[];
    static const char KEY_VIDEO_STABILIZATION_SUPPORTED[];
    static const char KEY_ZOOM[];
    static const char KEY_MAX_ZOOM[];
    static const char KEY_ZOOM_RATIOS[];
    static const char KEY_ZOOM_SUPPORTED[];

    static const char TRUE[];
    static const char FALSE[];

    static const char PIXEL_FORMAT_YUV422SP[];
    static const char PIXEL_FORMAT_YUV420SP[];
    static const char PIXEL_FORMAT_YUV422I[];
    static const char PIXEL_FORMAT_YUV420P[];
    static const char PIXEL_FORMAT_RGB565[];
    static const char PIXEL_FORMAT_RGBA8888[];
    static const char PIXEL_FORMAT_JPEG[];
    static const char PIXEL_FORMAT_ANDROID_OPAQUE[];

  private:
    std::map<std::string, std::string> mMap;
};

}  // namespace android
