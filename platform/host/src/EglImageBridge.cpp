// EGL images of GraphicBuffers on a driver without native-buffer images.
//
// Each image handed to a caller is a real driver image whose storage is an RGBA GL_TEXTURE_2D
// of the buffer's size. The texture belongs to a private context that this platform makes on the
// caller's display, one per display, alive exactly while images exist on that display (so a
// caller that destroys its images before eglTerminate leaves nothing of ours on the display,
// and the next eglInitialize starts clean). All private-context GL work runs on the platform's
// GL thread (GlThread), never on the caller's thread.
//
// Shared storage (the usual case on llvmpipe): the texture's storage is the buffer's own bytes,
// imported into the driver as a memory object (GL_EXT_memory_object_fd, see SharedBlock.h). An
// RGBA_8888 buffer's memory is the texture: what the CPU writes is sampled, what GL draws is in
// memory once the caller's glFinish returns, with no transfer at all. An NV21 buffer's texture
// is its RGB picture in a block of its own, which unlock() converts into on the calling thread
// (libyuv, straight into the texture's bytes): no upload, no GL call, no glFinish.
//
// Copied storage (other formats, or a driver that refuses the import): the buffer's memory
// stays the reference copy of its content:
//   memory -> image: on image creation and on every unlock() after a software-write lock
//     (NV21 is converted to RGB on the CPU first), finished with glFinish before returning;
//   image -> memory: on lock(), on queueing to a native window and on image destruction, for
//     buffers with an image that was made renderbuffer storage (GL may have drawn into it),
//     except while a buffer read back at queueing has not yet been dequeued again.
// Callers finish their own GL work on a buffer (glFinish) before locking or queueing it.
//
// Callers destroy their images before terminating a display. One that does not leaves the
// private context "lost" (found when it can no longer be made current): its images are then
// skipped by transfers and forgotten on destruction, and the display's next image gets a new
// private context.
#include "EglImageBridge.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <android/log.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "GlThread.h"
#include "host/Graphics.h"
#include "host/PixelConversion.h"

namespace host {

// A private context of the platform on one display, with a 1 x 1 pbuffer to be current with.
// OpenGL ES 3 where the display has it (texture storage from memory objects needs it), else 2.
struct PrivateContext {
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLContext context = EGL_NO_CONTEXT;
    EGLSurface surface = EGL_NO_SURFACE;
    bool es3 = false;
    int images = 0;     // live images made in this context
    bool lost = false;  // the display was terminated under it; its objects are gone
};

// One image made from a buffer on one display. Repeated creation for the same buffer and display
// returns the same image with one more reference.
struct ImageImport {
    EGLImageKHR image = EGL_NO_IMAGE_KHR;
    PrivateContext* owner = nullptr;
    GLuint texture = 0;       // the image's storage, a name of owner's context
    GLuint framebuffer = 0;   // owner's framebuffer for reading back; made on first read-back
    GLuint memoryObject = 0;  // owner's memory object holding the shared storage, or 0
    int refs = 1;
    bool renderTarget = false;  // made renderbuffer storage by some context
    android::sp<android::GraphicBuffer> buffer;
};

namespace {

constexpr const char* kTag = "host-graphics";

void logWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    __android_log_vprint(ANDROID_LOG_WARN, kTag, format, args);
    va_end(args);
}

struct DriverEntryPoints {
    PFNEGLCREATEIMAGEKHRPROC createImage = nullptr;
    PFNEGLDESTROYIMAGEKHRPROC destroyImage = nullptr;
    PFNGLEGLIMAGETARGETTEXTURE2DOESPROC targetTexture = nullptr;
    PFNGLEGLIMAGETARGETRENDERBUFFERSTORAGEOESPROC targetRenderbuffer = nullptr;
    // GL_EXT_memory_object, GL_EXT_memory_object_fd
    PFNGLCREATEMEMORYOBJECTSEXTPROC createMemoryObjects = nullptr;
    PFNGLDELETEMEMORYOBJECTSEXTPROC deleteMemoryObjects = nullptr;
    PFNGLIMPORTMEMORYFDEXTPROC importMemoryFd = nullptr;
    PFNGLTEXSTORAGEMEM2DEXTPROC texStorageMem2D = nullptr;
};

// The driver's own entry points. The loader exports none of them and eglGetProcAddress answers
// even for names no driver has, so each use is guarded by an extension check.
const DriverEntryPoints& driver() {
    static const DriverEntryPoints entryPoints = [] {
        DriverEntryPoints e;
        e.createImage =
            reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
        e.destroyImage =
            reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
        e.targetTexture = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
            eglGetProcAddress("glEGLImageTargetTexture2DOES"));
        e.targetRenderbuffer = reinterpret_cast<PFNGLEGLIMAGETARGETRENDERBUFFERSTORAGEOESPROC>(
            eglGetProcAddress("glEGLImageTargetRenderbufferStorageOES"));
        e.createMemoryObjects = reinterpret_cast<PFNGLCREATEMEMORYOBJECTSEXTPROC>(
            eglGetProcAddress("glCreateMemoryObjectsEXT"));
        e.deleteMemoryObjects = reinterpret_cast<PFNGLDELETEMEMORYOBJECTSEXTPROC>(
            eglGetProcAddress("glDeleteMemoryObjectsEXT"));
        e.importMemoryFd =
            reinterpret_cast<PFNGLIMPORTMEMORYFDEXTPROC>(eglGetProcAddress("glImportMemoryFdEXT"));
        e.texStorageMem2D = reinterpret_cast<PFNGLTEXSTORAGEMEM2DEXTPROC>(
            eglGetProcAddress("glTexStorageMem2DEXT"));
        return e;
    }();
    return entryPoints;
}

