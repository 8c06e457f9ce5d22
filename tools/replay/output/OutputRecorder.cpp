#include "output/OutputRecorder.h"

#include "common/ReplayError.h"
#include "media/ColorConvert.h"
#include "output/Compose.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace qlmr::replay {

OutputRecorder::OutputRecorder(const RecorderOptions& options)
    : options_(options), start_(std::chrono::steady_clock::now()) {
    const RecorderOptions& o = options_;
    // Luma copies at about 640 pixels wide, fewer when the budget says so.
    factor_ = std::max(1, (o.inputWidth + 639) / 640);
    auto bytes = [&](int f) {
        return static_cast<size_t>(o.expectedFrames) * 2 * (o.inputWidth / f) * (o.inputHeight / f);
    };
    while (bytes(factor_) > o.lumaBudget && o.inputWidth / (factor_ + 1) >= 64)
        ++factor_;
    inputs_.resize(static_cast<size_t>(o.expectedFrames));
    outputs_.resize(static_cast<size_t>(o.expectedFrames));
    for (OutputRecord& r : outputs_)
        r.luma.resize(o.outputWidth / factor_, o.outputHeight / factor_);
    for (InputRecord& r : inputs_)
        r.luma.resize(o.inputWidth / factor_, o.inputHeight / factor_);
    perSurface_.assign(1, 0);

    if (!o.videoPath.empty())
        video_.open(o.videoPath, o.outputWidth, o.outputHeight, o.fpsNum, o.fpsDen);
    if (!o.videoMp4Path.empty())
        videoMp4_.open(o.ffmpeg, o.videoMp4Path, o.outputWidth, o.outputHeight, o.fpsNum, o.fpsDen,
                       o.h264Preset);
    outFrame_.resize(o.outputWidth, o.outputHeight);
    if (sideBySide()) {
        int w = 0, h = 0;
        sideBySideSize(o.inputWidth, o.inputHeight, o.outputWidth, o.outputHeight, w, h);
        composed_.resize(w, h);
        if (!o.sideBySidePath.empty())
            sideBySide_.open(o.sideBySidePath, w, h, o.fpsNum, o.fpsDen);
        if (!o.sideBySideMp4Path.empty())
            sideBySideMp4_.open(o.ffmpeg, o.sideBySideMp4Path, w, h, o.fpsNum, o.fpsDen,
                                o.h264Preset);
    }
    for (int k = 0; k < o.pairCount && o.expectedFrames > 0; ++k) {
        pairIndices_.push_back(static_cast<int>(static_cast<long long>(o.expectedFrames) * (k + 1) /
                                                (o.pairCount + 1)));
    }
    // Side by side: enough buffers for the frames in flight inside an engine (its queue) and
    // then some. Pairs only: one per pair frame (plus one), as only those are kept.
    if (sideBySide() || !pairIndices_.empty()) {
        free_.resize(sideBySide() ? 48 : pairIndices_.size() + 1);
        for (I420Image& f : free_)
            f.resize(o.inputWidth, o.inputHeight);
    }
}

double OutputRecorder::now() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

bool OutputRecorder::wantsPair(int index) const {
    return std::find(pairIndices_.begin(), pairIndices_.end(), index) != pairIndices_.end();
}

void OutputRecorder::onFrameDelivered(int index, int64_t timestampNs, const Nv21Image& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index < 0 || index >= static_cast<int>(inputs_.size())) {
        throw ReplayError("frame index " + std::to_string(index) + " outside the recording");
    }
    InputRecord& r = inputs_[static_cast<size_t>(index)];
    r.timestampNs = timestampNs;
    r.deliveredSec = now();
    downsampleLuma(frame.y(), frame.width, frame.height, frame.width, factor_, r.luma);
    const bool keep = sideBySide() || wantsPair(index);
    if (keep) {
        if (free_.empty()) {
            // More frames in flight than expected: recycle the oldest (its output never came).
            auto oldest = pending_.begin();
            free_.push_back(std::move(oldest->second.frame));
            pending_.erase(oldest);
        }
        Pending p{index, std::move(free_.back())};
        free_.pop_back();
        nv21ToI420(frame, p.frame);
        pending_.emplace(timestampNs, std::move(p));
    }
    deliveredCount_.fetch_add(1);
}

