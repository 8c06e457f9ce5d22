#include "cTTiming.h"

#include <time.h>

#include <sstream>

#include "Log.h"

int64_t cTTiming::nowUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

cTTiming::cTTiming(const char* nameIn) : name(nameIn), last(nowUs()) {}

void cTTiming::operator()(const char* label) {
    int64_t now = nowUs();
    if (label == nullptr) {
        last = now;
        return;
    }
    stages[label] = now - last;
    // Second reading: the map update is not charged to the next stage.
    last = nowUs();
}

cTTiming::~cTTiming() {
    if (eis_debug == 0)
        return;
    std::stringstream line;
    line << "[cTTiming]";
    if (name != nullptr)
        line << "[" << name << "] ";
    for (const auto& stage : stages) {
        // Milliseconds in single precision, default stream format (6 significant digits).
        line << stage.first << "(" << static_cast<float>(stage.second) * 0.001f << ") ";
    }
    QLOGW("%s", line.str().c_str());
}