// Whether the space-separated list `extensions` names `name` exactly.
bool hasExtension(const char* extensions, const char* name) {
    if (extensions == nullptr)
        return false;
    const size_t length = std::strlen(name);
    for (const char* p = extensions; (p = std::strstr(p, name)) != nullptr; p += length) {
        const bool startOk = p == extensions || p[-1] == ' ';
        const bool endOk = p[length] == ' ' || p[length] == '\0';
        if (startOk && endOk)
            return true;
    }
    return false;
}

// Whether the driver takes SharedBlocks as texture storage, found by a probe on first use.
enum class SharedStorage { kUnknown, kAvailable, kUnavailable };

struct Bridge {
    std::mutex mutex;  // guards everything below; taken after any buffer's mutex
    std::map<EGLDisplay, PrivateContext*> contexts;
    std::map<EGLImageKHR, ImageImport*> images;
    GraphicsCounters counters;
    bool sharingWanted = true;  // setImageMemorySharing
    SharedStorage sharedStorage = SharedStorage::kUnknown;
};

Bridge& bridge() {
    static Bridge* b = new Bridge;  // never destroyed: images may be destroyed at exit
    return *b;
}

// ---- GL thread side -------------------------------------------------------------------------

bool makeCurrent(PrivateContext& pc) {
    if (pc.lost)
        return false;
    if (pc.context == EGL_NO_CONTEXT) {
        eglBindAPI(EGL_OPENGL_ES_API);
        EGLConfig config = nullptr;
        EGLint count = 0;
        for (const EGLint renderable : {EGL_OPENGL_ES3_BIT_KHR, EGL_OPENGL_ES2_BIT}) {
            const EGLint configAttribs[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE,
                                            renderable, EGL_NONE};
            if (eglChooseConfig(pc.display, configAttribs, &config, 1, &count) && count > 0) {
                pc.es3 = renderable == EGL_OPENGL_ES3_BIT_KHR;
                break;
            }
        }
        if (count < 1) {
            logWarning("no pbuffer config for the private context (0x%x)", eglGetError());
            return false;
        }
        const EGLint pbufferAttribs[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
        pc.surface = eglCreatePbufferSurface(pc.display, config, pbufferAttribs);
        const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, pc.es3 ? 3 : 2, EGL_NONE};
        pc.context = eglCreateContext(pc.display, config, EGL_NO_CONTEXT, contextAttribs);
        if (pc.surface == EGL_NO_SURFACE || pc.context == EGL_NO_CONTEXT) {
            logWarning("private context creation failed (0x%x)", eglGetError());
            if (pc.surface != EGL_NO_SURFACE)
                eglDestroySurface(pc.display, pc.surface);
            if (pc.context != EGL_NO_CONTEXT)
                eglDestroyContext(pc.display, pc.context);
            pc.surface = EGL_NO_SURFACE;
            pc.context = EGL_NO_CONTEXT;
            return false;
        }
    }
    if (!eglMakeCurrent(pc.display, pc.surface, pc.surface, pc.context)) {
        logWarning("private context lost (0x%x): display terminated with images alive?",
                   eglGetError());
        pc.lost = true;
        return false;
    }
    return true;
}

