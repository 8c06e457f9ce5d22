#include "GlThread.h"

namespace host {

GlThread& GlThread::instance() {
    // Never destroyed: buffers released by static destructors at exit may still need it.
    static GlThread* thread = new GlThread;
    return *thread;
}

GlThread::GlThread() : thread_([this] { loop(); }) {
    thread_.detach();
}

void GlThread::run(void (*task)(void*), void* arg) {
    std::lock_guard<std::mutex> submit(submitMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    task_ = task;
    arg_ = arg;
    finished_ = false;
    wake_.notify_one();
    done_.wait(lock, [this] { return finished_; });
}

void GlThread::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return task_ != nullptr; });
        void (*task)(void*) = task_;
        void* arg = arg_;
        task_ = nullptr;
        lock.unlock();
        task(arg);
        lock.lock();
        finished_ = true;
        done_.notify_all();
    }
}

}  // namespace host
