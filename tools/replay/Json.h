// A small streaming JSON writer (objects, arrays, strings, numbers) with proper escaping;
// non-finite numbers are written as null. Indents two spaces a level.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qlmr::replay {

class JsonWriter {
  public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    // Inside an object: the next value's key.
    JsonWriter& key(const std::string& k);
    JsonWriter& value(const std::string& s);
    JsonWriter& value(const char* s) { return value(std::string(s)); }
    JsonWriter& value(double d);
    JsonWriter& value(int64_t i);
    JsonWriter& value(int i) { return value(static_cast<int64_t>(i)); }
    JsonWriter& value(bool b);
    JsonWriter& null();

    // key(k).value(v) in one call.
    template <typename T>
    JsonWriter& field(const std::string& k, const T& v) {
        key(k);
        return value(v);
    }

    const std::string& text() const { return out_; }

    static std::string escape(const std::string& s);

  private:
    void beforeValue();
    void newline();

    std::string out_;
    std::vector<bool> first_;  // per open container: no element written yet
    bool afterKey_ = false;
};

}  // namespace qlmr::replay
