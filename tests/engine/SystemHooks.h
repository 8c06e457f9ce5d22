// clock_gettime, usleep and GL calls in the libraries' place, failing where a test asks.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <vector>

namespace systemhooks {

// While set, this thread's reads of CLOCK_BOOTTIME fail with EINVAL.
void failBoottimeReadsOnThisThread(bool fail);

// Records every usleep of `thread` from now on; a null thread stops (keeping the records).
void recordSleepsOf(pthread_t thread);
// The arguments recorded so far, in µs, in call order.
std::vector<useconds_t> recordedSleeps();

// On this thread: framebuffer calls raise GL_INVALID_VALUE; shader sources are not GLSL.
void failFramebufferCallsOnThisThread(bool fail);
void breakShaderSourcesOnThisThread(bool broken);

}  // namespace systemhooks
