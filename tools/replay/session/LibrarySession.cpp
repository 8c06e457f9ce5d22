// A session without the engine but with the real stabilization library: frames and gyro go
// straight into the library (as the engine's intake and sensor thread would hand them over),
// and each frame is drawn through the library's warp grid by a small CPU rasterizer that
// follows the engine's drawing convention. It measures the library's stabilization on the
// replay tool's recordings before the engine is wired in, and is a reference for the engine's
// GL output.
#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "media/ColorConvert.h"
#include "session/ReplaySession.h"

#include "zef_gyro_vstab.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

namespace qlmr::replay {

namespace {

// Owns one library handle.
class VStabHandle {
  public:
    explicit VStabHandle(const std::string& config) {
        char message[512] = {0};
        unsigned int size = sizeof message;
        const int rc = vStabCreateUseCharCnfgBuff(&handle_, config.c_str(),
                                                  static_cast<int>(config.size()), message, &size);
        if (rc != 0) {
            throw ReplayError("the stabilization library refused the configuration text (status " +
                              std::to_string(rc) +
                              "): " + std::string(message, std::min<size_t>(size, sizeof message)));
        }
        config_ = vStabConfig(handle_);
        if (config_ == nullptr)
            throw ReplayError("the stabilization library gave no configuration record");
    }
    ~VStabHandle() {
        if (handle_ != nullptr)
            vStabDestroy(handle_);
    }
    VStabHandle(const VStabHandle&) = delete;
    VStabHandle& operator=(const VStabHandle&) = delete;
    void* get() const { return handle_; }
    const VStabConfigRecord& config() const { return *config_; }

  private:
    void* handle_ = nullptr;
    VStabConfigRecord* config_ = nullptr;
};

// Draws `frame` through a grid of columns x rows vertices (normalised output positions, x to
// the right and y growing with the row, -1..1 spanning the output) whose vertex (i, j) carries
// texture coordinate (i / (columns - 1), j / (rows - 1)). Pixels no triangle covers stay black.
void drawGrid(const Nv21Image& frame, const float* grid, int columns, int rows, uint8_t* rgba,
              int w, int h) {
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
        rgba[4 * i] = rgba[4 * i + 1] = rgba[4 * i + 2] = 0;
        rgba[4 * i + 3] = 255;
    }
    auto px = [&](int i, int j) { return (grid[3 * (j * columns + i)] + 1.0f) * 0.5f * w; };
    auto py = [&](int i, int j) { return (grid[3 * (j * columns + i) + 1] + 1.0f) * 0.5f * h; };
    const int fw = frame.width, fh = frame.height;
    auto shade = [&](int x, int y, float u, float v) {
        // Bilinear luma, nearest chroma of the 2x2 block.
        float sx = std::clamp(u * fw - 0.5f, 0.0f, fw - 1.001f);
        float sy = std::clamp(v * fh - 0.5f, 0.0f, fh - 1.001f);
        const int ix = static_cast<int>(sx), iy = static_cast<int>(sy);
        const float fx = sx - ix, fy = sy - iy;
        const uint8_t* p = frame.y() + static_cast<size_t>(iy) * fw + ix;
        const float yv =
            (p[0] * (1 - fx) + p[1] * fx) * (1 - fy) + (p[fw] * (1 - fx) + p[fw + 1] * fx) * fy;
        const uint8_t* c = frame.vu() + static_cast<size_t>(iy / 2) * fw + (ix & ~1);
        yuvToRgb(static_cast<int>(yv + 0.5f), c[1], c[0],
                 rgba + 4 * (static_cast<size_t>(y) * w + x));
    };
    auto triangle = [&](float x0, float y0, float u0, float v0, float x1, float y1, float u1,
                        float v1, float x2, float y2, float u2, float v2) {
        const float area = (x1 - x0) * (y2 - y0) - (x2 - x0) * (y1 - y0);
        if (std::fabs(area) < 1e-9f)
            return;
        const int minX = std::max(0, static_cast<int>(std::floor(std::min({x0, x1, x2}))));
        const int maxX = std::min(w - 1, static_cast<int>(std::ceil(std::max({x0, x1, x2}))));
        const int minY = std::max(0, static_cast<int>(std::floor(std::min({y0, y1, y2}))));
        const int maxY = std::min(h - 1, static_cast<int>(std::ceil(std::max({y0, y1, y2}))));
        for (int y = minY; y <= maxY; ++y) {
            const float cy = y + 0.5f;
            for (int x = minX; x <= maxX; ++x) {
                const float cx = x + 0.5f;
                // Barycentric weights; a pixel centre on a shared edge belongs to both
                // triangles and is simply drawn twice with the same value.
                const float b1 = ((cx - x0) * (y2 - y0) - (x2 - x0) * (cy - y0)) / area;
                const float b2 = ((x1 - x0) * (cy - y0) - (cx - x0) * (y1 - y0)) / area;
                const float b0 = 1 - b1 - b2;
                if (b0 < -1e-5f || b1 < -1e-5f || b2 < -1e-5f)
                    continue;
                shade(x, y, b0 * u0 + b1 * u1 + b2 * u2, b0 * v0 + b1 * v1 + b2 * v2);
            }
        }
    };
    for (int j = 0; j + 1 < rows; ++j) {
        for (int i = 0; i + 1 < columns; ++i) {
            const float u0 = static_cast<float>(i) / (columns - 1),
                        u1 = static_cast<float>(i + 1) / (columns - 1);
            const float v0 = static_cast<float>(j) / (rows - 1),
                        v1 = static_cast<float>(j + 1) / (rows - 1);
            triangle(px(i, j), py(i, j), u0, v0, px(i + 1, j), py(i + 1, j), u1, v0, px(i, j + 1),
                     py(i, j + 1), u0, v1);
            triangle(px(i + 1, j), py(i + 1, j), u1, v0, px(i + 1, j + 1), py(i + 1, j + 1), u1, v1,
                     px(i, j + 1), py(i, j + 1), u0, v1);
        }
    }
}

bool inMask(int status, unsigned mask) {
    return status >= 0 && status < 32 && ((mask >> status) & 1u);
}

class LibrarySession : public ReplaySession {
  public:
    const char* name() const override {
        return "stabilization library with a CPU renderer (no engine)";
    }