void OutputRecorder::onFrameOutput(int surface, int64_t timestampNs, const RgbaView& image) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (surface >= static_cast<int>(perSurface_.size()))
        perSurface_.resize(static_cast<size_t>(surface) + 1, 0);
    ++perSurface_[static_cast<size_t>(surface)];
    if (surface != 0)
        return;
    if (image.width != options_.outputWidth || image.height != options_.outputHeight) {
        ++sizeMismatch_;
        return;
    }
    if (timestampNs <= lastOutputTs_)
        ++outOfOrder_;
    lastOutputTs_ = timestampNs;

    rgbaToI420(image, outFrame_);
    if (video_.isOpen())
        video_.write(outFrame_);
    if (videoMp4_.isOpen())
        videoMp4_.write(outFrame_);

    if (outputsUsed_ == outputs_.size()) {
        outputs_.emplace_back();  // more outputs than frames expected: grow (rare)
        outputs_.back().luma.resize(options_.outputWidth / factor_,
                                    options_.outputHeight / factor_);
    }
    OutputRecord& rec = outputs_[outputsUsed_++];
    rec.timestampNs = timestampNs;
    rec.arrivedSec = now();
    // Delivered inputs are stamped in increasing order: binary search among them.
    const auto end = inputs_.begin() + deliveredCount_.load();
    auto it = std::lower_bound(inputs_.begin(), end, timestampNs,
                               [](const InputRecord& r, int64_t t) { return r.timestampNs < t; });
    rec.inputIndex = -1;
    if (it != end && it->timestampNs == timestampNs) {
        rec.inputIndex = static_cast<int>(it - inputs_.begin());
    } else {
        ++unmatched_;
    }
    downsampleLuma(outFrame_.y(), outFrame_.width, outFrame_.height, outFrame_.width, factor_,
                   rec.luma);

    // Frames delivered before this one that never came out were dropped: recycle them.
    while (!pending_.empty() && pending_.begin()->first < timestampNs) {
        free_.push_back(std::move(pending_.begin()->second.frame));
        pending_.erase(pending_.begin());
    }
    auto p = pending_.find(timestampNs);
    if (p != pending_.end()) {
        if (sideBySide()) {
            composeSideBySide(p->second.frame, outFrame_, composed_);
            if (sideBySide_.isOpen())
                sideBySide_.write(composed_);
            if (sideBySideMp4_.isOpen())
                sideBySideMp4_.write(composed_);
        }
        if (wantsPair(p->second.index)) {
            FramePair pair;
            pair.inputIndex = p->second.index;
            pair.timestampNs = timestampNs;
            rgbScratch_.resize(p->second.frame.width, p->second.frame.height);
            i420ToRgb(p->second.frame, rgbScratch_);
            pair.before = thumbnail(rgbScratch_, options_.thumbnailWidth);
            rgbScratch_.resize(outFrame_.width, outFrame_.height);
            i420ToRgb(outFrame_, rgbScratch_);
            pair.after = thumbnail(rgbScratch_, options_.thumbnailWidth);
            pairs_.push_back(std::move(pair));
        }
        free_.push_back(std::move(p->second.frame));
        pending_.erase(p);
    }
    outputCount_.fetch_add(1);
}

void OutputRecorder::finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    outputs_.resize(outputsUsed_);
    video_.close();
    sideBySide_.close();
}

void OutputRecorder::finishEncoding() {
    videoMp4_.finish();
    sideBySideMp4_.finish();
}

namespace {

// "dir/.name<suffix>" for "dir/name" (or "dir/name/").
std::string hiddenBeside(std::string path, const char* suffix) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const size_t slash = path.rfind('/');
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(0, start) + "." + path.substr(start) + suffix;
}

bool isFolder(const std::string& path) {
    std::error_code ec;
    return std::filesystem::is_directory(path, ec);
}

void removeAll(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

}  // namespace

StagedOutputs::~StagedOutputs() {
    if (committed_)
        return;
    for (const auto& [temporary, final] : staged_) {
        if (!temporary.empty())
            removeAll(temporary);
    }
}

std::string StagedOutputs::stage(const std::string& finalPath) {
    const std::string temporary = hiddenBeside(finalPath, ".part");
    removeAll(temporary);
    std::string target = finalPath;
    while (target.size() > 1 && target.back() == '/')
        target.pop_back();
    staged_.emplace_back(temporary, target);
    return temporary;
}

void StagedOutputs::retire(const std::string& finalPath) {
    removeAll(hiddenBeside(finalPath, ".part"));
    retired_.push_back(finalPath);
}

void StagedOutputs::commit() {
    for (auto& [temporary, final] : staged_) {
        // rename(2) cannot replace a folder that holds files: the earlier one goes aside first.
        std::string aside;
        if (isFolder(temporary) && isFolder(final)) {
            aside = hiddenBeside(final, ".old");
            removeAll(aside);
            if (::rename(final.c_str(), aside.c_str()) != 0)
                throw ReplayError(final, 0, std::string("cannot replace: ") + std::strerror(errno));
        }
        if (::rename(temporary.c_str(), final.c_str()) != 0) {
            const int e = errno;
            if (!aside.empty())
                ::rename(aside.c_str(), final.c_str());
            throw ReplayError(final, 0,
                              std::string("cannot rename into place: ") + std::strerror(e));
        }
        temporary.clear();  // nothing left to remove for this one
        if (!aside.empty())
            removeAll(aside);
    }
    committed_ = true;
    for (const std::string& path : retired_)
        ::unlink(path.c_str());
}

}  // namespace qlmr::replay
