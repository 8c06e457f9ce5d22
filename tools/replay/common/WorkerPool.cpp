#include "common/WorkerPool.h"

namespace qlmr::replay {

WorkerPool::WorkerPool(int threads) {
    for (int i = 1; i < threads; ++i)
        workers_.emplace_back([this, i] { workerLoop(i); });
}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
    }
    start_.notify_all();
    for (auto& t : workers_)
        t.join();
}

void WorkerPool::band(int part, int& begin, int& end) const {
    const int parts = threads();
    begin = static_cast<int>(static_cast<long long>(count_) * part / parts);
    end = static_cast<int>(static_cast<long long>(count_) * (part + 1) / parts);
}

void WorkerPool::run(Job fn, void* context, int count) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = fn;
        context_ = context;
        count_ = count;
        pending_ = static_cast<int>(workers_.size());
        ++generation_;
    }
    start_.notify_all();
    int begin = 0;
    int end = 0;
    band(0, begin, end);
    if (begin < end)
        fn(context, begin, end);
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
}

void WorkerPool::workerLoop(int part) {
    unsigned seen = 0;
    for (;;) {
        Job fn = nullptr;
        void* context = nullptr;
        int begin = 0;
        int end = 0;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            start_.wait(lock, [&] { return quit_ || generation_ != seen; });
            if (quit_)
                return;
            seen = generation_;
            fn = job_;
            context = context_;
            band(part, begin, end);
        }
        if (begin < end)
            fn(context, begin, end);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --pending_;
        }
        done_.notify_one();
    }
}

}  // namespace qlmr::replay
