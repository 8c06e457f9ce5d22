#include "output/Progress.h"

#include <chrono>
#include <cstdio>

namespace qlmr::replay {

std::string progressLine(int done, int total, int out, double fps) {
    const int cells = 30;
    const int filled = total > 0 ? std::min(cells, done * cells / total) : 0;
    std::string bar = "[" + std::string(static_cast<size_t>(filled), '#') +
                      std::string(static_cast<size_t>(cells - filled), '.') + "]";
    char buf[128];
    std::snprintf(buf, sizeof buf, " %5d/%d frames %5d out %6.1f fps", done, total, out, fps);
    return bar + buf;
}

ProgressBar::ProgressBar(bool enabled, int total, std::function<void(int&, int&)> counts)
    : enabled_(enabled),
      total_(total),
      counts_(std::move(counts)),
      start_(std::chrono::steady_clock::now()) {
    if (!enabled_)
        return;
    thread_ = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return stop_; })) {
            draw(false);
        }
    });
}

ProgressBar::~ProgressBar() {
    if (!enabled_)
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
    draw(true);
}

void ProgressBar::draw(bool last) {
    int done = 0, out = 0;
    counts_(done, out);
    const double sec =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const std::string line = progressLine(done, total_, out, sec > 0 ? out / sec : 0.0);
    std::fprintf(stderr, "\r%s%s", line.c_str(), last ? "\n" : "");
    std::fflush(stderr);
}

}  // namespace qlmr::replay