void releaseCurrent(PrivateContext& pc) {
    eglMakeCurrent(pc.display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

void destroyContextObjects(PrivateContext& pc) {
    if (pc.context != EGL_NO_CONTEXT)
        eglDestroyContext(pc.display, pc.context);
    if (pc.surface != EGL_NO_SURFACE)
        eglDestroySurface(pc.display, pc.surface);
    pc.context = EGL_NO_CONTEXT;
    pc.surface = EGL_NO_SURFACE;
}

// Makes `texture` (bound to GL_TEXTURE_2D) an RGBA texture whose storage is `storage`, through a
// new memory object (returned in `memoryObject`, 0 on failure). True when the texture has that
// storage: the driver refuses a file it did not expect without a GL error, leaving a texture
// that no framebuffer accepts, so completeness is what tells.
bool attachSharedStorage(const SharedBlock& storage, GLsizei width, GLsizei height,
                         GLuint& memoryObject) {
    const DriverEntryPoints& d = driver();
    const int descriptor = storage.duplicateDescriptor();
    if (descriptor < 0)
        return false;
    d.createMemoryObjects(1, &memoryObject);
    d.importMemoryFd(memoryObject, storage.importSize(), GL_HANDLE_TYPE_OPAQUE_FD_EXT, descriptor);
    d.texStorageMem2D(GL_TEXTURE_2D, 1, GL_RGBA8_OES, width, height, memoryObject, 0);
    GLint texture = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D,
                           static_cast<GLuint>(texture), 0);
    const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
    if (glGetError() != GL_NO_ERROR || !complete) {
        d.deleteMemoryObjects(1, &memoryObject);
        memoryObject = 0;
        return false;
    }
    return true;
}

// Whether the driver of the current context (`pc`) takes a SharedBlock as a texture's storage
// with the layout SharedBlock describes: rows texturePitch(width) pixels apart, memory row 0 at
// texture row 0, R, G, B, A bytes, and GL drawing landing in the block once finished. Tried once
// per process on a small texture with padded rows. GL thread.
bool probeSharedStorage(const PrivateContext& pc) {
    const DriverEntryPoints& d = driver();
    const char* extensions = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
    if (!pc.es3 || !hasExtension(extensions, "GL_EXT_memory_object_fd") ||
        d.createMemoryObjects == nullptr || d.deleteMemoryObjects == nullptr ||
        d.importMemoryFd == nullptr || d.texStorageMem2D == nullptr) {
        return false;
    }
    constexpr GLsizei kWidth = 36;  // a pitch of 48 pixels: padded rows
    constexpr GLsizei kHeight = 6;  // 8 rows in memory
    SharedBlock block;
    if (!block.allocate(SharedBlock::textureBytes(kWidth, kHeight)))
        return false;
    const size_t pitch = SharedBlock::texturePitch(kWidth) * 4;
    uint8_t* const second = block.data() + pitch;                       // pixel (0, 1)
    uint8_t* const last = block.data() + 5 * pitch + (kWidth - 1) * 4;  // pixel (35, 5)
    const uint8_t marks[8] = {10, 11, 12, 13, 20, 21, 22, 23};
    std::memcpy(second, marks, 4);
    std::memcpy(last, marks + 4, 4);

    GLuint texture = 0;
    GLuint memoryObject = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    bool ok = attachSharedStorage(block, kWidth, kHeight, memoryObject);
    if (ok) {
        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
        uint8_t read[kWidth * kHeight * 4] = {};
        glPixelStorei(GL_PACK_ALIGNMENT, 4);
        glReadPixels(0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, read);
        ok = std::memcmp(read + kWidth * 4, marks, 4) == 0 &&
             std::memcmp(read + (5 * kWidth + kWidth - 1) * 4, marks + 4, 4) == 0;
        glClearColor(1.0f, 0.0f, 0.0f, 1.0f);
        glClear(GL_COLOR_BUFFER_BIT);
        glFinish();
        ok = ok && last[0] == 255 && last[1] == 0 && last[3] == 255;
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glDeleteFramebuffers(1, &framebuffer);
    }
    glBindTexture(GL_TEXTURE_2D, 0);
    glDeleteTextures(1, &texture);
    if (memoryObject != 0)
        d.deleteMemoryObjects(1, &memoryObject);
    ok = glGetError() == GL_NO_ERROR && ok;
    glFinish();
    return ok;
}

struct ProbeTask {
    PrivateContext* owner;
    bool available = false;

    static void run(void* arg) {
        auto& t = *static_cast<ProbeTask*>(arg);
        if (!makeCurrent(*t.owner))
            return;
        t.available = probeSharedStorage(*t.owner);
        releaseCurrent(*t.owner);
    }
};

struct CreateTask {
    PrivateContext* owner;
    GLsizei width;
    GLsizei height;
    const uint8_t* pixels;                 // tightly packed RGBA, or null for undefined content
    const SharedBlock* storage = nullptr;  // the texture's storage instead of `pixels`
    GLuint texture = 0;
    GLuint memoryObject = 0;
    EGLImageKHR image = EGL_NO_IMAGE_KHR;

    static void run(void* arg) {
        auto& t = *static_cast<CreateTask*>(arg);
        if (!makeCurrent(*t.owner))
            return;
        glGenTextures(1, &t.texture);
        glBindTexture(GL_TEXTURE_2D, t.texture);
        // No mipmaps: the texture must be complete at level 0 to become an image.
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        GLenum glError = GL_NO_ERROR;
        if (t.storage != nullptr) {
            if (!attachSharedStorage(*t.storage, t.width, t.height, t.memoryObject))
                glError = GL_OUT_OF_MEMORY;
        } else {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, t.width, t.height, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                         t.pixels);
        }
        glBindTexture(GL_TEXTURE_2D, 0);
        if (glError == GL_NO_ERROR)
            glError = glGetError();
        if (glError == GL_NO_ERROR) {
            const EGLint attribs[] = {EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};
            t.image = driver().createImage(
                t.owner->display, t.owner->context, EGL_GL_TEXTURE_2D_KHR,
                reinterpret_cast<EGLClientBuffer>(static_cast<uintptr_t>(t.texture)), attribs);
            if (t.image == EGL_NO_IMAGE_KHR) {
                logWarning("driver image from texture failed (0x%x)", eglGetError());
            }
        } else {
            logWarning("texture %dx%d for an image failed (GL 0x%x)", t.width, t.height, glError);
        }
        if (t.image == EGL_NO_IMAGE_KHR) {
            glDeleteTextures(1, &t.texture);
            t.texture = 0;
            if (t.memoryObject != 0)
                driver().deleteMemoryObjects(1, &t.memoryObject);
            t.memoryObject = 0;
        }
        glFinish();
        releaseCurrent(*t.owner);
    }
};

