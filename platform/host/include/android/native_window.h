// NDK native window functions.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Pixel formats of the NDK window API (the same values as the HAL's).
enum {
    WINDOW_FORMAT_RGBA_8888 = 1,
    WINDOW_FORMAT_RGBX_8888 = 2,
    WINDOW_FORMAT_RGB_565 = 4,
};

struct ANativeWindow;
typedef struct ANativeWindow ANativeWindow;

// Adds one strong reference to the window.
void ANativeWindow_acquire(ANativeWindow* window);

// Drops one strong reference; the window is destroyed with its last reference.
void ANativeWindow_release(ANativeWindow* window);

// Current buffer width, height (pixels) and format of the window, or a negative error.
int32_t ANativeWindow_getWidth(ANativeWindow* window);
int32_t ANativeWindow_getHeight(ANativeWindow* window);
int32_t ANativeWindow_getFormat(ANativeWindow* window);

#ifdef __cplusplus
}
#endif