    SessionResult run(FrameSource& frames, const std::vector<GyroSample>& gyro,
                      const SessionConfig& config, SessionObserver& observer) override {
        if (config.surfaces.empty())
            throw ReplayError("a session needs at least one output surface");
        VStabHandle lib(config.configText);
        const int columns = static_cast<int>(lib.config().gridColumns);
        const int rows = static_cast<int>(lib.config().gridRows);
        const int64_t lookAheadNs =
            std::max<int64_t>(lib.config().latencyNs, lib.config().windowNs / 2);
        // The unwarped grid the engine falls back to: the frame spanning +-1.25.
        std::vector<float> uniform(static_cast<size_t>(columns) * rows * 3, 0.0f);
        for (int j = 0; j < rows; ++j) {
            for (int i = 0; i < columns; ++i) {
                uniform[3 * (static_cast<size_t>(j) * columns + i)] =
                    (2.0f * i / (columns - 1) - 1) * 1.25f;
                uniform[3 * (static_cast<size_t>(j) * columns + i) + 1] =
                    (2.0f * j / (rows - 1) - 1) * 1.25f;
            }
        }
        std::vector<float> vertices(uniform.size(), 0.0f);
        VStabOutput output{0, 0, vertices.data()};
        Nv21Image frame;
        frame.resize(frames.width(), frames.height());
        std::vector<std::vector<uint8_t>> rgba;
        for (const OutputSurfaceSpec& s : config.surfaces)
            rgba.emplace_back(static_cast<size_t>(s.width) * s.height * 4);

        SessionResult result;
        size_t nextGyro = 0;
        auto feedUntil = [&](int64_t t) {
            for (; nextGyro < gyro.size() && gyro[nextGyro].timestampNs <= t; ++nextGyro) {
                const float xyz[3] = {gyro[nextGyro].x, gyro[nextGyro].y, gyro[nextGyro].z};
                const int rc = vStabAddAngularVelocity(lib.get(), gyro[nextGyro].timestampNs, xyz);
                if (rc != 0)
                    throw ReplayError("the stabilization library refused a gyro sample (status " +
                                      std::to_string(rc) + ")");
            }
        };
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < frames.count(); ++i) {
            // Nothing to tear down here but what the stack unwinds (the library handle).
            throwIfInterrupted();
            frames.read(i, frame);
            const int64_t ts = frames.timestampNs(i);
            observer.onFrameDelivered(i, ts, frame);
            ++result.framesDelivered;
            VStabFrameInfo info{
                40,   2,    ts, std::clamp<int64_t>(frames.exposureUs(i) * 1000LL, 0, 300000000),
                1.0f, 1.0f, 0,  0};
            // The sensor thread runs ahead of the frames by the library's look-ahead.
            feedUntil(ts + lookAheadNs + 200000000);
            int status = vStabWarpGrid(lib.get(), &info, &output);
            while (inMask(status, VSTAB_STATUS_MASK_NEED_MORE_GYRO) && nextGyro < gyro.size()) {
                feedUntil(gyro[nextGyro].timestampNs + 100000000);
                status = vStabWarpGrid(lib.get(), &info, &output);
            }
            const float* grid = vertices.data();
            if (status != VSTAB_STATUS_OK) {
                const bool known = inMask(status, VSTAB_STATUS_MASK_NEED_MORE_GYRO) ||
                                   inMask(status, VSTAB_STATUS_MASK_NO_GYRO_BEFORE) ||
                                   status == ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN ||
                                   status == ZEF_GYRO_V_STAB_INTERP_AFTER_END;
                if (!known)
                    throw ReplayError("the stabilization library failed on frame " +
                                      std::to_string(i) + " (status " + std::to_string(status) +
                                      ")");
                grid = uniform.data();
                ++result.renderedUnstabilized;
            }
            for (size_t s = 0; s < config.surfaces.size(); ++s) {
                const OutputSurfaceSpec& layout = config.surfaces[s];
                drawGrid(frame, grid, columns, rows, rgba[s].data(), layout.width, layout.height);
                observer.onFrameOutput(
                    static_cast<int>(s), ts,
                    RgbaView{layout.width, layout.height, layout.width, rgba[s].data()});
            }
        }
        result.wallSec =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.notes.push_back(
            "no engine: the stabilization library's grids drawn by the tool's CPU renderer");
        return result;
    }
};

}  // namespace

std::unique_ptr<ReplaySession> makeLibrarySession() {
    return std::make_unique<LibrarySession>();
}

}  // namespace qlmr::replay
