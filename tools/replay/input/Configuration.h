// The configuration text a replay hands to the engine: the recording's config.txt (or the
// synthetic recording's text, or a file given with --config), with KEY=VALUE overrides from the
// command line, checked by the stabilization library's own parser before anything runs, so that
// a refused value is reported against the line (or the option) it came from.
#pragma once

#include <string>
#include <vector>

namespace qlmr::replay {

struct ConfigOverride {
    std::string key;
    std::string value;
};

// Parses "KEY=VALUE" (the key non-empty, neither part holding a line break); throws ReplayError.
ConfigOverride parseOverride(const std::string& text);

// The configuration text and where each of its lines came from.
struct ConfigurationText {
    std::string text;
    // One entry per line of `text`: "config.txt:3" or "--set KEY=VALUE".
    std::vector<std::string> lineOrigins;
};

// `text` read from `origin` (a path or a name), with every override applied in order: each line
// whose key (trimmed, outside comments) is the override's key gets the new value; a key that no
// line sets is appended as a line of its own.
ConfigurationText applyOverrides(const std::string& text, const std::string& origin,
                                 const std::vector<ConfigOverride>& overrides);

// Checks the text as the stabilization library will. Returns its warnings (unknown keys,
// clamped values) as sentences; throws ReplayError naming the line's origin on a value the
// library refuses.
std::vector<std::string> checkConfiguration(const ConfigurationText& config);

}  // namespace qlmr::replay
