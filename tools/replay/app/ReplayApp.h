// The replay command's work, independent of the command line: build the input (synthetic or a
// recording folder), run it through a session while recording the outputs, then write the
// videos, metrics.json and report.html into the output folder.
#pragma once

#include "input/Configuration.h"
#include "measure/Metrics.h"
#include "session/ReplaySession.h"
#include "synthetic/Synthetic.h"

#include <exception>
#include <iosfwd>
#include <string>
#include <vector>

namespace qlmr::replay {

struct ReplayOptions {
    std::string input;  // recording folder; "" = the synthetic recording
    std::string outDir = "replay-out";
    SyntheticOptions synthetic;
    bool realtime = false;
    bool sideBySide = false;
    bool mp4 = true;   // MP4 when the ffmpeg program is installed
    bool y4m = false;  // Y4M as well as MP4 (Y4M alone without ffmpeg)
    std::string h264Preset =
        "ultrafast";      // x264 speed preset of the MP4 files (kDefaultH264Preset)
    int maxFrames = 0;    // 0 = all
    int outputWidth = 0;  // output surface size; 0 = the input's
    int outputHeight = 0;
    int pairs = 4;  // before/after pairs in the report
    int threads = 2;
    bool progress = false;
    std::string saveRecording;  // also write the input as a recording folder here
    // Measure the gyro axes and time offset on the input frames first and replay with them
    // (the gyro/image agreement is measured on every replay either way).
    bool calibrate = false;
    // Configuration: a file to use instead of the recording's (or the synthetic one's), and
    // KEY=VALUE overrides applied over it in order.
    std::string configFile;
    std::vector<ConfigOverride> configSets;
    // Where the configuration's warnings go as soon as it is read (null: with the progress
    // messages); the command shows them even when it is quiet.
    std::ostream* warnings = nullptr;
    std::string commandLine;
};

struct ReplayOutcome {
    ReplayMetrics metrics;
    std::vector<std::string> files;  // written into outDir
};

// Parses "WIDTHxHEIGHT" (both even, positive); throws ReplayError.
void parseSize(const std::string& text, int& width, int& height);

// Runs everything; progress and a summary go to `log`. Throws ReplayError (bad input, files
// that cannot be written), Interrupted (SIGINT/SIGTERM, see Interrupt.h) or whatever the
// session throws. The outputs are all or nothing: they are written under temporary names and
// renamed into place at the very end; a run that throws leaves the earlier outputs of
// options.outDir (and options.saveRecording) as they were and removes its own.
ReplayOutcome runReplay(const ReplayOptions& options, ReplaySession& session, std::ostream& log);

// What the command says when a run ended with `error` (thrown by runReplay or before it):
// `message` goes after "qlmr_replay: " on stderr, e.g. "interrupted; the outputs in
// replay-out/ are unchanged"; `exitStatus` is 128 + the signal when the run was interrupted
// (130 for SIGINT, 143 for SIGTERM), else 1.
struct ReplayFailure {
    std::string message;
    int exitStatus = 1;
};
ReplayFailure describeFailure(const std::exception& error, const std::string& outDir);

// The session the command uses when --dry-run is not given.
std::unique_ptr<ReplaySession> makeDefaultSession();

}  // namespace qlmr::replay
