// Recursive POSIX mutex.
//
// The same thread may lock it again; every lock needs its own unlock. There is no scoped-lock
// class on purpose: callers lock and unlock explicitly (pthread_mutex_lock on `mutex`, or the
// two inline shorthands), and the engine relies on recursion to re-enter its own sections.
#pragma once

#include <pthread.h>

class cTMutex {
public:
    pthread_mutex_t mutex;

    cTMutex();
    // Unlocks before destroying: a mutex destroyed while its owner still holds it (a destructor
    // running during unwinding) is released first. Both results are ignored.
    virtual ~cTMutex();

    cTMutex(const cTMutex&) = delete;
    cTMutex& operator=(const cTMutex&) = delete;

    int lock() { return pthread_mutex_lock(&mutex); }
    int unlock() { return pthread_mutex_unlock(&mutex); }
};
