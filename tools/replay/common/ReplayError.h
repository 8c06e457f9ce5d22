// Errors about the replay tool's inputs and outputs, carrying the file (and line) they concern
// so that the command can print one line that points at the fault.
#pragma once

#include <stdexcept>
#include <string>

namespace qlmr::replay {

// A fault in an input file or folder, or an output that could not be written.
// what() is "<file>:<line>: <message>" (line > 0) or "<file>: <message>" (line 0), or just the
// message when no file is involved.
class ReplayError : public std::runtime_error {
  public:
    ReplayError(std::string file, int line, const std::string& message)
        : std::runtime_error(format(file, line, message)), file_(std::move(file)), line_(line) {}
    explicit ReplayError(const std::string& message) : std::runtime_error(message) {}

    const std::string& file() const { return file_; }
    int line() const { return line_; }

  private:
    static std::string format(const std::string& file, int line, const std::string& message) {
        if (file.empty())
            return message;
        if (line > 0)
            return file + ":" + std::to_string(line) + ": " + message;
        return file + ": " + message;
    }

    std::string file_;
    int line_ = 0;
};

}  // namespace qlmr::replay
