#include "LogCapture.h"

#include <android/log.h>

#include <mutex>

namespace {

std::mutex gMutex;
std::vector<LogLine>* gLines = nullptr;  // non-null while a capture is installed

void captureLogger(const __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gLines == nullptr)
        return;
    gLines->push_back(LogLine{data->priority, data->tag ? data->tag : "", message});
}

}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gLines = new std::vector<LogLine>();
    }
    // Outside gMutex: liblog holds its own logger lock while it calls captureLogger, which takes
    // gMutex, so taking liblog's lock under gMutex here would invert the order.
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::lock_guard<std::mutex> lock(gMutex);
    delete gLines;
    gLines = nullptr;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return *gLines;
}

std::vector<std::string> LogCapture::texts(const char* tag) const {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::string> out;
    for (const auto& l : *gLines) {
        if (tag == nullptr || l.tag == tag)
            out.push_back(l.text);
    }
    return out;
}

int LogCapture::count(const std::string& text, int priority) const {
    std::lock_guard<std::mutex> lock(gMutex);
    int n = 0;
    for (const auto& l : *gLines) {
        if (l.text == text && (priority < 0 || l.priority == priority))
            ++n;
    }
    return n;
}

int LogCapture::countContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(gMutex);
    int n = 0;
    for (const auto& l : *gLines) {
        if (l.text.find(part) != std::string::npos)
            ++n;
    }
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines->clear();
}
