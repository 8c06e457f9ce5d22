// Camera parameters in "key=value;key=value" text form.
#include <camera/CameraParameters.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_log.h"

namespace android {

const char CameraParameters::KEY_PREVIEW_SIZE[] = "preview-size";
const char CameraParameters::KEY_SUPPORTED_PREVIEW_SIZES[] = "preview-size-values";
const char CameraParameters::KEY_PREVIEW_FPS_RANGE[] = "preview-fps-range";
const char CameraParameters::KEY_SUPPORTED_PREVIEW_FPS_RANGE[] = "preview-fps-range-values";
const char CameraParameters::KEY_PREVIEW_FORMAT[] = "preview-format";
const char CameraParameters::KEY_SUPPORTED_PREVIEW_FORMATS[] = "preview-format-values";
const char CameraParameters::KEY_PREVIEW_FRAME_RATE[] = "preview-frame-rate";
const char CameraParameters::KEY_SUPPORTED_PREVIEW_FRAME_RATES[] = "preview-frame-rate-values";
const char CameraParameters::KEY_PICTURE_SIZE[] = "picture-size";
const char CameraParameters::KEY_SUPPORTED_PICTURE_SIZES[] = "picture-size-values";
const char CameraParameters::KEY_PICTURE_FORMAT[] = "picture-format";
const char CameraParameters::KEY_SUPPORTED_PICTURE_FORMATS[] = "picture-format-values";
const char CameraParameters::KEY_VIDEO_SIZE[] = "video-size";
const char CameraParameters::KEY_SUPPORTED_VIDEO_SIZES[] = "video-size-values";
const char CameraParameters::KEY_PREFERRED_PREVIEW_SIZE_FOR_VIDEO[] =
    "preferred-preview-size-for-video";
const char CameraParameters::KEY_VIDEO_FRAME_FORMAT[] = "video-frame-format";
const char CameraParameters::KEY_RECORDING_HINT[] = "recording-hint";
const char CameraParameters::KEY_VIDEO_STABILIZATION[] = "video-stabilization";
const char CameraParameters::KEY_VIDEO_STABILIZATION_SUPPORTED[] = "video-stabilization-supported";
const char CameraParameters::KEY_ZOOM[] = "zoom";
const char CameraParameters::KEY_MAX_ZOOM[] = "max-zoom";
const char CameraParameters::KEY_ZOOM_RATIOS[] = "zoom-ratios";
const char CameraParameters::KEY_ZOOM_SUPPORTED[] = "zoom-supported";

const char CameraParameters::TRUE[] = "true";
const char CameraParameters::FALSE[] = "false";

const char CameraParameters::PIXEL_FORMAT_YUV422SP[] = "yuv422sp";
const char CameraParameters::PIXEL_FORMAT_YUV420SP[] = "yuv420sp";
const char CameraParameters::PIXEL_FORMAT_YUV422I[] = "yuv422i-yuyv";
const char CameraParameters::PIXEL_FORMAT_YUV420P[] = "yuv420p";
const char CameraParameters::PIXEL_FORMAT_RGB565[] = "rgb565";
const char CameraParameters::PIXEL_FORMAT_RGBA8888[] = "rgba8888";
const char CameraParameters::PIXEL_FORMAT_JPEG[] = "jpeg";
const char CameraParameters::PIXEL_FORMAT_ANDROID_OPAQUE[] = "android-opaque";

namespace {

// Parses "WxH" at `text`; on success stores the size and the first character after it.
bool parseSize(const char* text, int* width, int* height, const char** end) {
    errno = 0;
    char* x = nullptr;
    long w = std::strtol(text, &x, 10);
    if (x == text || *x != 'x' || errno != 0 || w <= 0 || w > 65535)
        return false;
    const char* hStart = x + 1;
    char* after = nullptr;
    long h = std::strtol(hStart, &after, 10);
    if (after == hStart || errno != 0 || h <= 0 || h > 65535)
        return false;
    *width = static_cast<int>(w);
    *height = static_cast<int>(h);
    if (end != nullptr)
        *end = after;
    return true;
}

void getSize(const char* value, int* width, int* height) {
    int w = -1;
    int h = -1;
    const char* end = nullptr;
    if (value == nullptr || !parseSize(value, &w, &h, &end) || *end != '\0') {
        w = -1;
        h = -1;
    }
    if (width != nullptr)
        *width = w;
    if (height != nullptr)
        *height = h;
}

// "W1xH1,W2xH2,...": stops at the first malformed entry (logged).
void parseSizesList(const char* value, Vector<Size>& sizes) {
    sizes.clear();
    if (value == nullptr || *value == '\0')
        return;
    const char* p = value;
    while (true) {
        int w = 0;
        int h = 0;
        const char* end = nullptr;
        if (!parseSize(p, &w, &h, &end) || (*end != ',' && *end != '\0')) {
            HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "malformed size list \"%s\" at \"%s\"", value, p);
            return;
        }
        sizes.push(Size(w, h));
        if (*end == '\0')
            return;
        p = end + 1;
    }
}

bool validText(const char* text) {
    return std::strpbrk(text, "=;") == nullptr;
}

}  // namespace

CameraParameters::CameraParameters() = default;
CameraParameters::~CameraParameters() = default;

String8 CameraParameters::flatten() const {
    std::string text;
    for (const auto& kv : mMap) {
        if (!text.empty())
            text += ';';
        text += kv.first;
        text += '=';
        text += kv.second;
    }
    return String8(text.c_str());
}

