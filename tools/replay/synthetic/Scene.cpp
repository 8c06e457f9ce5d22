#include "synthetic/Scene.h"

#include "media/ColorConvert.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace qlmr::replay {

namespace {
constexpr double kPi = 3.14159265358979323846;

void planesFromRgb(const RgbImage& rgb, Scene& s) {
    const int w = rgb.width & ~1;
    const int h = rgb.height & ~1;
    s.y.resize(static_cast<size_t>(w) * h);
    s.u.resize(static_cast<size_t>(w / 2) * (h / 2));
    s.v.resize(s.u.size());
    for (int yy = 0; yy < h; ++yy) {
        const uint8_t* r = rgb.row(yy);
        for (int x = 0; x < w; ++x) {
            s.y[static_cast<size_t>(yy) * w + x] = rgbToY(r[3 * x], r[3 * x + 1], r[3 * x + 2]);
        }
    }
    for (int cy = 0; cy < h / 2; ++cy) {
        for (int cx = 0; cx < w / 2; ++cx) {
            int su = 0;
            int sv = 0;
            for (int k = 0; k < 4; ++k) {
                const uint8_t* p = rgb.row(2 * cy + k / 2) + 3 * (2 * cx + k % 2);
                su += rgbToU(p[0], p[1], p[2]);
                sv += rgbToV(p[0], p[1], p[2]);
            }
            s.u[static_cast<size_t>(cy) * (w / 2) + cx] = static_cast<uint8_t>((su + 2) >> 2);
            s.v[static_cast<size_t>(cy) * (w / 2) + cx] = static_cast<uint8_t>((sv + 2) >> 2);
        }
    }
}

}  // namespace

PinholeCamera PinholeCamera::withFov(int width, int height, double hfovDeg) {
    PinholeCamera c;
    c.width = width;
    c.height = height;
    c.focalPx = (width / 2.0) / std::tan(hfovDeg * kPi / 360.0);
    c.cx = width / 2.0;
    c.cy = height / 2.0;
    return c;
}

Scene Scene::fromImage(const RgbImage& image, double hfovDeg, std::string description) {
    Scene s;
    s.camera = PinholeCamera::withFov(image.width & ~1, image.height & ~1, hfovDeg);
    planesFromRgb(image, s);
    s.description = std::move(description);
    return s;
}

Scene Scene::procedural(int width, int height, double hfovDeg, uint64_t seed) {
    std::mt19937_64 rng(seed * 0x2545F4914F6CDD1Dull + 11);
    std::uniform_real_distribution<float> unit(0, 1);
    RgbImage img;
    img.resize(width, height);
    // Multi-scale value noise per channel: lattices of random values at 5 scales, bilinearly
    // interpolated and summed with decreasing weight.
    std::vector<float> acc(static_cast<size_t>(width) * height * 3, 0.0f);
    float weight = 1.0f;
    float total = 0.0f;
    for (int cell = 256; cell >= 8; cell /= 2) {
        const int gw = width / cell + 2;
        const int gh = height / cell + 2;
        std::vector<float> grid(static_cast<size_t>(gw) * gh * 3);
        for (float& g : grid)
            g = unit(rng);
        for (int y = 0; y < height; ++y) {
            const float gy = static_cast<float>(y) / cell;
            const int iy = static_cast<int>(gy);
            const float fy = gy - iy;
            for (int x = 0; x < width; ++x) {
                const float gx = static_cast<float>(x) / cell;
                const int ix = static_cast<int>(gx);
                const float fx = gx - ix;
                for (int c = 0; c < 3; ++c) {
                    auto at = [&](int i, int j) {
                        return grid[(static_cast<size_t>(j) * gw + i) * 3 + c];
                    };
                    const float v = (at(ix, iy) * (1 - fx) + at(ix + 1, iy) * fx) * (1 - fy) +
                                    (at(ix, iy + 1) * (1 - fx) + at(ix + 1, iy + 1) * fx) * fy;
                    acc[(static_cast<size_t>(y) * width + x) * 3 + c] += weight * v;
                }
            }
        }
        total += weight;
        weight *= 0.6f;
    }
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < 3; ++c) {
                const float v = acc[(static_cast<size_t>(y) * width + x) * 3 + c] / total;
                // Stretch the contrast (sums of noise crowd around the middle).
                img.row(y)[3 * x + c] = clampByte(static_cast<int>((v - 0.5f) * 2.2f * 255 + 128));
            }
        }
    }
    // Discs of solid colour with dark rims: sharp edges at every scale.
    const int discs = width * height / 20000;
    for (int k = 0; k < discs; ++k) {
        const float cxp = unit(rng) * width;
        const float cyp = unit(rng) * height;
        const float r = 6 + 60 * unit(rng) * unit(rng);
        const uint8_t col[3] = {static_cast<uint8_t>(unit(rng) * 255),
                                static_cast<uint8_t>(unit(rng) * 255),
                                static_cast<uint8_t>(unit(rng) * 255)};
        for (int y = std::max(0, static_cast<int>(cyp - r));
             y < std::min(height, static_cast<int>(cyp + r) + 1); ++y) {
            for (int x = std::max(0, static_cast<int>(cxp - r));
                 x < std::min(width, static_cast<int>(cxp + r) + 1); ++x) {
                const float d = std::hypot(x - cxp, y - cyp);
                if (d > r)
                    continue;
                for (int c = 0; c < 3; ++c)
                    img.row(y)[3 * x + c] = d > r - 2 ? 20 : col[c];
            }
        }
    }
    // A fine grid every 64 pixels.
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            if (x % 64 == 0 || y % 64 == 0) {
                for (int c = 0; c < 3; ++c)
                    img.row(y)[3 * x + c] = 235;
            }
        }
    }
    return fromImage(img, hfovDeg, "procedural picture (seed " + std::to_string(seed) + ")");
}

