// Decoding ahead of the camera: a frame source that reads the frames of another source on a
// thread of its own, up to `depth` frames ahead of the one last asked for, so that PNG/JPEG
// decoding (or synthetic rendering) overlaps the engine's work instead of running on the camera
// thread between two frames.
//
// The replay's sessions ask for frames 0, 1, 2, ... in order; read(i) of the next frame in
// order waits for its slot and swaps the picture out (no copy, no allocation: the caller's
// buffer goes back into the ring). Any other index is read directly from the inner source
// (under the same lock the decoding thread holds) and restarts the read-ahead after it. A
// decoding fault is raised by read() of the frame that failed. The inner source is only ever
// used by one thread at a time.
#pragma once

#include "Recording.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace qlmr::replay {

class PrefetchFrames : public FrameSource {
  public:
    // `depth` >= 1 pictures are kept (each width x height x 1.5 bytes).
    PrefetchFrames(FrameSource& inner, int depth);
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

  private:
    struct Slot {
        int index = -1;  // frame held, -1: empty
        Nv21Image picture;
        std::exception_ptr error;
    };
    void decodeLoop();

    FrameSource& inner_;
    std::vector<Slot> slots_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::mutex innerMutex_;  // held while the inner source is in use
    int next_ = 0;           // the frame the reader asks for next
    int produce_ = 0;        // the frame the decoding thread reads next
    int prefetched_ = 0;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace qlmr::replay