struct DestroyTask {
    ImageImport* import;
    bool destroyContext;  // the owner has no image left

    static void run(void* arg) {
        auto& t = *static_cast<DestroyTask*>(arg);
        PrivateContext& pc = *t.import->owner;
        // A lost context's image went with its display; its handle may already name another.
        if (pc.lost || !makeCurrent(pc))
            return;
        if (!driver().destroyImage(pc.display, t.import->image)) {
            logWarning("driver image destruction failed (0x%x)", eglGetError());
        }
        if (t.import->framebuffer != 0)
            glDeleteFramebuffers(1, &t.import->framebuffer);
        glDeleteTextures(1, &t.import->texture);
        // After the texture: the memory object's deletion unmaps the driver's view of the
        // storage.
        if (t.import->memoryObject != 0)
            driver().deleteMemoryObjects(1, &t.import->memoryObject);
        glFinish();
        releaseCurrent(pc);
        if (t.destroyContext)
            destroyContextObjects(pc);
    }
};

struct UploadTask {
    ImageImport* const* imports;
    size_t count;
    GLsizei width;
    GLsizei height;
    const uint8_t* pixels;  // tightly packed RGBA
    bool ok = true;

    static void run(void* arg) {
        auto& t = *static_cast<UploadTask*>(arg);
        PrivateContext* current = nullptr;
        for (size_t i = 0; i < t.count; ++i) {
            ImageImport& import = *t.imports[i];
            if (import.owner != current) {
                if (current != nullptr) {
                    glFinish();
                    releaseCurrent(*current);
                }
                current = import.owner;
                if (!makeCurrent(*current)) {
                    t.ok = t.ok && current->lost;  // nothing to keep in step on a lost display
                    current = nullptr;
                    continue;
                }
            }
            glBindTexture(GL_TEXTURE_2D, import.texture);
            glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, t.width, t.height, GL_RGBA, GL_UNSIGNED_BYTE,
                            t.pixels);
            glBindTexture(GL_TEXTURE_2D, 0);
            if (glGetError() != GL_NO_ERROR)
                t.ok = false;
        }
        if (current != nullptr) {
            // Complete before the caller returns: another context may sample the image next.
            glFinish();
            releaseCurrent(*current);
        }
    }
};

struct ReadBackTask {
    ImageImport* import;
    GLsizei width;
    GLsizei height;
    uint8_t* pixels;  // receives tightly packed RGBA
    bool ok = false;

    static void run(void* arg) {
        auto& t = *static_cast<ReadBackTask*>(arg);
        ImageImport& import = *t.import;
        if (!makeCurrent(*import.owner))
            return;
        if (import.framebuffer == 0) {
            glGenFramebuffers(1, &import.framebuffer);
            glBindFramebuffer(GL_FRAMEBUFFER, import.framebuffer);
            glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D,
                                   import.texture, 0);
        } else {
            glBindFramebuffer(GL_FRAMEBUFFER, import.framebuffer);
        }
        if (glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE) {
            glPixelStorei(GL_PACK_ALIGNMENT, 4);
            glReadPixels(0, 0, t.width, t.height, GL_RGBA, GL_UNSIGNED_BYTE, t.pixels);
            t.ok = glGetError() == GL_NO_ERROR;
        } else {
            logWarning("read-back framebuffer incomplete");
        }
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        releaseCurrent(*import.owner);
    }
};

// ---- caller side ----------------------------------------------------------------------------

