// Cache of graphic-buffer bindings, keyed by the buffer's address.
//
// Camera and output queues cycle through a small fixed set of buffers, so each buffer is bound
// once (EGL image and GL names, which is costly) and every later frame costs one map lookup.
// Used only with the GL context current (the render paths, the GL session's pause), which keeps
// it on one thread at a time; it has no lock of its own.
#pragma once

#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <map>

#include "GLContext.h"
#include "GLGraphicBuffer.h"
#include "shared_ptr.h"

class GbMapper {
  public:
    // The engine's context pointer, by reference: the cache must not outlive it, and each new
    // binding shares whatever context it holds at the time.
    shared_ptr<GLContext>& context;
    // Owns the bindings; holds no reference on the buffers (each binding does).
    std::map<android::GraphicBuffer*, GLGraphicBuffer*> map;
    int32_t usage;  // given to every binding it creates

    GbMapper(shared_ptr<GLContext>& context, int usage);
    // clear().
    ~GbMapper();
    GbMapper(const GbMapper&) = delete;
    GbMapper& operator=(const GbMapper&) = delete;

    // The binding of `buffer`, created on first sight (logged at error priority as
    // "GBM creating new GLGB for %p"). Owned by the cache; valid until clear().
    GLGraphicBuffer* getGLGB(android::sp<android::GraphicBuffer> buffer);
    // Deletes every binding, freeing its GL objects (the context must be free for, or current
    // on, the calling thread), and empties the cache.
    void clear();
};
