// NDK looper functions over libutils' android::Looper. An ALooper* is an android::Looper*.
#include <android/looper.h>

#include <utils/Looper.h>

#include "host/HostSensors.h"
#include "host_log.h"

using android::Looper;
using android::sp;

namespace {

Looper* toLooper(ALooper* looper) {
    return reinterpret_cast<Looper*>(looper);
}
ALooper* toALooper(Looper* looper) {
    return reinterpret_cast<ALooper*>(looper);
}

}  // namespace

// The thread's looper stays referenced by the thread until it exits, so the raw pointers
// handed out below stay valid for the calling thread.
ALooper* ALooper_forThread() {
    return toALooper(Looper::getForThread().get());
}

ALooper* ALooper_prepare(int opts) {
    if (host::takeSensorFault(host::SensorFault::LooperPrepare))
        return nullptr;
    return toALooper(Looper::prepare(opts).get());
}

void ALooper_acquire(ALooper* looper) {
    if (looper == nullptr)
        return;
    toLooper(looper)->incStrong(reinterpret_cast<void*>(ALooper_acquire));
}

void ALooper_release(ALooper* looper) {
    if (looper == nullptr)
        return;
    toLooper(looper)->decStrong(reinterpret_cast<void*>(ALooper_acquire));
}

int ALooper_pollOnce(int timeoutMillis, int* outFd, int* outEvents, void** outData) {
    sp<Looper> looper = Looper::getForThread();
    if (looper == nullptr) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR, "ALooper_pollOnce: no looper for this thread");
        return ALOOPER_POLL_ERROR;
    }
    return looper->pollOnce(timeoutMillis, outFd, outEvents, outData);
}

int ALooper_pollAll(int timeoutMillis, int* outFd, int* outEvents, void** outData) {
    sp<Looper> looper = Looper::getForThread();
    if (looper == nullptr) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR, "ALooper_pollAll: no looper for this thread");
        return ALOOPER_POLL_ERROR;
    }
    return looper->pollAll(timeoutMillis, outFd, outEvents, outData);
}

void ALooper_wake(ALooper* looper) {
    if (looper != nullptr)
        toLooper(looper)->wake();
}

int ALooper_addFd(ALooper* looper, int fd, int ident, int events, ALooper_callbackFunc callback,
                  void* data) {
    if (looper == nullptr)
        return -1;
    return toLooper(looper)->addFd(fd, ident, events, callback, data);
}

int ALooper_removeFd(ALooper* looper, int fd) {
    if (looper == nullptr)
        return -1;
    return toLooper(looper)->removeFd(fd);
}
