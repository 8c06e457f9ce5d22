#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "media/ColorConvert.h"
#include "session/ReplaySession.h"

#include <chrono>
#include <thread>

namespace qlmr::replay {

namespace {

class PassThroughSession : public ReplaySession {
  public:
    const char* name() const override { return "pass-through (no engine)"; }

    SessionResult run(FrameSource& frames, const std::vector<GyroSample>& gyro,
                      const SessionConfig& config, SessionObserver& observer) override {
        (void)gyro;
        if (config.surfaces.empty())
            throw ReplayError("a session needs at least one output surface");
        SessionResult result;
        const int w = frames.width();
        const int h = frames.height();
        Nv21Image frame;
        frame.resize(w, h);
        std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
        std::vector<std::vector<uint8_t>> scaled(config.surfaces.size());
        for (size_t s = 0; s < config.surfaces.size(); ++s) {
            const OutputSurfaceSpec& layout = config.surfaces[s];
            if (layout.width <= 0 || layout.height <= 0)
                throw ReplayError("output surface size must be positive");
            scaled[s].resize(static_cast<size_t>(layout.width) * layout.height * 4);
        }
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        for (int i = 0; i < frames.count(); ++i) {
            // Nothing to tear down here but what the stack unwinds.
            throwIfInterrupted();
            frames.read(i, frame);
            if (config.realtime) {
                const auto due =
                    start + std::chrono::nanoseconds(frames.timestampNs(i) - frames.timestampNs(0));
                if (Clock::now() > due + std::chrono::milliseconds(5)) {
                    ++result.framesLate;
                } else {
                    std::this_thread::sleep_until(due);
                }
            }
            observer.onFrameDelivered(i, frames.timestampNs(i), frame);
            ++result.framesDelivered;
            nv21ToRgba(frame, rgba.data(), w);
            for (size_t s = 0; s < config.surfaces.size(); ++s) {
                const OutputSurfaceSpec& layout = config.surfaces[s];
                RgbaView view{layout.width, layout.height, layout.width, scaled[s].data()};
                if (layout.width == w && layout.height == h) {
                    view.data = rgba.data();
                } else {
                    for (int y = 0; y < layout.height; ++y) {
                        const int sy = static_cast<int>((y + 0.5) * h / layout.height);
                        const uint32_t* src = reinterpret_cast<const uint32_t*>(rgba.data()) +
                                              static_cast<size_t>(sy) * w;
                        uint32_t* dst = reinterpret_cast<uint32_t*>(scaled[s].data()) +
                                        static_cast<size_t>(y) * layout.width;
                        for (int x = 0; x < layout.width; ++x)
                            dst[x] = src[static_cast<int>((x + 0.5) * w / layout.width)];
                    }
                }
                observer.onFrameOutput(static_cast<int>(s), frames.timestampNs(i), view);
            }
        }
        result.wallSec = std::chrono::duration<double>(Clock::now() - start).count();
        result.notes.push_back("dry run: frames passed through unchanged, no engine involved");
        return result;
    }
};

}  // namespace

std::unique_ptr<ReplaySession> makePassThroughSession() {
    return std::make_unique<PassThroughSession>();
}

}  // namespace qlmr::replay
