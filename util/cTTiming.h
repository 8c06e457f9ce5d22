// Scoped stage timer.
//
// A function creates one on its stack, calls it with a label at the end of each stage and, when
// the probe goes out of scope, one log line lists every stage's duration in milliseconds:
//
//   [cTTiming][Render()] Render(8.25) popFrame(1.52)
//
// (stages in byte-wise label order, each followed by a blank), at warning priority under the
// engine's tag, only while the global `eis_debug` is non-zero. Measuring itself is always on and
// costs two clock readings and one map assignment per stage; formatting and logging happen once,
// in the destructor, and only in debug mode.
//
// A probe belongs to the thread whose stack it lives on and is never shared.
#pragma once

#include <cstdint>
#include <map>
#include <string>

// Verbose-diagnostics switch (non-zero: on). Defined by the engine, read here without a lock.
extern int32_t eis_debug;

class cTTiming {
  public:
    // Field order is fixed.
    const char* name;                       // printed in brackets; not owned; may be null
    int64_t last;                           // CLOCK_MONOTONIC time of the last mark, us
    std::map<std::string, int64_t> stages;  // label -> duration of that stage, us

    explicit cTTiming(const char* nameIn);
    // Writes the report when `eis_debug` is non-zero. An exception while building or printing
    // it terminates the process.
    ~cTTiming();

    cTTiming(const cTTiming&) = delete;
    cTTiming& operator=(const cTTiming&) = delete;

    // Ends the stage that began at the previous mark (or at construction) and records its
    // duration under `label`, replacing an earlier duration of the same label. A null label
    // restarts the stopwatch without recording anything.
    void operator()(const char* label);

    // CLOCK_MONOTONIC in microseconds: seconds * 1000000 + nanoseconds / 1000.
    static int64_t nowUs();
};