bool needsStaging(const android::GraphicBuffer& buffer) {
    return buffer.getPixelFormat() != HAL_PIXEL_FORMAT_RGBA_8888 ||
           buffer.getStride() != buffer.getWidth();
}

// The buffer's content as tightly packed RGBA, converted into the staging area when the memory
// is not already in that form. Called with store.mutex held.
const uint8_t* contentAsRgba(const android::GraphicBuffer& buffer, BufferStore& store) {
    const uint32_t w = buffer.getWidth();
    const uint32_t h = buffer.getHeight();
    const uint32_t s = buffer.getStride();
    if (!needsStaging(buffer))
        return store.memory;
    uint8_t* rgba = store.staging.data();
    if (buffer.getPixelFormat() == HAL_PIXEL_FORMAT_YCrCb_420_SP) {
        nv21ToRgba(store.memory, s, store.memory + static_cast<size_t>(s) * h, s, w, h, rgba);
    } else {
        packToRgba(buffer.getPixelFormat(), store.memory, static_cast<size_t>(s) * 4, w, h, rgba);
    }
    return rgba;
}

// Reads `import` back into the buffer's memory. Called with store.mutex and the bridge held.
android::status_t readBackLocked(Bridge& b, const android::GraphicBuffer& buffer,
                                 BufferStore& store, ImageImport& import) {
    const bool direct = !needsStaging(buffer);
    ReadBackTask task{&import, static_cast<GLsizei>(buffer.getWidth()),
                      static_cast<GLsizei>(buffer.getHeight()),
                      direct ? store.memory : store.staging.data()};
    GlThread::instance().run(&ReadBackTask::run, &task);
    if (!task.ok)
        return import.owner->lost ? android::NO_ERROR : android::UNKNOWN_ERROR;
    ++b.counters.readBacks;
    if (!direct) {
        unpackFromRgba(buffer.getPixelFormat(), store.staging.data(), buffer.getWidth(),
                       buffer.getHeight(), store.memory,
                       static_cast<size_t>(buffer.getStride()) * 4);
    }
    return android::NO_ERROR;
}

ImageImport* renderTargetOf(const BufferStore& store) {
    if (store.sharedImages)
        return nullptr;  // GL draws straight into the memory
    for (ImageImport* import : store.imports) {
        if (import->renderTarget && !import->owner->lost)
            return import;
    }
    return nullptr;
}

// Leaves EGL_SUCCESS as the calling thread's EGL error after a call handled here.
void reportSuccess(EGLDisplay dpy) {
    eglQueryString(dpy, EGL_VERSION);
}

// Takes `owner` out of service: it no longer receives images; it is freed with its last image.
void retire(Bridge& b, PrivateContext* owner) {
    auto it = b.contexts.find(owner->display);
    if (it != b.contexts.end() && it->second == owner)
        b.contexts.erase(it);
    if (owner->images == 0) {
        if (!owner->lost) {
            struct Cleanup {
                static void run(void* pc) {
                    destroyContextObjects(*static_cast<PrivateContext*>(pc));
                }
            };
            GlThread::instance().run(&Cleanup::run, owner);
        }
        delete owner;
        --b.counters.privateContexts;
    }
}

// Forgets an image whose display was terminated under it (its handle has just been reused by
// the driver). Called with the bridge held and the mutex of `import`'s buffer held by the caller.
void forgetLostImage(Bridge& b, ImageImport* import, BufferStore& store) {
    store.imports.erase(std::find(store.imports.begin(), store.imports.end(), import));
    PrivateContext* owner = import->owner;
    if (--owner->images == 0 && b.contexts.count(owner->display) == 0) {
        delete owner;
        --b.counters.privateContexts;
    }
    --b.counters.imagesLive;
    delete import;
}

// Whether `pc` survived any termination of its display; marks it lost if not. Any thread, with
// the bridge held. May leave an EGL error on the calling thread.
bool stillAlive(PrivateContext& pc) {
    if (pc.lost)
        return false;
    EGLint configId = 0;
    if (pc.context != EGL_NO_CONTEXT &&
        !eglQueryContext(pc.display, pc.context, EGL_CONFIG_ID, &configId)) {
        logWarning("private context lost: display terminated with images alive?");
        pc.lost = true;
    }
    return !pc.lost;
}

// Converts an NV21 buffer's memory into its shared RGB picture. Called with store.mutex held.
void convertIntoSharedPicture(const android::GraphicBuffer& buffer, BufferStore& store) {
    const uint32_t w = buffer.getWidth();
    const uint32_t h = buffer.getHeight();
    const uint32_t s = buffer.getStride();
    nv21ToRgba(store.memory, s, store.memory + static_cast<size_t>(s) * h, s, w, h,
               store.sharedPicture.data(), static_cast<size_t>(SharedBlock::texturePitch(w)) * 4);
}

