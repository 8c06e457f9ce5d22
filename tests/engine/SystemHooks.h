// Seams at the C library for the engine tests: the engine calls clock_gettime and usleep
// directly, and this test program defines both (the program's definitions take precedence
// over the C library's for every object linked into it). Both forward to the kernel unless a
// test asks otherwise.
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

// GL calls of the engine that a test can make fail on the calling thread (the engine links
// against the GL library, so these definitions take its place and forward to it):
// glGenFramebuffers and glDeleteFramebuffers raise GL_INVALID_VALUE instead of doing their work;
// glShaderSource hands the driver a text that is not GLSL, so compiling and linking fail.
void failFramebufferCallsOnThisThread(bool fail);
void breakShaderSourcesOnThisThread(bool broken);

}  // namespace systemhooks
