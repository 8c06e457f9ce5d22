#include "cTMutex.h"

#include <errno.h>

#include <cstdint>

#include "TsanBuild.h"

cTMutex::cTMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

#if QLMR_TSAN
namespace {

// Runs on a short-lived thread: EBUSY when somebody holds the mutex.
void* probeHeld(void* arg) {
    auto* m = static_cast<pthread_mutex_t*>(arg);
    int result = pthread_mutex_trylock(m);
    if (result == 0)
        pthread_mutex_unlock(m);
    return reinterpret_cast<void*>(static_cast<intptr_t>(result));
}

// True when the calling thread holds `m`: another thread sees it busy, and yet this thread can
// take it again (which a recursive mutex allows its owner only).
bool heldByCaller(pthread_mutex_t* m) {
    pthread_t probe;
    if (pthread_create(&probe, nullptr, probeHeld, m) != 0)
        return true;
    void* result = nullptr;
    pthread_join(probe, &result);
    if (reinterpret_cast<intptr_t>(result) != EBUSY)
        return false;
    if (pthread_mutex_trylock(m) != 0)
        return false;
    pthread_mutex_unlock(m);
    return true;
}

}  // namespace
#endif

cTMutex::~cTMutex() {
#if QLMR_TSAN
    // For a recursive mutex, an unlock by a thread that does not hold it is refused with EPERM
    // and changes nothing; ThreadSanitizer still reports it as misuse. Its build therefore
    // releases only a mutex that the destroying thread holds, which has the same effect.
    if (heldByCaller(&mutex))
        pthread_mutex_unlock(&mutex);
#else
    pthread_mutex_unlock(&mutex);
#endif
    pthread_mutex_destroy(&mutex);
}
