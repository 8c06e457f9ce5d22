#include "PrefetchFrames.h"

#include <utility>

namespace qlmr::replay {

PrefetchFrames::PrefetchFrames(FrameSource& inner, int depth)
    : inner_(inner), slots_(static_cast<size_t>(depth < 1 ? 1 : depth)) {
    for (Slot& s : slots_)
        s.picture.resize(inner.width(), inner.height());
    thread_ = std::thread(&PrefetchFrames::decodeLoop, this);
}

PrefetchFrames::~PrefetchFrames() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

int PrefetchFrames::prefetchedReads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return prefetched_;
}

// Decoding thread: reads frame produce_ into its slot (produce_ % depth) once that slot is free
// (the frame depth places earlier was taken) and the frame is within depth of the reader.
void PrefetchFrames::decodeLoop() {
    const int depth = static_cast<int>(slots_.size());
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] {
            return stop_ || (produce_ < inner_.count() && produce_ < next_ + depth &&
                             slots_[static_cast<size_t>(produce_ % depth)].index < next_);
        });
        if (stop_)
            return;
        const int index = produce_;
        Slot& slot = slots_[static_cast<size_t>(index % depth)];
        slot.index = -1;
        Nv21Image picture = std::move(slot.picture);
        std::exception_ptr error;
        lock.unlock();
        {
            std::lock_guard<std::mutex> inner(innerMutex_);
            try {
                picture.resize(inner_.width(), inner_.height());
                inner_.read(index, picture);
            } catch (...) {
                error = std::current_exception();
            }
        }
        lock.lock();
        slot.picture = std::move(picture);
        if (produce_ == index) {  // not restarted meanwhile by an out-of-order read
            slot.index = index;
            slot.error = error;
            ++produce_;
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
    next_ = index + 1;
    produce_ = index + 1;
    lock.unlock();
    {
        std::lock_guard<std::mutex> inner(innerMutex_);
        inner_.read(index, out);
    }
    changed_.notify_all();
}

}  // namespace qlmr::replay
