// Base of the platform's native graphics objects: the reference-counting header shared by
// windows and window buffers, and the window buffer record itself.
#pragma once

#include <cutils/native_handle.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ANDROID_NATIVE_MAKE_CONSTANT(a, b, c, d) \
    ((((unsigned)(a)) << 24) | (((unsigned)(b)) << 16) | (((unsigned)(c)) << 8) | ((unsigned)(d)))

#define ANDROID_NATIVE_WINDOW_MAGIC ANDROID_NATIVE_MAKE_CONSTANT('_', 'w', 'n', 'd')
#define ANDROID_NATIVE_BUFFER_MAGIC ANDROID_NATIVE_MAKE_CONSTANT('_', 'b', 'f', 'r')

// Common header: `magic` names the object kind, `version` is the size of the full record, and
// the two function pointers add and drop one strong reference on the object that embeds it.
typedef struct android_native_base_t {
    int magic;
    int version;
    void* reserved[4];
    void (*incRef)(struct android_native_base_t* base);
    void (*decRef)(struct android_native_base_t* base);
} android_native_base_t;

// One buffer of a native window, as handed out by dequeueBuffer. `stride` is in pixels.
typedef struct ANativeWindowBuffer {
#ifdef __cplusplus
    ANativeWindowBuffer() : width(0), height(0), stride(0), format(0), usage(0), handle(0) {
        common.magic = ANDROID_NATIVE_BUFFER_MAGIC;
        common.version = sizeof(ANativeWindowBuffer);
        common.incRef = 0;
        common.decRef = 0;
        memset(common.reserved, 0, sizeof(common.reserved));
        memset(reserved, 0, sizeof(reserved));
        memset(reserved_proc, 0, sizeof(reserved_proc));
    }

    // Lets android::sp<ANativeWindowBuffer> count references through the common header.
    void incStrong(const void* /*id*/) const {
        common.incRef(const_cast<android_native_base_t*>(&common));
    }
    void decStrong(const void* /*id*/) const {
        common.decRef(const_cast<android_native_base_t*>(&common));
    }
#endif

    struct android_native_base_t common;

    int width;
    int height;
    int stride;
    int format;
    int usage;

    void* reserved[2];

    buffer_handle_t handle;

    void* reserved_proc[8];
} ANativeWindowBuffer_t;

typedef struct ANativeWindowBuffer ANativeWindowBuffer;
typedef ANativeWindowBuffer_t android_native_buffer_t;

#ifdef __cplusplus
}
#endif
