// What the engine says in the Android log during a replay: the timing probes' lines
// ("[cTTiming][<probe>] <label>(<ms>) ..."), and the lines that mark dropped frames and frames
// rendered without stabilization. EngineLogTap installs itself as liblog's logger for its
// lifetime, so every line from every engine thread passes through it.
#pragma once

#include "measure/Signal.h"

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

// A line the engine writes at warning or error level on every normal replay: counted apart
// from the warnings and errors, by kind.
struct ExpectedLine {
    int priority;        // liblog's
    const char* prefix;  // the line starts with this text
    const char* kind;    // key in EngineLogStats::expectedLines
};
// The list: "[Warning] Gyro and system clock deviate with more than 200ms" (the replay clock
// runs ahead of the system clock: the gyro is fed up to 1.5 s ahead of the frames) and
// "GBM creating new GLGB for " (error level, once per camera buffer the engine maps to a
// texture while it starts).
extern const std::vector<ExpectedLine> kExpectedEngineLines;

// Counters and timings gathered from the log lines of one replay.
struct EngineLogStats {
    int droppedQueueFull = 0;      // "[Warning] Dropping new frame, internal buffer queue is full"
    int renderedUnstabilized = 0;  // fallback renders with the unwarped grid
    int duplicateFrames = 0;       // "[VStab] error, duplicate frame timestamp, ignore this frame"
    int skippedBeforeStart = 0;    // frames within the start offset
    int exceptions = 0;            // "[Exception] ..." lines
    // The engine writes its diagnostics at warning level too: a warning is a warning-level line
    // marked "[Warning]", "[Error]" or "[Exception]"; an error any error-level line. Neither
    // counts an expected line.
    int warnings = 0;
    int errors = 0;
    std::map<std::string, int> expectedLines;  // kind -> count, see kExpectedEngineLines
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
