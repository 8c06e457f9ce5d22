// Frame sources of the host camera: synthetic pattern, recorded list, tool callbacks.
#include <cstring>
#include <stdexcept>
#include <string>

#include "host/HostCamera.h"
#include "host_log.h"

namespace host {
namespace {

// The drift repeats after 4096 frames so that positions stay small.
constexpr uint64_t kDriftPeriod = 4096;

inline int64_t driftX(uint64_t index) {
    return 2 * static_cast<int64_t>(index % kDriftPeriod);
}
inline int64_t driftY(uint64_t index) {
    return static_cast<int64_t>(index % kDriftPeriod);
}

inline uint8_t luma(int64_t sx, int64_t sy) {
    int checker = static_cast<int>(((sx >> 5) + (sy >> 5)) & 1);
    return static_cast<uint8_t>((checker != 0 ? 176 : 80) + ((sx + sy) & 15));
}

}  // namespace

FrameLayout FrameLayout::forSize(int width, int height) {
    if (width <= 0 || height <= 0) {
        throw std::invalid_argument("frame size " + std::to_string(width) + "x" +
                                    std::to_string(height) + " is not positive");
    }
    FrameLayout layout;
    layout.width = width;
    layout.height = height;
    layout.pitch = (width + 127) / 128 * 128;
    size_t alignedHeight = static_cast<size_t>((height + 31) / 32 * 32);
    layout.chromaOffset = static_cast<size_t>(layout.pitch) * alignedHeight;
    layout.bytes = layout.chromaOffset + static_cast<size_t>(layout.pitch) * (alignedHeight / 2);
    return layout;
}

void copyPackedNv21(const uint8_t* nv21, const FrameImage& image) {
    const size_t w = static_cast<size_t>(image.width);
    for (int y = 0; y < image.height; ++y) {
        std::memcpy(image.luma + static_cast<size_t>(y) * image.pitch, nv21 + y * w, w);
    }
    const uint8_t* chroma = nv21 + w * static_cast<size_t>(image.height);
    for (int y = 0; y < image.height / 2; ++y) {
        std::memcpy(image.chroma + static_cast<size_t>(y) * image.pitch, chroma + y * w, w);
    }
}

// ---- SyntheticFrameSource ----

SyntheticFrameSource::SyntheticFrameSource(SyntheticFrameOptions options) : mOptions(options) {
    if (options.framesPerSecond < 0) {
        throw std::invalid_argument("synthetic frame rate must not be negative");
    }
}

void SyntheticFrameSource::onRecordingStart(const RecordingFormat& format) {
    int fps = mOptions.framesPerSecond > 0 ? mOptions.framesPerSecond : format.framesPerSecond;
    if (fps <= 0)
        fps = 30;
    mPeriodNs = 1000000000LL / fps;
    mStartNs = format.startMonotonicNs;
    mFirstIndex = format.firstIndex;
}

bool SyntheticFrameSource::nextFrame(uint64_t index, FrameInfo& info) {
    if (mOptions.frameLimit != 0 && mProduced >= mOptions.frameLimit)
        return false;
    ++mProduced;
    info.timestampNs = mStartNs + static_cast<int64_t>(index - mFirstIndex) * mPeriodNs;
    info.exposureUs = mOptions.exposureUs;
    info.zoomX100 = mOptions.zoomX100;
    return true;
}

uint8_t SyntheticFrameSource::lumaAt(uint64_t index, int x, int y) {
    return luma(x + driftX(index), y + driftY(index));
}

uint8_t SyntheticFrameSource::chromaVAt(uint64_t index, int cx, int cy) {
    (void)cy;
    return static_cast<uint8_t>(104 + 16 * (((cx + driftX(index) / 2) >> 5) & 3));
}

uint8_t SyntheticFrameSource::chromaUAt(uint64_t index, int cx, int cy) {
    (void)cx;
    return static_cast<uint8_t>(152 - 16 * (((2 * cy + driftY(index)) >> 6) & 3));
}

bool SyntheticFrameSource::render(uint64_t index, const FrameInfo& info, const FrameImage& image) {
    (void)info;
    const int64_t dx = driftX(index);
    const int64_t dy = driftY(index);
    for (int y = 0; y < image.height; ++y) {
        uint8_t* row = image.luma + static_cast<size_t>(y) * image.pitch;
        for (int x = 0; x < image.width; ++x)
            row[x] = luma(x + dx, y + dy);
    }
    for (int cy = 0; cy < image.height / 2; ++cy) {
        uint8_t* row = image.chroma + static_cast<size_t>(cy) * image.pitch;
        const uint8_t u = chromaUAt(index, 0, cy);
        for (int cx = 0; cx < image.width / 2; ++cx) {
            row[2 * cx] = chromaVAt(index, cx, 0);
            row[2 * cx + 1] = u;
        }
    }
    return true;
}

// ---- VectorFrameSource ----

VectorFrameSource::VectorFrameSource(int width, int height, std::vector<RecordedFrame> frames,
                                     std::shared_ptr<ReplayClock> clock)
    : mWidth(width), mHeight(height), mFrames(std::move(frames)), mClock(std::move(clock)) {
    if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) {
        throw std::invalid_argument("recorded frame size " + std::to_string(width) + "x" +
                                    std::to_string(height) + " must be positive and even");
    }
    const size_t expected = static_cast<size_t>(width) * height * 3 / 2;
    for (size_t i = 0; i < mFrames.size(); ++i) {
        if (!mFrames[i].nv21.empty() && mFrames[i].nv21.size() != expected) {
            throw std::invalid_argument("recorded frame " + std::to_string(i) + " has " +
                                        std::to_string(mFrames[i].nv21.size()) +
                                        " bytes, NV21 of " + std::to_string(width) + "x" +
                                        std::to_string(height) + " needs " +
                                        std::to_string(expected));
        }
    }
}

