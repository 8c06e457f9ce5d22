// What the tool's three commands share on their command lines: exit codes, parsing that never
// throws past main, and validators for the option values that CLI11 does not check itself.
// Header-only: only the programs' main files include CLI11.
#pragma once

#include "app/ReplayApp.h"
#include "common/ReplayError.h"
#include "input/Configuration.h"

#include <CLI/CLI.hpp>

#include <string>

namespace qlmr::replay {

// Exit codes besides these: 1 for an input, configuration or output fault, 128 + the signal for
// an interrupted run (describeFailure in ReplayApp.h).
constexpr int kExitUsage = 2;  // the command line itself is wrong

// Parses the command line. Returns -1 to go on, else the exit code: 0 after --help, kExitUsage
// (with CLI11's sentence on stderr) for any fault in the options or their values.
inline int parseCommandLine(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? 0 : kExitUsage;
    }
    return -1;
}

// "WIDTHxHEIGHT", even sides from 16 to 8192.
inline const CLI::Validator kSizeValidator(
    [](std::string& text) -> std::string {
        int w = 0, h = 0;
        try {
            parseSize(text, w, h);
        } catch (const ReplayError& e) {
            return e.what();
        }
        return "";
    },
    "WIDTHxHEIGHT");

// "KEY=VALUE".
inline const CLI::Validator kOverrideValidator(
    [](std::string& text) -> std::string {
        try {
            parseOverride(text);
        } catch (const ReplayError& e) {
            return e.what();
        }
        return "";
    },
    "KEY=VALUE");

}  // namespace qlmr::replay