void CameraParameters::unflatten(const String8& params) {
    mMap.clear();
    const char* text = params.string();
    size_t length = params.length();
    size_t pos = 0;
    while (pos < length) {
        const char* semicolon =
            static_cast<const char*>(std::memchr(text + pos, ';', length - pos));
        size_t end = semicolon != nullptr ? static_cast<size_t>(semicolon - text) : length;
        std::string entry(text + pos, end - pos);
        pos = end + 1;
        if (entry.empty())
            continue;
        size_t eq = entry.find('=');
        if (eq == std::string::npos || eq == 0) {
            HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "malformed camera parameter \"%s\" skipped",
                            entry.c_str());
            continue;
        }
        mMap[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
}

void CameraParameters::set(const char* key, const char* value) {
    if (key == nullptr || value == nullptr || *key == '\0') {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "camera parameter with a null or empty key or value");
        return;
    }
    if (!validText(key) || !validText(value)) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR,
                        "camera parameter \"%s\"=\"%s\" refused: '=' and ';' are not allowed", key,
                        value);
        return;
    }
    mMap[key] = value;
}

void CameraParameters::set(const char* key, int value) {
    set(key, std::to_string(value).c_str());
}

void CameraParameters::setFloat(const char* key, float value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", static_cast<double>(value));
    set(key, text);
}

const char* CameraParameters::get(const char* key) const {
    if (key == nullptr)
        return nullptr;
    auto it = mMap.find(key);
    return it == mMap.end() ? nullptr : it->second.c_str();
}

int CameraParameters::getInt(const char* key) const {
    const char* value = get(key);
    if (value == nullptr || *value == '\0')
        return -1;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(value, &end, 10);
    if (*end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX)
        return -1;
    return static_cast<int>(v);
}

float CameraParameters::getFloat(const char* key) const {
    const char* value = get(key);
    if (value == nullptr || *value == '\0')
        return -1.0f;
    char* end = nullptr;
    float v = std::strtof(value, &end);
    return *end == '\0' ? v : -1.0f;
}

void CameraParameters::remove(const char* key) {
    if (key != nullptr)
        mMap.erase(key);
}

static std::string sizeText(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

void CameraParameters::setPreviewSize(int width, int height) {
    set(KEY_PREVIEW_SIZE, sizeText(width, height).c_str());
}

void CameraParameters::getPreviewSize(int* width, int* height) const {
    getSize(get(KEY_PREVIEW_SIZE), width, height);
}

void CameraParameters::getSupportedPreviewSizes(Vector<Size>& sizes) const {
    parseSizesList(get(KEY_SUPPORTED_PREVIEW_SIZES), sizes);
}

void CameraParameters::setVideoSize(int width, int height) {
    set(KEY_VIDEO_SIZE, sizeText(width, height).c_str());
}

void CameraParameters::getVideoSize(int* width, int* height) const {
    getSize(get(KEY_VIDEO_SIZE), width, height);
}

void CameraParameters::getSupportedVideoSizes(Vector<Size>& sizes) const {
    parseSizesList(get(KEY_SUPPORTED_VIDEO_SIZES), sizes);
}

void CameraParameters::getPreferredPreviewSizeForVideo(int* width, int* height) const {
    getSize(get(KEY_PREFERRED_PREVIEW_SIZE_FOR_VIDEO), width, height);
}

void CameraParameters::setPreviewFrameRate(int fps) {
    set(KEY_PREVIEW_FRAME_RATE, fps);
}

int CameraParameters::getPreviewFrameRate() const {
    return getInt(KEY_PREVIEW_FRAME_RATE);
}

void CameraParameters::getPreviewFpsRange(int* minFps, int* maxFps) const {
    int lo = -1;
    int hi = -1;
    const char* value = get(KEY_PREVIEW_FPS_RANGE);
    if (value != nullptr) {
        char* comma = nullptr;
        long a = std::strtol(value, &comma, 10);
        if (comma != value && *comma == ',') {
            char* end = nullptr;
            long b = std::strtol(comma + 1, &end, 10);
            if (end != comma + 1 && *end == '\0') {
                lo = static_cast<int>(a);
                hi = static_cast<int>(b);
            }
        }
    }
    if (minFps != nullptr)
        *minFps = lo;
    if (maxFps != nullptr)
        *maxFps = hi;
}

void CameraParameters::setPreviewFormat(const char* format) {
    set(KEY_PREVIEW_FORMAT, format);
}

const char* CameraParameters::getPreviewFormat() const {
    return get(KEY_PREVIEW_FORMAT);
}

void CameraParameters::setPictureSize(int width, int height) {
    set(KEY_PICTURE_SIZE, sizeText(width, height).c_str());
}

void CameraParameters::getPictureSize(int* width, int* height) const {
    getSize(get(KEY_PICTURE_SIZE), width, height);
}

void CameraParameters::getSupportedPictureSizes(Vector<Size>& sizes) const {
    parseSizesList(get(KEY_SUPPORTED_PICTURE_SIZES), sizes);
}

void CameraParameters::setPictureFormat(const char* format) {
    set(KEY_PICTURE_FORMAT, format);
}

const char* CameraParameters::getPictureFormat() const {
    return get(KEY_PICTURE_FORMAT);
}

void CameraParameters::dump() const {
    for (const auto& kv : mMap) {
        HOST_CAMERA_LOG(ANDROID_LOG_DEBUG, "%s: %s", kv.first.c_str(), kv.second.c_str());
    }
}

}  // namespace android
