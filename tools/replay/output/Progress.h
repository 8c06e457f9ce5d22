// A one-line progress bar on stderr for long replays, redrawn a few times a second by its own
// thread while a replay runs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace qlmr::replay {

// Text of the bar: "[#####.....]  120/300 frames   118 out   35.1 fps" (width 30 cells).
std::string progressLine(int done, int total, int out, double fps);

class ProgressBar {
  public:
    // `counts` gives (frames delivered, frames output); polled every 250 ms. Draws nothing
    // when `enabled` is false.
    ProgressBar(bool enabled, int total, std::function<void(int&, int&)> counts);
    ~ProgressBar();  // stops the thread, draws the final line and ends it with a newline
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

  private:
    void draw(bool last);

    bool enabled_;
    int total_;
    std::function<void(int&, int&)> counts_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace qlmr::replay
