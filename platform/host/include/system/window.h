// The platform's native window: the producer end of a buffer queue. A producer connects an API,
// configures the buffers (size, format, usage, count, transform), then repeatedly dequeues a
// buffer, fills it and queues it back with a presentation timestamp; the consumer end receives
// the queued buffers in order.
#pragma once

#include <android/native_window.h>
#include <nativebase/nativebase.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <system/graphics.h>

#ifdef __cplusplus
extern "C" {
#endif

// Attributes read with ANativeWindow::query.
enum {
    NATIVE_WINDOW_WIDTH = 0,
    NATIVE_WINDOW_HEIGHT = 1,
    NATIVE_WINDOW_FORMAT = 2,
    NATIVE_WINDOW_MIN_UNDEQUEUED_BUFFERS = 3,
    NATIVE_WINDOW_QUEUES_TO_WINDOW_COMPOSER = 4,
    NATIVE_WINDOW_CONCRETE_TYPE = 5,
    NATIVE_WINDOW_DEFAULT_WIDTH = 6,
    NATIVE_WINDOW_DEFAULT_HEIGHT = 7,
    NATIVE_WINDOW_TRANSFORM_HINT = 8,
    NATIVE_WINDOW_CONSUMER_RUNNING_BEHIND = 9,
    NATIVE_WINDOW_CONSUMER_USAGE_BITS = 10,
    NATIVE_WINDOW_STICKY_TRANSFORM = 11,
    NATIVE_WINDOW_DEFAULT_DATASPACE = 12,
    NATIVE_WINDOW_BUFFER_AGE = 13,
};

// Operation codes of ANativeWindow::perform.
enum {
    NATIVE_WINDOW_SET_USAGE = 0,
    NATIVE_WINDOW_CONNECT = 1,
    NATIVE_WINDOW_DISCONNECT = 2,
    NATIVE_WINDOW_SET_CROP = 3,
    NATIVE_WINDOW_SET_BUFFER_COUNT = 4,
    NATIVE_WINDOW_SET_BUFFERS_GEOMETRY = 5,
    NATIVE_WINDOW_SET_BUFFERS_TRANSFORM = 6,
    NATIVE_WINDOW_SET_BUFFERS_TIMESTAMP = 7,
    NATIVE_WINDOW_SET_BUFFERS_DIMENSIONS = 8,
    NATIVE_WINDOW_SET_BUFFERS_FORMAT = 9,
    NATIVE_WINDOW_SET_SCALING_MODE = 10,
    NATIVE_WINDOW_LOCK = 11,
    NATIVE_WINDOW_UNLOCK_AND_POST = 12,
    NATIVE_WINDOW_API_CONNECT = 13,
    NATIVE_WINDOW_API_DISCONNECT = 14,
    NATIVE_WINDOW_SET_BUFFERS_USER_DIMENSIONS = 15,
    NATIVE_WINDOW_SET_POST_TRANSFORM_CROP = 16,
};

// Producer APIs for NATIVE_WINDOW_API_CONNECT / NATIVE_WINDOW_API_DISCONNECT.
enum {
    NATIVE_WINDOW_API_EGL = 1,
    NATIVE_WINDOW_API_CPU = 2,
    NATIVE_WINDOW_API_MEDIA = 3,
    NATIVE_WINDOW_API_CAMERA = 4,
};

// Buffer transforms for NATIVE_WINDOW_SET_BUFFERS_TRANSFORM.
enum {
    NATIVE_WINDOW_TRANSFORM_FLIP_H = HAL_TRANSFORM_FLIP_H,
    NATIVE_WINDOW_TRANSFORM_FLIP_V = HAL_TRANSFORM_FLIP_V,
    NATIVE_WINDOW_TRANSFORM_ROT_90 = HAL_TRANSFORM_ROT_90,
    NATIVE_WINDOW_TRANSFORM_ROT_180 = HAL_TRANSFORM_ROT_180,
    NATIVE_WINDOW_TRANSFORM_ROT_270 = HAL_TRANSFORM_ROT_270,
    NATIVE_WINDOW_TRANSFORM_INVERSE_DISPLAY = 0x08,
};

// Values of NATIVE_WINDOW_CONCRETE_TYPE.
enum {
    NATIVE_WINDOW_FRAMEBUFFER = 0,
    NATIVE_WINDOW_SURFACE = 1,
};

// Timestamp value that lets the window stamp each queued buffer with the time of queueing.
static const int64_t NATIVE_WINDOW_TIMESTAMP_AUTO = (-9223372036854775807LL - 1);

struct ANativeWindow {
#ifdef __cplusplus
    ANativeWindow() : flags(0), minSwapInterval(0), maxSwapInterval(0), xdpi(0), ydpi(0) {
        common.magic = ANDROID_NATIVE_WINDOW_MAGIC;
        common.version = sizeof(ANativeWindow);
        common.incRef = 0;
        common.decRef = 0;
        memset(common.reserved, 0, sizeof(common.reserved));
        memset(oem, 0, sizeof(oem));
    }

    // Lets android::sp<ANativeWindow> count references through the common header.
    void incStrong(const void* /*id*/) const {
        common.incRef(const_cast<android_native_base_t*>(&common));
    }
    void decStrong(const void* /*id*/) const {
        common.decRef(const_cast<android_native_base_t*>(&common));
    }
#endif

    struct android_native_base_t common;

    const uint32_t flags;
    const int minSwapInterval;
    const int maxSwapInterval;
    const float xdpi;
    const float ydpi;
    intptr_t oem[4];

    int (*setSwapInterval)(struct ANativeWindow* window, int interval);

    // Hands out a free buffer; waits for any fence itself. Returns 0 or a negative errno.
    int (*dequeueBuffer_DEPRECATED)(struct ANativeWindow* window,
                                    struct ANativeWindowBuffer** buffer);
    int (*lockBuffer_DEPRECATED)(struct ANativeWindow* window, struct ANativeWindowBuffer* buffer);
    int (*queueBuffer_DEPRECATED)(struct ANativeWindow* window, struct ANativeWindowBuffer* buffer);

    int (*query)(const struct ANativeWindow* window, int what, int* value);

    // Variadic configuration entry; see the NATIVE_WINDOW_* operation codes and the
    // native_window_* helpers below for each operation's arguments.
    int (*perform)(struct ANativeWindow* window, int operation, ...);

    int (*cancelBuffer_DEPRECATED)(struct ANativeWindow* window,
                                   struct ANativeWindowBuffer* buffer);

    // Hands out a free buffer and a fence file descriptor (-1: none) to wait on before writing.
    int (*dequeueBuffer)(struct ANativeWindow* window, struct ANativeWindowBuffer** buffer,
                         int* fenceFd);

    // Queues a dequeued buffer. `fenceFd` (-1: none) signals when the producer's writes are
    // complete; the window takes ownership of it.
    int (*queueBuffer)(struct ANativeWindow* window, struct ANativeWindowBuffer* buffer,
                       int fenceFd);

    // Returns a dequeued buffer unused; the window takes ownership of `fenceFd`.
    int (*cancelBuffer)(struct ANativeWindow* window, struct ANativeWindowBuffer* buffer,
                        int fenceFd);
};

typedef struct ANativeWindow android_native_window_t;

static inline int native_window_set_usage(struct ANativeWindow* window, int usage) {
    return window->perform(window, NATIVE_WINDOW_SET_USAGE, usage);
}

static inline int native_window_api_connect(struct ANativeWindow* window, int api) {
    return window->perform(window, NATIVE_WINDOW_API_CONNECT, api);
}

static inline int native_window_api_disconnect(struct ANativeWindow* window, int api) {
    return window->perform(window, NATIVE_WINDOW_API_DISCONNECT, api);
}

static inline int native_window_set_buffer_count(struct ANativeWindow* window, size_t bufferCount) {
    return window->perform(window, NATIVE_WINDOW_SET_BUFFER_COUNT, bufferCount);
}

static inline int native_window_set_buffers_transform(struct ANativeWindow* window, int transform) {
    return window->perform(window, NATIVE_WINDOW_SET_BUFFERS_TRANSFORM, transform);
}

// Timestamp in nanoseconds given to the buffers queued from now on, or
// NATIVE_WINDOW_TIMESTAMP_AUTO.
static inline int native_window_set_buffers_timestamp(struct ANativeWindow* window,
                                                      int64_t timestamp) {
    return window->perform(window, NATIVE_WINDOW_SET_BUFFERS_TIMESTAMP, timestamp);
}

// Size in pixels of the buffers dequeued from now on; 0 x 0 restores the window's default.
static inline int native_window_set_buffers_dimensions(struct ANativeWindow* window, int w, int h) {
    return window->perform(window, NATIVE_WINDOW_SET_BUFFERS_DIMENSIONS, w, h);
}

// HAL pixel format of the buffers dequeued from now on; 0 restores the window's default.
static inline int native_window_set_buffers_format(struct ANativeWindow* window, int format) {
    return window->perform(window, NATIVE_WINDOW_SET_BUFFERS_FORMAT, format);
}

#ifdef __cplusplus
}
#endif
