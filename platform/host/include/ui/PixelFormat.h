// Pixel format codes of the UI library: the HAL pixel-format values.
#pragma once

#include <stdint.h>
#include <system/graphics.h>

namespace android {

typedef int32_t PixelFormat;

enum {
    PIXEL_FORMAT_UNKNOWN = 0,
    PIXEL_FORMAT_RGBA_8888 = HAL_PIXEL_FORMAT_RGBA_8888,
    PIXEL_FORMAT_RGBX_8888 = HAL_PIXEL_FORMAT_RGBX_8888,
    PIXEL_FORMAT_RGB_888 = HAL_PIXEL_FORMAT_RGB_888,
    PIXEL_FORMAT_RGB_565 = HAL_PIXEL_FORMAT_RGB_565,
    PIXEL_FORMAT_BGRA_8888 = HAL_PIXEL_FORMAT_BGRA_8888,
};

}  // namespace android
