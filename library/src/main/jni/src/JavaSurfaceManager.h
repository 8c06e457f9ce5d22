// Registry of the output windows that stabilized frames are drawn into.
//
// Java threads add and remove windows (surfaceAdd/surfaceRemove); the processing thread walks
// the registry under lock()/unlock() and, per window, dequeues a buffer, draws into it and queues
// it with the frame's timestamp. Lock order: the registry mutex, then a window's mutex.
#pragma once

#include <pthread.h>
#include <system/window.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <map>

class JavaSurfaceManager {
  public:
    // One output window and the one buffer that may be dequeued from it at a time.
    class Window {
      public:
        explicit Window(android::sp<ANativeWindow> window);
        // Copies share the window and the dequeued buffer; each copy has its own fresh mutex.
        Window(const Window& other);
        Window& operator=(const Window& other);
        // Aborts if a buffer is still dequeued; otherwise waits for any holder of the mutex.
        ~Window();

        // Locks the window's mutex (held until queue(), on the same thread) and hands out a
        // buffer from the window. Aborts if the window has none to give.
        android::sp<android::GraphicBuffer> dequeue();

        // Unlocks the mutex, stamps the window's next buffer with `timestamp` (nanoseconds,
        // or NATIVE_WINDOW_TIMESTAMP_AUTO) and queues `buffer`, which must be the one
        // dequeued (abort otherwise), with no fence: the caller has finished its GL work.
        void queue(android::sp<android::GraphicBuffer> buffer, long long timestamp);

        android::sp<ANativeWindow> window;
        pthread_mutex_t mutex;
        android::sp<android::GraphicBuffer> lastDequeued;  // null when nothing is dequeued
    };

    JavaSurfaceManager();
    ~JavaSurfaceManager();
    JavaSurfaceManager(const JavaSurfaceManager&) = delete;
    JavaSurfaceManager& operator=(const JavaSurfaceManager&) = delete;

    // Registry mutex, for a caller that walks `windows`.
    void lock();
    void unlock();

    // Registers `window` under `id` (a Java Surface's hashCode()). An id that is already
    // registered keeps its first window; the new one is dropped. Aborts on a null window.
    void addSurface(int id, android::sp<ANativeWindow> window);

    // Unregisters `id` and returns its window, or null (changing nothing) for an unknown id.
    // Aborts if that window still has a buffer dequeued.
    android::sp<ANativeWindow> remSurface(int id);

    std::map<int, Window> windows;  // by id, ascending
    pthread_mutex_t mutex;
};
