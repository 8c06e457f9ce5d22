// Records a replay as it happens (the SessionObserver of the tool): writes the stabilized video
// (Y4M and/or MP4, encoded while the replay runs) and optionally the side-by-side video, keeps a
// reduced luma picture of every input and output frame for the metrics, the arrival times for the
// timing plots, and a few full before/after pairs for the report. Buffers are allocated up front
// for the expected number of frames; the per-frame path only converts and copies.
#pragma once

#include "media/Ffmpeg.h"
#include "media/Image.h"
#include "media/Y4m.h"
#include "session/ReplaySession.h"

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qlmr::replay {

struct RecorderOptions {
    // Each video is written as Y4M and/or encoded to MP4 while the replay runs; "" = not that one.
    std::string videoPath;                        // Y4M of surface 0
    std::string sideBySidePath;                   // Y4M, input | output
    std::string ffmpeg;                           // the ffmpeg program, for the MP4 files
    std::string videoMp4Path;                     // MP4 of surface 0
    std::string sideBySideMp4Path;                // MP4, input | output
    std::string h264Preset = kDefaultH264Preset;  // x264 speed of the MP4 files
    int expectedFrames = 0;
    int inputWidth = 0;
    int inputHeight = 0;
    int outputWidth = 0;
    int outputHeight = 0;
    int fpsNum = 30;
    int fpsDen = 1;
    int pairCount = 4;  // before/after pairs kept for the report
    int thumbnailWidth = 640;
    // Memory budget for the metrics' luma copies (both streams together), bytes.
    size_t lumaBudget = size_t(600) << 20;
};

struct InputRecord {
    int64_t timestampNs = 0;
    double deliveredSec = 0;  // since the recorder started
    GrayImage luma;
};

struct OutputRecord {
    int64_t timestampNs = 0;
    double arrivedSec = 0;
    int inputIndex = -1;  // the delivered frame with the same timestamp, -1 if none
    GrayImage luma;
};

struct FramePair {
    int inputIndex = 0;
    int64_t timestampNs = 0;
    RgbImage before;  // thumbnails
    RgbImage after;
};

class OutputRecorder : public SessionObserver {
  public:
    explicit OutputRecorder(const RecorderOptions& options);

    void onFrameDelivered(int index, int64_t timestampNs, const Nv21Image& frame) override;
    void onFrameOutput(int surface, int64_t timestampNs, const RgbaView& image) override;

    // Closes the Y4M files (throws ReplayError on a write error) and trims outputs() to the
    // frames received. The MP4 encoders may still be working through their last frames.
    void finish();
    // Waits for the MP4 encoders to write their files; throws ReplayError with ffmpeg's
    // message when one failed. Called after finish(), once the caller has nothing else to
    // overlap with the encoding.
    void finishEncoding();

    // Read after the session has returned.
    int lumaFactor() const { return factor_; }
    const std::vector<InputRecord>& inputs() const { return inputs_; }
    const std::vector<OutputRecord>& outputs() const { return outputs_; }
    const std::vector<FramePair>& pairs() const { return pairs_; }
    const std::vector<int>& framesPerSurface() const { return perSurface_; }
    int unmatchedOutputs() const { return unmatched_; }
    int outOfOrderOutputs() const { return outOfOrder_; }
    int sizeMismatches() const { return sizeMismatch_; }

    // For the progress display (any thread).
    int delivered() const { return deliveredCount_.load(); }
    int output() const { return outputCount_.load(); }

  private:
    struct Pending {
        int index;
        I420Image frame;
    };
    double now() const;
    bool wantsPair(int index) const;
    bool sideBySide() const {
        return !options_.sideBySidePath.empty() || !options_.sideBySideMp4Path.empty();
    }

    RecorderOptions options_;
    int factor_ = 1;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    Y4mWriter video_;
    Y4mWriter sideBySide_;
    VideoEncoder videoMp4_;
    VideoEncoder sideBySideMp4_;
    std::vector<InputRecord> inputs_;
    std::vector<OutputRecord> outputs_;  // preallocated; the first outputsUsed_ are filled
    size_t outputsUsed_ = 0;
    std::vector<FramePair> pairs_;
    std::vector<int> pairIndices_;
    std::vector<int> perSurface_;
    // Delivered frames waiting for their output (side-by-side video and pairs), oldest first,
    // and the free buffers they are taken from.
    std::map<int64_t, Pending> pending_;
    std::vector<I420Image> free_;
    I420Image outFrame_;
    I420Image composed_;
    RgbImage rgbScratch_;
    int unmatched_ = 0;
    int outOfOrder_ = 0;
    int sizeMismatch_ = 0;
    int64_t lastOutputTs_ = 0;
    std::atomic<int> deliveredCount_{0};
    std::atomic<int> outputCount_{0};
};

// The output files (or folders) of one run, written under hidden temporary names beside their
// final ones (".stabilized.mp4.part": the same folder, so that rename(2) is atomic) and renamed
// into place together by commit() once everything has been written. Without commit() (an
// error, an interruption) the destructor removes the temporaries: the previous outputs stay as
// they were. Used by the replay's main thread only.
class StagedOutputs {
  public:
    StagedOutputs() = default;
    ~StagedOutputs();
    StagedOutputs(const StagedOutputs&) = delete;
    StagedOutputs& operator=(const StagedOutputs&) = delete;

    // The temporary path to write `finalPath` to; an old temporary of that name (from a run
    // killed outright) is removed first.
    std::string stage(const std::string& finalPath);
    // An earlier run's output that this run does not write: removed on commit(), so that the
    // folder never mixes two runs' outputs.
    void retire(const std::string& finalPath);
    // Renames every staged path into place, in the order staged (a folder replaces the earlier
    // folder of that name), then removes the retired ones. Throws ReplayError when a rename
    // fails; the temporaries not yet renamed are then removed.
    void commit();

  private:
    std::vector<std::pair<std::string, std::string>> staged_;  // temporary, final
    std::vector<std::string> retired_;
    bool committed_ = false;
};

}  // namespace qlmr::replay
