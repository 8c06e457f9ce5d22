#include "Json.h"

#include <cmath>
#include <cstdio>

namespace qlmr::replay {

std::string JsonWriter::escape(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    return out + "\"";
}

void JsonWriter::newline() {
    out_.push_back('\n');
    out_.append(first_.size() * 2, ' ');
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back())
            out_.push_back(',');
        first_.back() = false;
        newline();
    }
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    out_.push_back('{');
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    const bool empty = first_.back();
    first_.pop_back();
    if (!empty)
        newline();
    out_.push_back('}');
    if (first_.empty())
        out_.push_back('\n');
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    out_.push_back('[');
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    const bool empty = first_.back();
    first_.pop_back();
    if (!empty)
        newline();
    out_.push_back(']');
    return *this;
}

JsonWriter& JsonWriter::key(const std::string& k) {
    beforeValue();
    out_ += escape(k);
    out_ += ": ";
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(const std::string& s) {
    beforeValue();
    out_ += escape(s);
    return *this;
}

JsonWriter& JsonWriter::value(double d) {
    beforeValue();
    if (!std::isfinite(d)) {
        out_ += "null";
    } else {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.6g", d);
        out_ += buf;
    }
    return *this;
}

JsonWriter& JsonWriter::value(int64_t i) {
    beforeValue();
    out_ += std::to_string(i);
    return *this;
}

JsonWriter& JsonWriter::value(bool b) {
    beforeValue();
    out_ += b ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    beforeValue();
    out_ += "null";
    return *this;
}

}  // namespace qlmr::replay