// Decides, for a buffer getting its first image, whether its images use shared storage, and
// prepares that storage. Called with store.mutex and the bridge held, `owner` being the
// display's private context (probed here on the process's first image).
void chooseStorage(Bridge& b, const android::GraphicBuffer& buffer, BufferStore& store,
                   PrivateContext& owner, bool writing) {
    store.sharedImages = false;
    const int format = buffer.getPixelFormat();
    const bool shareable = (format == HAL_PIXEL_FORMAT_RGBA_8888 && !store.block.empty()) ||
                           format == HAL_PIXEL_FORMAT_YCrCb_420_SP;
    if (!b.sharingWanted || !shareable)
        return;
    if (b.sharedStorage == SharedStorage::kUnknown) {
        ProbeTask probe{&owner};
        GlThread::instance().run(&ProbeTask::run, &probe);
        if (owner.lost)
            return;  // try again with the next context
        b.sharedStorage = probe.available ? SharedStorage::kAvailable : SharedStorage::kUnavailable;
        if (!probe.available)
            logWarning("the driver takes no shared texture storage: images copy their content");
    }
    if (b.sharedStorage != SharedStorage::kAvailable)
        return;
    if (format == HAL_PIXEL_FORMAT_YCrCb_420_SP) {
        if (store.sharedPicture.empty() && !store.sharedPicture.allocate(SharedBlock::textureBytes(
                                               buffer.getWidth(), buffer.getHeight()))) {
            return;
        }
        // While a CPU writer holds the buffer its memory is in flux; its unlock converts it.
        // Memory never written has no picture to show yet (see BufferStore::written).
        if (!writing && store.written)
            convertIntoSharedPicture(buffer, store);
    }
    store.sharedImages = true;
}

EGLImageKHR createNativeBufferImage(EGLDisplay dpy, android::GraphicBuffer& buffer) {
    BufferStore& store = BufferStore::of(buffer);
    Bridge& b = bridge();
    std::lock_guard<std::mutex> storeLock(store.mutex);
    std::lock_guard<std::mutex> bridgeLock(b.mutex);
    for (ImageImport* import : store.imports) {
        if (import->owner->display == dpy && stillAlive(*import->owner)) {
            ++import->refs;
            return import->image;
        }
    }
    // While a CPU writer holds the buffer its memory is in flux; its unlock uploads it.
    const bool writing =
        store.locked && (store.lockUsage & android::GraphicBuffer::USAGE_SW_WRITE_MASK) != 0;
    // A second attempt is made when the display's private context turns out to be lost.
    for (int attempt = 0; attempt < 2; ++attempt) {
        PrivateContext*& slot = b.contexts[dpy];
        if (slot != nullptr && !stillAlive(*slot))
            retire(b, slot);
        PrivateContext*& entry = b.contexts[dpy];
        if (entry == nullptr) {
            entry = new PrivateContext;
            entry->display = dpy;
            ++b.counters.privateContexts;
        }
        PrivateContext* owner = entry;
        if (store.imports.empty())
            chooseStorage(b, buffer, store, *owner, writing);
        const uint8_t* pixels = nullptr;
        const SharedBlock* storage = nullptr;
        if (store.sharedImages) {
            storage = buffer.getPixelFormat() == HAL_PIXEL_FORMAT_YCrCb_420_SP
                          ? &store.sharedPicture
                          : &store.block;
        } else {
            if (needsStaging(buffer) && store.staging.empty()) {
                store.staging.resize(static_cast<size_t>(buffer.getWidth()) * buffer.getHeight() *
                                     4);
            }
            pixels = writing ? nullptr : contentAsRgba(buffer, store);
        }
        CreateTask task{owner, static_cast<GLsizei>(buffer.getWidth()),
                        static_cast<GLsizei>(buffer.getHeight()), pixels, storage};
        GlThread::instance().run(&CreateTask::run, &task);
        if (task.image == EGL_NO_IMAGE_KHR) {
            if (owner->lost)
                continue;
            if (owner->images == 0)
                retire(b, owner);
            return EGL_NO_IMAGE_KHR;
        }
        auto stale = b.images.find(task.image);
        if (stale != b.images.end()) {
            // The driver reused the handle of an image lost with its display.
            ImageImport* old = stale->second;
            b.images.erase(stale);
            BufferStore& oldStore = BufferStore::of(*old->buffer);
            if (&oldStore == &store) {
                forgetLostImage(b, old, store);
            } else if (oldStore.mutex.try_lock()) {
                android::sp<android::GraphicBuffer> oldBuffer = old->buffer;
                forgetLostImage(b, old, oldStore);
                oldStore.mutex.unlock();
            }  // else: left in its buffer's list, skipped by every transfer
        }
        auto* import = new ImageImport;
        import->image = task.image;
        import->owner = owner;
        import->texture = task.texture;
        import->memoryObject = task.memoryObject;
        import->buffer = &buffer;
        ++owner->images;
        store.imports.push_back(import);
        b.images[task.image] = import;
        ++b.counters.imagesMade;
        if (storage != nullptr)
            ++b.counters.sharedImagesMade;
        ++b.counters.imagesLive;
        return task.image;
    }
    return EGL_NO_IMAGE_KHR;
}

