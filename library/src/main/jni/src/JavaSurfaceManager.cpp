#include "JavaSurfaceManager.h"

#include <utility>

#include "Log.h"

namespace {
constexpr const char* kSource = "library/src/main/jni/src/JavaSurfaceManager";
}

JavaSurfaceManager::Window::Window(android::sp<ANativeWindow> w) : window(std::move(w)) {
    pthread_mutex_init(&mutex, nullptr);
}

JavaSurfaceManager::Window::Window(const Window& other)
    : window(other.window), lastDequeued(other.lastDequeued) {
    pthread_mutex_init(&mutex, nullptr);
}

JavaSurfaceManager::Window& JavaSurfaceManager::Window::operator=(const Window& other) {
    // The mutex stays this object's own.
    window = other.window;
    lastDequeued = other.lastDequeued;
    return *this;
}

JavaSurfaceManager::Window::~Window() {
    QLMR_ASSERT(kSource,
                lastDequeued == 0 && "Cannot destroy window if a buffer is dequeued, logic error");
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
}

android::sp<android::GraphicBuffer> JavaSurfaceManager::Window::dequeue() {
    pthread_mutex_lock(&mutex);
    ANativeWindowBuffer* buffer = nullptr;
    const int result = window->dequeueBuffer_DEPRECATED(window.get(), &buffer);
    // A window buffer that is no GraphicBuffer counts as no buffer.
    android::sp<android::GraphicBuffer> graphicBuffer = android::GraphicBuffer::from(buffer);
    if (result != 0 || graphicBuffer == nullptr) {
        QLMR_ASSERT(kSource, 0 && "Cannot dequeue buffer from ANativeWindow");
    }
    lastDequeued = graphicBuffer;
    return lastDequeued;
}

void JavaSurfaceManager::Window::queue(android::sp<android::GraphicBuffer> buffer,
                                       long long timestamp) {
    pthread_mutex_unlock(&mutex);
    native_window_set_buffers_timestamp(window.get(), timestamp);
    if (buffer != lastDequeued) {
        QLMR_ASSERT(kSource, 0 && "Trying to queue graphicBuffer different from the one dequeued!");
    }
    window->queueBuffer(window.get(), lastDequeued->getNativeBuffer(), -1);
    lastDequeued.clear();
}

JavaSurfaceManager::JavaSurfaceManager() {
    pthread_mutex_init(&mutex, nullptr);
}

JavaSurfaceManager::~JavaSurfaceManager() {
    windows.clear();
    pthread_mutex_destroy(&mutex);
}

void JavaSurfaceManager::lock() {
    pthread_mutex_lock(&mutex);
}

void JavaSurfaceManager::unlock() {
    pthread_mutex_unlock(&mutex);
}

void JavaSurfaceManager::addSurface(int id, android::sp<ANativeWindow> window) {
    pthread_mutex_lock(&mutex);
    if (window == nullptr) {
        QLMR_ASSERT(kSource, 0 && "Trying to add an invalid ANativeWindow");
    }
    windows.insert(std::make_pair(id, Window(window)));
    pthread_mutex_unlock(&mutex);
}

android::sp<ANativeWindow> JavaSurfaceManager::remSurface(int id) {
    pthread_mutex_lock(&mutex);
    android::sp<ANativeWindow> result;
    auto it = windows.find(id);
    if (it != windows.end()) {
        result = it->second.window;
        windows.erase(it);
    }
    pthread_mutex_unlock(&mutex);
    return result;
}
