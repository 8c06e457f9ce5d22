#include "measure/EngineLog.h"

#include "common/ReplayError.h"

#include <android/log.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qlmr::replay {

bool parseTimingLine(const std::string& text, TimingLine& out) {
    static const std::string kHead = "[cTTiming]";
    if (text.compare(0, kHead.size(), kHead) != 0)
        return false;
    out.probe.clear();
    out.stages.clear();
    size_t pos = kHead.size();
    if (pos < text.size() && text[pos] == '[') {
        const size_t close = text.find("] ", pos);
        if (close == std::string::npos)
            return false;
        out.probe = text.substr(pos + 1, close - pos - 1);
        pos = close + 2;
    }
    // Stages: "<label>(<ms>) " repeated. A label may itself contain '(' (probe names such as
    // "Render()" do), so the duration is the text in the last parentheses before ") ".
    while (pos < text.size()) {
        const size_t end = text.find(") ", pos);
        const size_t stop = end == std::string::npos ? text.size() - 1 : end;
        if (end == std::string::npos && text.back() != ')')
            return false;
        const size_t open = text.rfind('(', stop);
        if (open == std::string::npos || open < pos)
            return false;
        const std::string label = text.substr(pos, open - pos);
        const std::string number = text.substr(open + 1, stop - open - 1);
        char* after = nullptr;
        const double ms = std::strtod(number.c_str(), &after);
        if (label.empty() || number.empty() || *after != '\0')
            return false;
        out.stages.emplace_back(label, ms);
        pos = end == std::string::npos ? text.size() : end + 2;
    }
    return true;
}

const std::vector<ExpectedLine> kExpectedEngineLines = {
    {ANDROID_LOG_WARN, "[Warning] Gyro and system clock deviate with more than 200ms",
     "gyro_clock_ahead"},
    {ANDROID_LOG_ERROR, "GBM creating new GLGB for ", "gl_buffer_setup"},
};

namespace {
bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}
}  // namespace

void EngineLogStats::add(int priority, const std::string& text) {
    const auto expected = std::find_if(
        kExpectedEngineLines.begin(), kExpectedEngineLines.end(), [&](const ExpectedLine& e) {
            return e.priority == priority && startsWith(text, e.prefix);
        });
    if (expected != kExpectedEngineLines.end()) {
        ++expectedLines[expected->kind];
    } else if (priority >= ANDROID_LOG_ERROR) {
        ++errors;
    } else if (priority == ANDROID_LOG_WARN &&
               (startsWith(text, "[Warning]") || startsWith(text, "[Error]") ||
                startsWith(text, "[Exception]"))) {
        ++warnings;
    }
    TimingLine timing;
    if (parseTimingLine(text, timing)) {
        for (const auto& [label, ms] : timing.stages)
            stageMs[timing.probe + "/" + label].push_back(ms);
        return;
    }
    if (text == "[Warning] Dropping new frame, internal buffer queue is full") {
        ++droppedQueueFull;
    } else if (text == "[VStab][Status] use uniform_vrtxArr to Render" ||
               text == "[VStab][Status] frameQueue almost full, use uniform_vrtxArr to Render") {
        ++renderedUnstabilized;
    } else if (text == "[VStab] error, duplicate frame timestamp, ignore this frame") {
        ++duplicateFrames;
    } else if (text.rfind("[VStab] frame timestamp within StartTimeOffsetUs(", 0) == 0) {
        ++skippedBeforeStart;
    } else if (text.rfind("[Exception] ", 0) == 0) {
        ++exceptions;
        if (exceptionTexts.size() < 20)
            exceptionTexts.push_back(text.substr(12));
    }
}

std::map<std::string, Percentiles> EngineLogStats::stagePercentiles() const {
    std::map<std::string, Percentiles> out;
    for (const auto& [key, values] : stageMs)
        out[key] = percentiles(values);
    return out;
}

namespace {
std::atomic<EngineLogTap*> gTap{nullptr};
}

EngineLogTap::EngineLogTap(const std::string& logPath) {
    if (!logPath.empty()) {
        file_ = std::fopen(logPath.c_str(), "w");
        if (file_ == nullptr)
            throw ReplayError(logPath, 0, std::string("cannot create: ") + std::strerror(errno));
    }
    EngineLogTap* expected = nullptr;
    if (!gTap.compare_exchange_strong(expected, this)) {
        if (file_ != nullptr)
            std::fclose(file_);
        throw ReplayError("only one engine log tap may be installed at a time");
    }
    __android_log_set_logger(&EngineLogTap::onLine);
}

EngineLogTap::~EngineLogTap() {
    __android_log_set_logger(__android_log_stderr_logger);
    gTap.store(nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_ != nullptr)
        std::fclose(file_);
}

EngineLogStats EngineLogTap::stats() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stats_;
}

void EngineLogTap::onLine(const ::__android_logger_data* data, const char* message) {
    EngineLogTap* tap = gTap.load();
    if (tap == nullptr || message == nullptr)
        return;
    std::string text(message);
    // Engine format strings end some lines with a line feed; the line itself does not.
    while (!text.empty() && (text.back() == '\n'))
        text.pop_back();
    std::lock_guard<std::mutex> lock(tap->mutex_);
    tap->stats_.add(data->priority, text);
    if (tap->file_ != nullptr) {
        std::fprintf(tap->file_, "%d %s %s\n", data->priority, data->tag ? data->tag : "",
                     text.c_str());
    }
}

}  // namespace qlmr::replay
