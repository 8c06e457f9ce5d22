// The test program's own clock_gettime, usleep and a few GL calls, which take the libraries'
// place for the engine and forward to them unless a test asks otherwise.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <vector>

namespace systemhooks {

// While set on a thread, that thread's reads of CLOCK_BOOTTIME fail with EINVAL (a clock
// read that fails, as a preempted or broken clock source would make getDeltaTime fail).
void failBoottimeReadsOnThisThread(bool fail);

// Records the argument of every usleep made by `thread` from now on, forgetting earlier
// records; a null thread stops recording and keeps what was recorded.
void recordSleepsOf(pthread_t thread);
// The arguments recorded so far, in µs, in call order.
std::vector<useconds_t> recordedSleeps();

// On the calling thread: glGen/DeleteFramebuffers raise GL_INVALID_VALUE; glShaderSource hands
// the driver a text that is not GLSL, so compiling and linking fail.
void failFramebufferCallsOnThisThread(bool fail);
void breakShaderSourcesOnThisThread(bool broken);

}  // namespace systemhooks
