#include "input/Configuration.h"

#include "common/ReplayError.h"

#include <Config.h>

#include <cstdlib>
#include <sstream>

namespace qlmr::replay {
namespace {

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return "";
    const size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// The key a line sets, "" for blank lines, comments and lines without '='.
std::string keyOf(const std::string& line) {
    const std::string t = trim(line);
    if (t.empty() || t[0] == '#')
        return "";
    const size_t eq = t.find('=');
    return eq == std::string::npos ? "" : trim(t.substr(0, eq));
}

}  // namespace

ConfigOverride parseOverride(const std::string& text) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos || trim(text.substr(0, eq)).empty() ||
        text.find_first_of("\n\r") != std::string::npos) {
        throw ReplayError("--set '" + text + "' must be KEY=VALUE on one line");
    }
    return {trim(text.substr(0, eq)), trim(text.substr(eq + 1))};
}

ConfigurationText applyOverrides(const std::string& text, const std::string& origin,
                                 const std::vector<ConfigOverride>& overrides) {
    std::vector<std::string> lines;
    ConfigurationText out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
        out.lineOrigins.push_back(origin + ":" + std::to_string(lines.size()));
    }
    for (const ConfigOverride& o : overrides) {
        const std::string label = "--set " + o.key + "=" + o.value;
        bool found = false;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (keyOf(lines[i]) == o.key) {
                lines[i] = o.key + "=" + o.value;
                out.lineOrigins[i] = label;
                found = true;
            }
        }
        if (!found) {
            lines.push_back(o.key + "=" + o.value);
            out.lineOrigins.push_back(label);
        }
    }
    for (const std::string& line : lines)
        out.text += line + "\n";
    return out;
}

namespace {

// A sentence of the library's that begins "Line N: " is put against where line N came from
// ("config.txt:3: ...", "--set KEY=VALUE: ..."); any other against the text's origin.
std::string locate(const ConfigurationText& config, const std::string& sentence) {
    const std::string& first =
        config.lineOrigins.empty() ? std::string("configuration") : config.lineOrigins.front();
    if (sentence.rfind("Line ", 0) == 0) {
        char* end = nullptr;
        const long n = std::strtol(sentence.c_str() + 5, &end, 10);
        if (n >= 1 && static_cast<size_t>(n) <= config.lineOrigins.size() && *end == ':')
            return config.lineOrigins[static_cast<size_t>(n - 1)] + ": " + trim(end + 1);
    }
    const size_t colon = first.rfind(':');
    const bool fileLine = colon != std::string::npos && first.rfind("--set", 0) != 0;
    return (fileLine ? first.substr(0, colon) : first) + ": " + sentence;
}

}  // namespace

std::vector<std::string> checkConfiguration(const ConfigurationText& config) {
    vstab::StabConfig parsed;
    char error[400] = {};
    vstab::ConfigWarnings warnings;
    if (!vstab::parseConfig(config.text.data(), config.text.size(), parsed, error, sizeof error,
                            &warnings)) {
        std::string sentence = error;
        if (!sentence.empty() && sentence.back() == '.')
            sentence.pop_back();
        throw ReplayError(locate(config, sentence) +
                          " (the stabilization library refuses this configuration)");
    }
    std::vector<std::string> out;
    std::istringstream lines(warnings.text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty())
            out.push_back(locate(config, line));
    }
    if (warnings.count > static_cast<int>(out.size()))
        out.push_back(std::to_string(warnings.count - static_cast<int>(out.size())) +
                      " more configuration warnings");
    return out;
}

}  // namespace qlmr::replay