// Result of destroying one of our images; `keep` holds the buffer until all locks are dropped.
bool destroyNativeBufferImage(EGLDisplay dpy, EGLImageKHR image,
                              android::sp<android::GraphicBuffer>& keep) {
    Bridge& b = bridge();
    {
        std::lock_guard<std::mutex> bridgeLock(b.mutex);
        auto it = b.images.find(image);
        if (it == b.images.end() || it->second->owner->display != dpy)
            return false;
        keep = it->second->buffer;
    }
    BufferStore& store = BufferStore::of(*keep);
    std::lock_guard<std::mutex> storeLock(store.mutex);
    std::lock_guard<std::mutex> bridgeLock(b.mutex);
    auto it = b.images.find(image);  // may have gone while no lock was held
    if (it == b.images.end())
        return false;
    ImageImport* import = it->second;
    if (--import->refs > 0)
        return true;
    // Keep what GL drew: the memory is the content once the image is gone. A buffer read back
    // when it was queued to a window needs none, and its consumer may be reading it now.
    if (import->renderTarget && !store.locked && !store.memoryCurrent && !store.sharedImages)
        readBackLocked(b, *keep, store, *import);
    b.images.erase(it);
    for (auto i = store.imports.begin(); i != store.imports.end(); ++i) {
        if (*i == import) {
            store.imports.erase(i);
            break;
        }
    }
    PrivateContext* owner = import->owner;
    DestroyTask task{import, --owner->images == 0};
    GlThread::instance().run(&DestroyTask::run, &task);
    if (task.destroyContext) {
        auto entry = b.contexts.find(owner->display);
        if (entry != b.contexts.end() && entry->second == owner)
            b.contexts.erase(entry);
        delete owner;
        --b.counters.privateContexts;
    }
    --b.counters.imagesLive;
    import->buffer.clear();  // `keep` still holds the buffer
    delete import;
    return true;
}

}  // namespace

android::status_t uploadToImages(android::GraphicBuffer& buffer, BufferStore& store) {
    Bridge& b = bridge();
    if (store.sharedImages) {
        // The images sample the memory itself (RGBA) or its RGB picture, converted here on the
        // calling thread: nothing to hand to GL.
        if (buffer.getPixelFormat() != HAL_PIXEL_FORMAT_YCrCb_420_SP)
            return android::NO_ERROR;
        convertIntoSharedPicture(buffer, store);
        std::lock_guard<std::mutex> bridgeLock(b.mutex);
        ++b.counters.uploads;
        return android::NO_ERROR;
    }
    const uint8_t* pixels = contentAsRgba(buffer, store);
    std::lock_guard<std::mutex> bridgeLock(b.mutex);
    UploadTask task{store.imports.data(), store.imports.size(),
                    static_cast<GLsizei>(buffer.getWidth()),
                    static_cast<GLsizei>(buffer.getHeight()), pixels};
    GlThread::instance().run(&UploadTask::run, &task);
    ++b.counters.uploads;
    if (!task.ok) {
        logWarning("upload of a %ux%u buffer to its images failed", buffer.getWidth(),
                   buffer.getHeight());
        return android::UNKNOWN_ERROR;
    }
    return android::NO_ERROR;
}

android::status_t readBackFromImages(android::GraphicBuffer& buffer, BufferStore& store) {
    if (store.memoryCurrent)
        return android::NO_ERROR;
    Bridge& b = bridge();
    std::lock_guard<std::mutex> bridgeLock(b.mutex);
    ImageImport* target = renderTargetOf(store);
    if (target == nullptr)
        return android::NO_ERROR;
    android::status_t status = readBackLocked(b, buffer, store, *target);
    if (status != android::NO_ERROR) {
        logWarning("read-back of a %ux%u buffer failed", buffer.getWidth(), buffer.getHeight());
    }
    return status;
}

android::status_t readBackForConsumer(android::GraphicBuffer& buffer) {
    BufferStore& store = BufferStore::of(buffer);
    std::lock_guard<std::mutex> storeLock(store.mutex);
    if (store.locked || store.imports.empty())
        return android::NO_ERROR;
    const android::status_t status = readBackFromImages(buffer, store);
    store.memoryCurrent = status == android::NO_ERROR;
    return status;
}

void noteHandedToProducer(android::GraphicBuffer& buffer) {
    BufferStore& store = BufferStore::of(buffer);
    std::lock_guard<std::mutex> storeLock(store.mutex);
    store.memoryCurrent = false;
}

