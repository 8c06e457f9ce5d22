// The host platform's own GL thread: every GL and EGL call that the platform makes for itself
// (making its private contexts current, uploading buffer content into images, reading images
// back) runs here, so callers never see their own current context disturbed.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace host {

class GlThread {
  public:
    // The process-wide instance; its thread starts on first use and lives until exit.
    static GlThread& instance();

    // Runs task(arg) on the GL thread and returns when it has finished. Callable from any thread
    // but the GL thread itself; calls from several threads run one after another. Allocates
    // nothing.
    void run(void (*task)(void*), void* arg);

    GlThread(const GlThread&) = delete;
    GlThread& operator=(const GlThread&) = delete;

  private:
    GlThread();
    void loop();

    std::mutex submitMutex_;  // one submitted task at a time
    std::mutex mutex_;        // guards the fields below
    std::condition_variable wake_;
    std::condition_variable done_;
    void (*task_)(void*) = nullptr;
    void* arg_ = nullptr;
    bool finished_ = false;
    std::thread thread_;
};

}  // namespace host
