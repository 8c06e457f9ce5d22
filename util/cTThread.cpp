#include "cTThread.h"

void* cTThread::threadCaller(void* arg) {
    static_cast<cTThread*>(arg)->Run();
    return nullptr;
}

void cTThread::startThread() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    pthread_create(&thread, &attr, threadCaller, this);
    pthread_attr_destroy(&attr);
}

void cTThread::stopThread(std::atomic<int32_t>& state) {
    state.store(ThreadState::StopRequested, std::memory_order_relaxed);
    pthread_join(thread, nullptr);
    state.store(ThreadState::Joined, std::memory_order_relaxed);
}