GraphicsCounters graphicsCounters() {
    Bridge& b = bridge();
    std::lock_guard<std::mutex> lock(b.mutex);
    return b.counters;
}

void setImageMemorySharing(bool enabled) {
    Bridge& b = bridge();
    std::lock_guard<std::mutex> lock(b.mutex);
    b.sharingWanted = enabled;
}

}  // namespace host

using host::logWarning;

extern "C" EGLImageKHR eglCreateImageKHR(EGLDisplay dpy, EGLContext ctx, EGLenum target,
                                         EGLClientBuffer buffer, const EGLint* attrib_list) {
    const host::DriverEntryPoints& real = host::driver();
    if (target != EGL_NATIVE_BUFFER_ANDROID) {
        return real.createImage(dpy, ctx, target, buffer, attrib_list);
    }
    // Refusals are left to the driver, which does not know the native-buffer target and so
    // reports the caller's mistake through eglGetError as EGL_BAD_PARAMETER (or the display's
    // own error).
    auto* record = static_cast<ANativeWindowBuffer*>(buffer);
    if (ctx != EGL_NO_CONTEXT || record == nullptr || !host::isLiveBuffer(record)) {
        logWarning("eglCreateImageKHR: not a live GraphicBuffer (%p) or context given", buffer);
        return real.createImage(dpy, ctx, target, buffer, attrib_list);
    }
    for (const EGLint* a = attrib_list; a != nullptr && *a != EGL_NONE; a += 2) {
        if (a[0] != EGL_IMAGE_PRESERVED_KHR) {
            logWarning("eglCreateImageKHR: unsupported attribute 0x%x", a[0]);
            return real.createImage(dpy, ctx, target, buffer, attrib_list);
        }
    }
    const char* extensions = eglQueryString(dpy, EGL_EXTENSIONS);
    if (extensions == nullptr)
        return EGL_NO_IMAGE_KHR;  // the query left the display's error
    if (!host::hasExtension(extensions, "EGL_KHR_image_base") ||
        !host::hasExtension(extensions, "EGL_KHR_gl_texture_2D_image")) {
        logWarning("eglCreateImageKHR: the driver has no texture images");
        return real.createImage(dpy, ctx, target, buffer, attrib_list);
    }
    android::sp<android::GraphicBuffer> graphicBuffer = android::GraphicBuffer::from(record);
    if (graphicBuffer == nullptr || graphicBuffer->initCheck() != android::NO_ERROR) {
        logWarning("eglCreateImageKHR: GraphicBuffer %p has no memory", buffer);
        return real.createImage(dpy, ctx, target, buffer, attrib_list);
    }
    EGLImageKHR image = host::createNativeBufferImage(dpy, *graphicBuffer);
    if (image == EGL_NO_IMAGE_KHR)
        return real.createImage(dpy, ctx, target, buffer, attrib_list);
    host::reportSuccess(dpy);
    return image;
}

extern "C" EGLBoolean eglDestroyImageKHR(EGLDisplay dpy, EGLImageKHR image) {
    android::sp<android::GraphicBuffer> keep;
    if (!host::destroyNativeBufferImage(dpy, image, keep)) {
        return host::driver().destroyImage(dpy, image);
    }
    host::reportSuccess(dpy);
    return EGL_TRUE;
}

namespace {

// Whether the caller's current context can take EGL images; logs once per process if not.
bool callerHasEglImage() {
    const char* extensions = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
    if (host::hasExtension(extensions, "GL_OES_EGL_image"))
        return true;
    static std::once_flag logged;
    std::call_once(logged, [] { logWarning("GL_OES_EGL_image missing in the current context"); });
    return false;
}

}  // namespace

extern "C" void glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image) {
    if (!callerHasEglImage())
        return;
    host::driver().targetTexture(target, image);
}

extern "C" void glEGLImageTargetRenderbufferStorageOES(GLenum target, GLeglImageOES image) {
    if (!callerHasEglImage())
        return;
    host::Bridge& b = host::bridge();
    {
        std::lock_guard<std::mutex> lock(b.mutex);
        auto it = b.images.find(static_cast<EGLImageKHR>(image));
        if (it != b.images.end()) {
            host::ImageImport& import = *it->second;
            if (import.buffer->getPixelFormat() == HAL_PIXEL_FORMAT_YCrCb_420_SP) {
                // The storage is the RGB picture of the buffer; what GL draws there cannot be
                // brought back into the NV21 memory, so the buffer is not read back.
                logWarning("NV21 buffer %p as renderbuffer storage: drawing stays on the GPU",
                           import.buffer.get());
            } else {
                import.renderTarget = true;
            }
        }
    }
    host::driver().targetRenderbuffer(target, image);
}
