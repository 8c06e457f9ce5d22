// Host implementation of libcutils' property_get() over an in-memory store.
#include "host/Properties.h"

#include <cutils/properties.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace host {
namespace {

struct Store {
    std::mutex mutex;
    std::map<std::string, std::string> values;
    bool environmentRead = false;
};

Store& store() {
    static Store* s = new Store;  // never destroyed: property_get may run during exit
    return *s;
}

bool parse(const std::string& text, std::vector<std::pair<std::string, std::string>>& out) {
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";\n", pos);
        if (end == std::string::npos) end = text.size();
        std::string entry = text.substr(pos, end - pos);
        pos = end + 1;
        if (entry.find_first_not_of(" \t\r") == std::string::npos) continue;
        size_t eq = entry.find('=');
        if (eq == std::string::npos || eq == 0) return false;
        out.emplace_back(entry.substr(0, eq), entry.substr(eq + 1));
    }
    return true;
}

// Called with the store's mutex held.
void readEnvironmentLocked(Store& s) {
    if (s.environmentRead) return;
    s.environmentRead = true;
    const char* env = std::getenv("QLMR_PROPERTIES");
    if (env == nullptr) return;
    std::vector<std::pair<std::string, std::string>> entries;
    if (!parse(env, entries)) return;
    for (auto& kv : entries) s.values[kv.first] = kv.second.substr(0, PROPERTY_VALUE_MAX - 1);
}

}  // namespace

void setProperty(const std::string& key, const std::string& value) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    readEnvironmentLocked(s);
    s.values[key] = value.substr(0, PROPERTY_VALUE_MAX - 1);
}

void clearProperty(const std::string& key) {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    readEnvironmentLocked(s);
    s.values.erase(key);
}

void clearProperties() {
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.environmentRead = true;
    s.values.clear();
}

bool loadProperties(const std::string& text) {
    std::vector<std::pair<std::string, std::string>> entries;
    if (!parse(text, entries)) return false;
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    readEnvironmentLocked(s);
    for (auto& kv : entries) s.values[kv.first] = kv.second.substr(0, PROPERTY_VALUE_MAX - 1);
    return true;
}

}  // namespace host

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    if (value == nullptr) return 0;
    std::string found;
    bool have = false;
    if (key != nullptr) {
        host::Store& s = host::store();
        std::lock_guard<std::mutex> lock(s.mutex);
        host::readEnvironmentLocked(s);
        auto it = s.values.find(key);
        if (it != s.values.end() && !it->second.empty()) {
            found = it->second;
            have = true;
        }
    }
    if (!have) {
        if (default_value == nullptr) {
            value[0] = '\0';
            return 0;
        }
        found = default_value;
    }
    size_t len = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    std::memcpy(value, found.data(), len);
    value[len] = '\0';
    return static_cast<int>(len);
}