bool VectorFrameSource::nextFrame(uint64_t index, FrameInfo& info) {
    (void)index;
    if (mNext >= mFrames.size())
        return false;
    mCurrent = mNext++;
    info = mFrames[mCurrent].info;
    if (mClock)
        info.timestampNs = mClock->toHost(info.timestampNs, CLOCK_MONOTONIC);
    return true;
}

bool VectorFrameSource::render(uint64_t index, const FrameInfo& info, const FrameImage& image) {
    (void)index;
    (void)info;
    if (image.width != mWidth || image.height != mHeight) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "recorded frames are %dx%d but the camera records %dx%d",
                        mWidth, mHeight, image.width, image.height);
        return false;
    }
    const RecordedFrame& frame = mFrames[mCurrent];
    if (frame.nv21.empty()) {
        for (int y = 0; y < image.height; ++y) {
            std::memset(image.luma + static_cast<size_t>(y) * image.pitch, 128, image.width);
        }
        for (int y = 0; y < image.height / 2; ++y) {
            std::memset(image.chroma + static_cast<size_t>(y) * image.pitch, 128, image.width);
        }
        return true;
    }
    copyPackedNv21(frame.nv21.data(), image);
    return true;
}

// ---- CallbackFrameSource ----

CallbackFrameSource::CallbackFrameSource(NextFn next, RenderFn render, StartFn start)
    : mNext(std::move(next)), mRender(std::move(render)), mStart(std::move(start)) {
    if (!mNext || !mRender) {
        throw std::invalid_argument(
            "a callback frame source needs both a next and a render "
            "function");
    }
}

void CallbackFrameSource::onRecordingStart(const RecordingFormat& format) {
    if (mStart)
        mStart(format);
}

bool CallbackFrameSource::nextFrame(uint64_t index, FrameInfo& info) {
    return mNext(index, info);
}

bool CallbackFrameSource::render(uint64_t index, const FrameInfo& info, const FrameImage& image) {
    return mRender(index, info, image);
}

}  // namespace host
