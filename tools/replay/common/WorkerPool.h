// A fixed set of threads that run one job split into row bands, started once and reused for
// every frame (no thread creation or allocation per job).
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace qlmr::replay {

class WorkerPool {
  public:
    // `threads` >= 1 workers in total, the calling thread counted as one of them.
    explicit WorkerPool(int threads);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    int threads() const { return static_cast<int>(workers_.size()) + 1; }

    // Calls fn(context, begin, end) on disjoint bands covering [0, count), in parallel, and
    // returns when all are done. One run at a time (called from one thread).
    using Job = void (*)(void* context, int begin, int end);
    void run(Job fn, void* context, int count);

  private:
    void band(int part, int& begin, int& end) const;
    void workerLoop(int part);

    std::vector<std::thread> workers_;
    std::mutex mutex_;
    std::condition_variable start_;
    std::condition_variable done_;
    Job job_ = nullptr;
    void* context_ = nullptr;
    int count_ = 0;
    unsigned generation_ = 0;
    int pending_ = 0;
    bool quit_ = false;
};

}  // namespace qlmr::replay