struct SceneRenderer::Job {
    const SceneRenderer* self;
    const CameraMotion* motion;
    double frameStartSec;
    double readoutSec;
    double exposureSec;
    Nv21Image* out;
};

SceneRenderer::SceneRenderer(const Scene& scene, const PinholeCamera& camera, int threads)
    : scene_(scene), camera_(camera), pool_(std::max(1, threads)) {}

void SceneRenderer::render(const CameraMotion& motion, double frameStartSec, double readoutSec,
                           double exposureSec, Nv21Image& out) {
    Job job{this, &motion, frameStartSec, readoutSec, exposureSec, &out};
    // Work is split by pairs of rows (one chroma row each).
    pool_.run(&SceneRenderer::renderRows, &job, camera_.height / 2);
}

void SceneRenderer::renderRows(void* context, int begin, int end) {
    const Job& job = *static_cast<const Job*>(context);
    const PinholeCamera& cam = job.self->camera_;
    const Scene& scene = job.self->scene_;
    const PinholeCamera& src = scene.camera;
    const int sw = src.width;
    const int sh = src.height;
    const int cw = sw / 2;
    const int ch = sh / 2;
    Nv21Image& out = *job.out;
    const int w = cam.width;
    const int h = cam.height;
    const float fs = static_cast<float>(src.focalPx);
    const float scx = static_cast<float>(src.cx);
    const float scy = static_cast<float>(src.cy);

    // Source position of output point (x + 0.5, row + 0.5) for the orientation at `row`'s time.
    auto rowSetup = [&](double row, float* a) {
        const double t = job.frameStartSec + (row + 0.5) / h * job.readoutSec + job.exposureSec / 2;
        const M3 r = job.motion->actual(t);
        // ray(x) = r * ((x + 0.5 - cx)/f, (row + 0.5 - cy)/f, 1) = base + x * step
        const double y = (row + 0.5 - cam.cy) / cam.focalPx;
        const double x0 = (0.5 - cam.cx) / cam.focalPx;
        const double dx = 1.0 / cam.focalPx;
        for (int i = 0; i < 3; ++i) {
            a[i] = static_cast<float>(r(i, 0) * x0 + r(i, 1) * y + r(i, 2));
            a[3 + i] = static_cast<float>(r(i, 0) * dx);
        }
    };

    // The source position is exact (one division) every kSpan output pixels and linear in
    // between, in 16.16 fixed point: over 16 pixels the projective curvature of a view a few
    // degrees off axis is far below a hundredth of a pixel.
    constexpr int kSpan = 16;
    const int32_t maxX = (sw - 1) * 65536 - 1, maxY = (sh - 1) * 65536 - 1;
    const int32_t maxCX = (cw - 1) * 65536 - 1, maxCY = (ch - 1) * 65536 - 1;
    auto project = [&](float X, float Y, float Z, float scale, float offset, int32_t& u,
                       int32_t& v) {
        if (Z < 1e-6f)
            Z = 1e-6f;
        const float inv = 1.0f / Z;
        // Far outside the picture (views turned away) the edge is repeated; the bound keeps the
        // fixed-point value and the interpolation steps within 32 bits.
        const float fu = std::clamp((fs * X * inv + scx) * scale - offset, -8192.0f, 16384.0f);
        const float fv = std::clamp((fs * Y * inv + scy) * scale - offset, -8192.0f, 16384.0f);
        u = static_cast<int32_t>(fu * 65536.0f);
        v = static_cast<int32_t>(fv * 65536.0f);
    };
    // Bilinear sample at 16.16 position, clamped inside the plane.
    auto fetch = [](const uint8_t* plane, int pw, int32_t u, int32_t v, int32_t mu, int32_t mv) {
        u = u < 0 ? 0 : (u > mu ? mu : u);
        v = v < 0 ? 0 : (v > mv ? mv : v);
        const uint8_t* p = plane + static_cast<size_t>(v >> 16) * pw + (u >> 16);
        const int fx = (u >> 8) & 255, fy = (v >> 8) & 255;
        const int top = p[0] * (256 - fx) + p[1] * fx;
        const int bottom = p[pw] * (256 - fx) + p[pw + 1] * fx;
        return static_cast<uint8_t>((top * (256 - fy) + bottom * fy + 32768) >> 16);
    };

    float a[6];
    for (int pair = begin; pair < end; ++pair) {
        for (int k = 0; k < 2; ++k) {
            const int row = 2 * pair + k;
            rowSetup(row, a);
            uint8_t* dst = out.y() + static_cast<size_t>(row) * w;
            // Luma: source pixel-centre coordinates are continuous coordinates minus 0.5.
            int32_t u0, v0;
            project(a[0], a[1], a[2], 1.0f, 0.5f, u0, v0);
            for (int x0 = 0; x0 < w; x0 += kSpan) {
                const int n = std::min(kSpan, w - x0);
                const float xe = static_cast<float>(x0 + n);
                int32_t u1, v1;
                project(a[0] + xe * a[3], a[1] + xe * a[4], a[2] + xe * a[5], 1.0f, 0.5f, u1, v1);
                const int32_t du = (u1 - u0) / n, dv = (v1 - v0) / n;
                int32_t u = u0, v = v0;
                for (int i = 0; i < n; ++i, u += du, v += dv)
                    dst[x0 + i] = fetch(scene.y.data(), sw, u, v, maxX, maxY);
                u0 = u1;
                v0 = v1;
            }
        }
        // Chroma sample (i, pair) covers output pixels 2i..2i+1 x 2pair..2pair+1: its centre is
        // the output point (2i + 1, 2pair + 1), i.e. "row" 2pair + 0.5 at x = 2i + 0.5. Source
        // chroma sample j covers source pixels 2j, 2j+1, centred at 2j + 1.
        rowSetup(2 * pair + 0.5, a);
        uint8_t* vu = out.vu() + static_cast<size_t>(pair) * w;
        const int cwOut = w / 2;
        auto chromaAt = [&](float i, int32_t& u, int32_t& v) {
            const float x = 2 * i + 0.5f;
            project(a[0] + x * a[3], a[1] + x * a[4], a[2] + x * a[5], 0.5f, 0.5f, u, v);
        };
        int32_t u0, v0;
        chromaAt(0, u0, v0);
        for (int i0 = 0; i0 < cwOut; i0 += kSpan) {
            const int n = std::min(kSpan, cwOut - i0);
            int32_t u1, v1;
            chromaAt(static_cast<float>(i0 + n), u1, v1);
            const int32_t du = (u1 - u0) / n, dv = (v1 - v0) / n;
            int32_t u = u0, v = v0;
            for (int i = 0; i < n; ++i, u += du, v += dv) {
                vu[2 * (i0 + i)] = fetch(scene.v.data(), cw, u, v, maxCX, maxCY);
                vu[2 * (i0 + i) + 1] = fetch(scene.u.data(), cw, u, v, maxCX, maxCY);
            }
            u0 = u1;
            v0 = v1;
        }
    }
}

}  // namespace qlmr::replay
