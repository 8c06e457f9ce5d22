// Decoding ahead of the camera: PrefetchFrames over a source that marks every picture with its
// index and records who read what.
#include "FinishesWithin.h"
#include "common/ReplayError.h"
#include "input/PrefetchFrames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace qlmr::replay;
using namespace std::chrono_literals;

namespace {

class MarkedFrames : public FrameSource {
  public:
    int width() const override { return 8; }
    int height() const override { return 4; }
    int count() const override { return 12; }
    int64_t timestampNs(int i) const override { return 1000 + i; }
    int exposureUs(int) const override { return 100; }
    void read(int index, Nv21Image& out) override {
        if (index >= consumed.load() + depth)
            ++tooFarAhead;
        if (std::this_thread::get_id() != reader)
            ++offThread;
        if (index == failAt)
            throw ReplayError("frame.png", index, "bad picture");
        out.resize(8, 4);
        for (uint8_t& b : out.data)
            b = static_cast<uint8_t>(index);
    }
    std::string describe() const override { return "marked"; }

    std::thread::id reader = std::this_thread::get_id();

    std::atomic<int> consumed{0};  // where the reader stands once its current read returns
    int depth = 3;
    int failAt = -1;
    std::atomic<int> tooFarAhead{0};
    std::atomic<int> offThread{0};
};

bool holds(const Nv21Image& p, int index) {
    for (uint8_t b : p.data) {
        if (b != index)
            return false;
    }
    return p.width == 8 && p.height == 4;
}

}  // namespace

TEST(PrefetchFrames, InOrderReadsComeFromTheDecodingThreadWithinItsDepth) {
    MarkedFrames source;
    ASSERT_TRUE(finishesWithin(10s, [&] {
        PrefetchFrames prefetch(source, source.depth);
        Nv21Image picture;
        picture.resize(8, 4);
        for (int i = 0; i < source.count(); ++i) {
            // Set before the call: read(i) lets the decoding thread go on to frame i + depth
            // before it returns, so the bound is the position read(i) leaves the reader at.
            source.consumed = i + 1;
            prefetch.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
        EXPECT_EQ(prefetch.prefetchedReads(), source.count());
    }));
    EXPECT_EQ(source.offThread.load(), 12);
    EXPECT_EQ(source.tooFarAhead.load(), 0);
}

// Image files: clones read on threads of their own.
class ClonableFrames : public MarkedFrames {
  public:
    struct Shared {
        std::mutex mutex;
        std::set<std::thread::id> threads;
    };
    explicit ClonableFrames(std::shared_ptr<Shared> s) : shared(std::move(s)) {}
    void read(int index, Nv21Image& out) override {
        std::this_thread::sleep_for(2ms);  // long enough for the decoders to overlap
        MarkedFrames::read(index, out);
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->threads.insert(std::this_thread::get_id());
    }
    std::unique_ptr<FrameSource> clone() const override {
        return std::make_unique<ClonableFrames>(shared);
    }
    std::shared_ptr<Shared> shared;
};

TEST(PrefetchFrames, SeveralDecodersHandFramesOutInOrder) {
    auto shared = std::make_shared<ClonableFrames::Shared>();
    ClonableFrames source(shared);
    ASSERT_TRUE(finishesWithin(10s, [&] {
        PrefetchFrames prefetch(source, 4, 2);
        EXPECT_EQ(prefetch.decoders(), 2);
        Nv21Image picture;
        picture.resize(8, 4);
        for (int i = 0; i < 6; ++i) {
            prefetch.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
        // A jump back while both decoders may be busy: what they were reading is dropped.
        for (int i : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11}) {
            prefetch.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
    }));
    // Both decoders read, and the reader itself for the jump back.
    EXPECT_EQ(shared->threads.size(), 3u);
    // A source that cannot be cloned gets one decoder.
    MarkedFrames single;
    PrefetchFrames one(single, 4, 2);
    EXPECT_EQ(one.decoders(), 1);
}

// Out-of-order reads are served directly and reading ahead goes on after them; a decoding
// fault is raised by its own frame only; destroyed with the ring full, the decoding thread stops.
TEST(PrefetchFrames, OutOfOrderReadsFaultsAndAnEarlyStop) {
    MarkedFrames source;
    source.depth = 100;  // bound not checked here
    source.failAt = 5;
    ASSERT_TRUE(finishesWithin(10s, [&] {
        PrefetchFrames prefetch(source, 2);
        Nv21Image picture;
        picture.resize(8, 4);
        for (int i : {0, 1, 7, 8, 9, 3, 4, 5, 6}) {
            if (i == 5) {
                EXPECT_THROW(prefetch.read(i, picture), ReplayError);
                continue;
            }
            prefetch.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
        PrefetchFrames stopped(source, 2);
        stopped.read(0, picture);
    }));
}
