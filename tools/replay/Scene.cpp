#include "Scene.h"

#include "ColorConvert.h"

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

// Bilinear sample of an 8-bit plane at continuous position (x, y) in pixel-centre coordinates
// (pixel i's centre at i), clamped to the edge. Fixed point, 8-bit weights.
inline int sample(const uint8_t* plane, int w, int h, float x, float y) {
    if (x < 0)
        x = 0;
    if (y < 0)
        y = 0;
    if (x > w - 1.001f)
        x = w - 1.001f;
    if (y > h - 1.001f)
        y = h - 1.001f;
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const int fx = static_cast<int>((x - ix) * 256.0f);
    const int fy = static_cast<int>((y - iy) * 256.0f);
    const uint8_t* p = plane + static_cast<size_t>(iy) * w + ix;
    const int top = p[0] * (256 - fx) + p[1] * fx;
    const int bottom = p[w] * (256 - fx) + p[w + 1] * fx;
    return (top * (256 - fy) + bottom * fy + 32768) >> 16;
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
        const Mat3 r = job.motion->actual(t);
        // ray(x) = r * ((x + 0.5 - cx)/f, (row + 0.5 - cy)/f, 1) = base + x * step
        const double y = (row + 0.5 - cam.cy) / cam.focalPx;
        const double x0 = (0.5 - cam.cx) / cam.focalPx;
        const double dx = 1.0 / cam.focalPx;
        for (int i = 0; i < 3; ++i) {
            a[i] = static_cast<float>(r.m[i][0] * x0 + r.m[i][1] * y + r.m[i][2]);
            a[3 + i] = static_cast<float>(r.m[i][0] * dx);
        }
    };

    float a[6];
    for (int pair = begin; pair < end; ++pair) {
        for (int k = 0; k < 2; ++k) {
            const int row = 2 * pair + k;
            rowSetup(row, a);
            uint8_t* dst = out.y() + static_cast<size_t>(row) * w;
            float X = a[0], Y = a[1], Z = a[2];
            for (int x = 0; x < w; ++x, X += a[3], Y += a[4], Z += a[5]) {
                if (Z <= 1e-6f) {
                    dst[x] = 16;
                    continue;
                }
                const float inv = 1.0f / Z;
                // Continuous source coordinate minus 0.5 gives pixel-centre coordinates.
                dst[x] = static_cast<uint8_t>(sample(
                    scene.y.data(), sw, sh, fs * X * inv + scx - 0.5f, fs * Y * inv + scy - 0.5f));
            }
        }
        // Chroma sample (i, pair) covers output pixels 2i..2i+1 x 2pair..2pair+1: its centre is
        // the output point (2i + 1, 2pair + 1), i.e. "row" 2pair + 0.5 at x = 2i + 0.5.
        rowSetup(2 * pair + 0.5, a);
        uint8_t* vu = out.vu() + static_cast<size_t>(pair) * w;
        float X = a[0] + 0.5f * a[3], Y = a[1] + 0.5f * a[4], Z = a[2] + 0.5f * a[5];
        for (int i = 0; i < w / 2; ++i, X += 2 * a[3], Y += 2 * a[4], Z += 2 * a[5]) {
            if (Z <= 1e-6f) {
                vu[2 * i] = vu[2 * i + 1] = 128;
                continue;
            }
            const float inv = 1.0f / Z;
            // Chroma sample j covers source pixels 2j, 2j+1: its centre is at 2j + 1.
            const float sx = (fs * X * inv + scx) * 0.5f - 0.5f;
            const float sy = (fs * Y * inv + scy) * 0.5f - 0.5f;
            vu[2 * i] = static_cast<uint8_t>(sample(scene.v.data(), cw, ch, sx, sy));
            vu[2 * i + 1] = static_cast<uint8_t>(sample(scene.u.data(), cw, ch, sx, sy));
        }
    }
}

}  // namespace qlmr::replay
