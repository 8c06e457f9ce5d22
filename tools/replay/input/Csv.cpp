#include "input/Csv.h"

#include "common/ReplayError.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace qlmr::replay {

CsvReader::CsvReader(const std::string& path) : path_(path) {
    file_ = std::fopen(path.c_str(), "rb");
    if (file_ == nullptr)
        throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (fstat(fileno(file_), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fclose(file_);
        file_ = nullptr;
        throw ReplayError(path, 0, "not a regular file");
    }
    // A UTF-8 byte-order mark, which some spreadsheet programs write, is not part of the table.
    const int b0 = std::fgetc(file_), b1 = std::fgetc(file_), b2 = std::fgetc(file_);
    if (!(b0 == 0xEF && b1 == 0xBB && b2 == 0xBF))
        std::rewind(file_);
}

CsvReader::~CsvReader() {
    if (file_ != nullptr)
        std::fclose(file_);
}

namespace {
std::string trim(const std::string& s) {
    size_t a = 0;
    size_t b = s.size();
    while (a < b && (s[a] == ' ' || s[a] == '\t'))
        ++a;
    while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t' || s[b - 1] == '\r'))
        --b;
    return s.substr(a, b - a);
}
}  // namespace

bool CsvReader::next(std::vector<std::string>& fields) {
    for (;;) {
        text_.clear();
        int c = 0;
        bool any = false;
        while ((c = std::fgetc(file_)) != EOF) {
            any = true;
            if (c == '\n')
                break;
            if (c == '\0') {
                ++line_;
                fail("binary data (NUL byte) in a text table");
            }
            text_.push_back(static_cast<char>(c));
        }
        if (!any) {
            if (std::ferror(file_))
                throw ReplayError(path_, line_ + 1, "read error");
            return false;
        }
        ++line_;
        const std::string t = trim(text_);
        if (t.empty() || t[0] == '#')
            continue;
        fields.clear();
        size_t start = 0;
        for (;;) {
            const size_t comma = t.find(',', start);
            fields.push_back(trim(
                t.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
            if (comma == std::string::npos)
                break;
            start = comma + 1;
        }
        return true;
    }
}

void CsvReader::fail(const std::string& message) const {
    throw ReplayError(path_, line_, message);
}

int64_t CsvReader::toInt64(const std::string& field, const char* what) const {
    if (field.empty())
        fail(std::string("empty ") + what);
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(field.c_str(), &end, 10);
    if (*end != '\0')
        fail(std::string(what) + " '" + field + "' is not an integer");
    if (errno == ERANGE)
        fail(std::string(what) + " '" + field + "' is out of range");
    return v;
}

double CsvReader::toDouble(const std::string& field, const char* what) const {
    if (field.empty())
        fail(std::string("empty ") + what);
    char* end = nullptr;
    const double v = std::strtod(field.c_str(), &end);
    if (*end != '\0')
        fail(std::string(what) + " '" + field + "' is not a number");
    if (!std::isfinite(v))
        fail(std::string(what) + " '" + field + "' is not finite");
    return v;
}

}  // namespace qlmr::replay
