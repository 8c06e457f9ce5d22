// Captures the Android log lines written while an instance lives, through liblog's custom
// logger hook, so that tests can check lines, priorities and tags exactly.
//
// One instance at a time (the hook is process-wide). Lines from every thread are captured.
#pragma once

#include <string>
#include <vector>

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Texts only, in order, optionally restricted to one tag.
    std::vector<std::string> texts(const char* tag = nullptr) const;
    // Number of lines whose text equals `text` exactly (and whose priority matches, if >= 0).
    int count(const std::string& text, int priority = -1) const;
    bool contains(const std::string& text, int priority = -1) const {
        return count(text, priority) > 0;
    }
    // Number of lines whose text contains `part`.
    int countContaining(const std::string& part) const;
    void clear();
};
