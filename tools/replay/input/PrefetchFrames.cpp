#include "input/PrefetchFrames.h"

#include <utility>

namespace qlmr::replay {

PrefetchFrames::PrefetchFrames(FrameSource& inner, int depth, int decoders)
    : inner_(inner), slots_(static_cast<size_t>(depth < 1 ? 1 : depth)) {
    for (Slot& s : slots_)
        s.picture.resize(inner.width(), inner.height());
    auto first = std::make_unique<Decoder>();
    first->source = &inner;
    decoders_.push_back(std::move(first));
    for (int k = 1; k < decoders; ++k) {
        auto d = std::make_unique<Decoder>();
        d->clone = inner.clone();
        if (!d->clone)
            break;
        d->source = d->clone.get();
        decoders_.push_back(std::move(d));
    }
    for (auto& d : decoders_)
        d->thread = std::thread(&PrefetchFrames::decodeLoop, this, std::ref(*d));
}

PrefetchFrames::~PrefetchFrames() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    for (auto& d : decoders_)
        d->thread.join();
}

int PrefetchFrames::prefetchedReads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return prefetched_;
}

// Decoding threads: each takes on frame produce_ once its slot (produce_ % depth) is free (the
// frame depth places earlier was taken, and no decoder is filling it) and the frame is within
// depth of the reader, and reads it through its own source.
void PrefetchFrames::decodeLoop(Decoder& decoder) {
    const int depth = static_cast<int>(slots_.size());
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] {
            if (stop_)
                return true;
            if (produce_ >= inner_.count() || produce_ >= next_ + depth)
                return false;
            const Slot& s = slots_[static_cast<size_t>(produce_ % depth)];
            return !s.busy && s.index < next_;
        });
        if (stop_)
            return;
        const int index = produce_++;
        const int generation = generation_;
        Slot& slot = slots_[static_cast<size_t>(index % depth)];
        slot.index = -1;
        slot.busy = true;
        Nv21Image picture = std::move(slot.picture);
        std::exception_ptr error;
        lock.unlock();
        {
            std::lock_guard<std::mutex> source(decoder.mutex);
            try {
                picture.resize(inner_.width(), inner_.height());
                decoder.source->read(index, picture);
            } catch (...) {
                error = std::current_exception();
            }
        }
        lock.lock();
        slot.picture = std::move(picture);
        slot.busy = false;
        if (generation == generation_) {  // not restarted meanwhile by an out-of-order read
            slot.index = index;
            slot.error = error;
        }
        changed_.notify_all();
    }
}

void PrefetchFrames::read(int index, Nv21Image& out) {
    const int depth = static_cast<int>(slots_.size());
    std::unique_lock<std::mutex> lock(mutex_);
    if (index == next_ && index >= 0 && index < inner_.count()) {
        Slot& slot = slots_[static_cast<size_t>(index % depth)];
        changed_.wait(lock, [&] { return slot.index == index; });
        std::exception_ptr error = std::move(slot.error);
        slot.error = nullptr;
        if (!error) {
            if (out.width == slot.picture.width && out.height == slot.picture.height) {
                out.data.swap(slot.picture.data);  // the caller's buffer goes into the ring
            } else {
                out = slot.picture;
            }
            ++prefetched_;
        }
        slot.index = -1;
        next_ = index + 1;
        changed_.notify_all();
        if (error)
            std::rethrow_exception(error);
        return;
    }
    // Out of order: drop what was read ahead and read this one directly; reading ahead goes on
    // after it.
    for (Slot& s : slots_) {
        s.index = -1;
        s.error = nullptr;
    }
    ++generation_;
    next_ = index + 1;
    produce_ = index + 1;
    lock.unlock();
    {
        std::lock_guard<std::mutex> source(decoders_.front()->mutex);
        inner_.read(index, out);
    }
    changed_.notify_all();
}

}  // namespace qlmr::replay
