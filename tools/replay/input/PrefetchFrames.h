// Decoding ahead of the camera: a frame source that reads the frames of another source on
// threads of its own, up to `depth` frames ahead of the one last asked for, so that PNG/JPEG
// decoding (or synthetic rendering) overlaps the engine's work instead of running on the camera
// thread between two frames.
//
// With `decoders` > 1 and a source that can be cloned (image files), that many threads decode
// different frames at once, each through its own clone: a 1080p PNG takes longer to decode than
// the engine takes to draw it. Frames are still handed out in order.
//
// The replay's sessions ask for frames 0, 1, 2, ... in order; read(i) of the next frame in
// order waits for its slot and swaps the picture out (no copy, no allocation: the caller's
// buffer goes back into the ring). Any other index is read directly from the inner source
// (under the lock its decoding thread holds) and restarts the read-ahead after it; decodes
// still running for the old position are discarded. A decoding fault is raised by read() of
// the frame that failed. Each source (the inner one, each clone) is used by one thread at a time.
#pragma once

#include "input/Recording.h"

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace qlmr::replay {

class PrefetchFrames : public FrameSource {
  public:
    // `depth` >= 1 pictures are kept (each width x height x 1.5 bytes); `decoders` >= 1 threads
    // read ahead when the source can be cloned, one otherwise.
    PrefetchFrames(FrameSource& inner, int depth, int decoders = 1);
    ~PrefetchFrames() override;
    PrefetchFrames(const PrefetchFrames&) = delete;
    PrefetchFrames& operator=(const PrefetchFrames&) = delete;

    int width() const override { return inner_.width(); }
    int height() const override { return inner_.height(); }
    int count() const override { return inner_.count(); }
    int64_t timestampNs(int i) const override { return inner_.timestampNs(i); }
    int exposureUs(int i) const override { return inner_.exposureUs(i); }
    void read(int index, Nv21Image& out) override;
    std::string describe() const override { return inner_.describe(); }

    // Frames read ahead and handed out from the ring (for tests and the log).
    int prefetchedReads() const;
    // Threads reading ahead.
    int decoders() const { return static_cast<int>(decoders_.size()); }

  private:
    struct Slot {
        int index = -1;     // frame held, -1: empty
        bool busy = false;  // a decoder has taken the picture out and is filling it
        Nv21Image picture;
        std::exception_ptr error;
    };
    struct Decoder {
        FrameSource* source = nullptr;
        std::unique_ptr<FrameSource> clone;  // source, when it is not the inner one
        std::mutex mutex;                    // held while source is in use
        std::thread thread;
    };
    void decodeLoop(Decoder& decoder);

    FrameSource& inner_;
    std::vector<Slot> slots_;
    std::vector<std::unique_ptr<Decoder>> decoders_;  // [0] reads the inner source
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int next_ = 0;        // the frame the reader asks for next
    int produce_ = 0;     // the next frame a decoder takes on
    int generation_ = 0;  // counts restarts: a decode begun before one is discarded
    int prefetched_ = 0;
    bool stop_ = false;
};

}  // namespace qlmr::replay
