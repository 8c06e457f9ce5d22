// Line-oriented reading of the recording's small text tables (comma-separated values), with
// the file name and line number kept for every error.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qlmr::replay {

class CsvReader {
  public:
    // Opens `path`; throws ReplayError naming it when it cannot.
    explicit CsvReader(const std::string& path);
    ~CsvReader();
    CsvReader(const CsvReader&) = delete;
    CsvReader& operator=(const CsvReader&) = delete;

    // Next data line split at commas (blanks around fields trimmed, a trailing CR dropped).
    // Blank lines and lines starting with '#' are comments and are passed over. False at the
    // end of the file.
    bool next(std::vector<std::string>& fields);

    // Line number (1-based) of the line last returned.
    int line() const { return line_; }
    const std::string& path() const { return path_; }

    // Throws ReplayError "<path>:<line>: <message>" for the current line.
    [[noreturn]] void fail(const std::string& message) const;

    // Strict field parsers: the whole field must be the number, else fail() with `what` named.
    int64_t toInt64(const std::string& field, const char* what) const;
    double toDouble(const std::string& field, const char* what) const;

  private:
    FILE* file_ = nullptr;
    std::string path_;
    std::string text_;
    int line_ = 0;
};

}  // namespace qlmr::replay
