// What the engine says in the Android log during a replay: the timing probes' lines
// ("[cTTiming][<probe>] <label>(<ms>) ..."), and the lines that mark dropped frames and frames
// rendered without stabilization. EngineLogTap installs itself as liblog's logger for its
// lifetime, so every line from every engine thread passes through it.
#pragma once

#include "Signal.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct __android_logger_data;

namespace qlmr::replay {

// One parsed timing line.
struct TimingLine {
    std::string probe;                                   // may be empty (probe without a name)
    std::vector<std::pair<std::string, double>> stages;  // label, milliseconds
};

// Parses a "[cTTiming]" line. False when the text is not one (or is malformed).
bool parseTimingLine(const std::string& text, TimingLine& out);

// Counters and timings gathered from the log lines of one replay.
struct EngineLogStats {
    int droppedQueueFull = 0;      // "[Warning] Dropping new frame, internal buffer queue is full"
    int renderedUnstabilized = 0;  // fallback renders with the unwarped grid
    int duplicateFrames = 0;       // "[VStab] error, duplicate frame timestamp, ignore this frame"
    int skippedBeforeStart = 0;    // frames within the start offset
    int exceptions = 0;            // "[Exception] ..." lines
    int warnings = 0;              // all priority-5 lines
    int errors = 0;                // all priority-6 lines
    std::vector<std::string> exceptionTexts;
    // "<probe>/<label>" -> every duration seen, milliseconds.
    std::map<std::string, std::vector<double>> stageMs;

    // Feeds one log line (priority as liblog's: 4 info, 5 warning, 6 error).
    void add(int priority, const std::string& text);
    std::map<std::string, Percentiles> stagePercentiles() const;
};

class EngineLogTap {
  public:
    // Installs the logger. `logPath` non-empty: every line is also written there, as
    // "<priority> <tag> <text>". Only one tap may exist at a time.
    explicit EngineLogTap(const std::string& logPath = "");
    ~EngineLogTap();
    EngineLogTap(const EngineLogTap&) = delete;
    EngineLogTap& operator=(const EngineLogTap&) = delete;

    EngineLogStats stats() const;

  private:
    static void onLine(const ::__android_logger_data* data, const char* message);

    mutable std::mutex mutex_;
    EngineLogStats stats_;
    FILE* file_ = nullptr;
};

}  // namespace qlmr::replay
