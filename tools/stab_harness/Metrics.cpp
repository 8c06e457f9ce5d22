#include "Metrics.h"

#include <algorithm>
#include <cmath>
#include <complex>

#include <Eigen/Eigenvalues>

namespace qlmr::harness {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kSamplesPerAxis = 9;  // output points per row and column for the camera fits
constexpr int kBorderStepPx = 8;    // spacing of the checked output border points

struct P2 {
    double x, y;
};

// Barycentric coordinates of p in triangle abc; false if outside (with a hair of tolerance).
bool barycentric(P2 a, P2 b, P2 c, P2 p, double& wa, double& wb, double& wc) {
    const double d = (b.y - c.y) * (a.x - c.x) + (c.x - b.x) * (a.y - c.y);
    if (std::fabs(d) < 1e-300) {
        return false;
    }
    wa = ((b.y - c.y) * (p.x - c.x) + (c.x - b.x) * (p.y - c.y)) / d;
    wb = ((c.y - a.y) * (p.x - c.x) + (a.x - c.x) * (p.y - c.y)) / d;
    wc = 1.0 - wa - wb;
    constexpr double eps = -1e-9;
    return wa >= eps && wb >= eps && wc >= eps;
}

}  // namespace

WarpMesh::WarpMesh(const float* grid, int columns, int rows)
    : grid_(grid), columns_(columns), rows_(rows) {}

bool WarpMesh::inCell(int i, int j, double x, double y, double& u, double& v) const {
    auto pos = [&](int ci, int cj) {
        const float* p = grid_ + 3 * (cj * columns_ + ci);
        return P2{p[0], p[1]};
    };
    auto tex = [&](int ci, int cj) {
        return P2{static_cast<double>(ci) / (columns_ - 1), static_cast<double>(cj) / (rows_ - 1)};
    };
    // The engine's strip runs band j + 1 of its bordered mesh: even bands split the cell along
    // lower-left to upper-right, odd bands along lower-right to upper-left.
    const bool evenBand = ((j + 1) % 2) == 0;
    int tri[2][3][2];
    if (evenBand) {
        const int t[2][3][2] = {{{i, j}, {i, j + 1}, {i + 1, j}},
                                {{i, j + 1}, {i + 1, j}, {i + 1, j + 1}}};
        std::copy(&t[0][0][0], &t[0][0][0] + 12, &tri[0][0][0]);
    } else {
        const int t[2][3][2] = {{{i + 1, j}, {i + 1, j + 1}, {i, j}},
                                {{i + 1, j + 1}, {i, j}, {i, j + 1}}};
        std::copy(&t[0][0][0], &t[0][0][0] + 12, &tri[0][0][0]);
    }
    for (auto& t : tri) {
        double wa, wb, wc;
        if (barycentric(pos(t[0][0], t[0][1]), pos(t[1][0], t[1][1]), pos(t[2][0], t[2][1]), {x, y},
                        wa, wb, wc)) {
            const P2 ta = tex(t[0][0], t[0][1]), tb = tex(t[1][0], t[1][1]),
                     tc = tex(t[2][0], t[2][1]);
            u = wa * ta.x + wb * tb.x + wc * tc.x;
            v = wa * ta.y + wb * tb.y + wc * tc.y;
            return true;
        }
    }
    return false;
}

bool WarpMesh::textureAt(double x, double y, double& u, double& v) const {
    // Start next to the point: the cell whose middle-row x and middle-column y bracket it
    // (the grid is close to regular), then search outwards ring by ring.
    auto along = [&](bool horizontal, double target) {
        const int count = horizontal ? columns_ : rows_;
        int best = 0;
        for (int k = 0; k + 1 < count; ++k) {
            const float* p = horizontal ? grid_ + 3 * ((rows_ / 2) * columns_ + k)
                                        : grid_ + 3 * (k * columns_ + columns_ / 2);
            if ((horizontal ? p[0] : p[1]) <= target) {
                best = k;
            }
        }
        return best;
    };
    const int i0 = along(true, x);
    const int j0 = along(false, y);
    const int cells = std::max(columns_, rows_);
    for (int r = 0; r < cells; ++r) {
        for (int dj = -r; dj <= r; ++dj) {
            const int j = j0 + dj;
            if (j < 0 || j > rows_ - 2) {
                continue;
            }
            const int step = (dj == -r || dj == r) ? 1 : 2 * r;
            for (int di = -r; di <= r; di += (step > 0 ? step : 1)) {
                const int i = i0 + di;
                if (i >= 0 && i <= columns_ - 2 && inCell(i, j, x, y, u, v)) {
                    return true;
                }
            }
        }
    }
    return false;
}

Q fitRotation(const V3* a, const V3* b, int n) {
    Eigen::Matrix3d s = Eigen::Matrix3d::Zero();
    for (int k = 0; k < n; ++k) {
        s += a[k] * b[k].transpose();
    }
    const double sxx = s(0, 0), sxy = s(0, 1), sxz = s(0, 2);
    const double syx = s(1, 0), syy = s(1, 1), syz = s(1, 2);
    const double szx = s(2, 0), szy = s(2, 1), szz = s(2, 2);
    Eigen::Matrix4d m;
    m << sxx + syy + szz, syz - szy, szx - sxz, sxy - syx,  //
        syz - szy, sxx - syy - szz, sxy + syx, szx + sxz,   //
        szx - sxz, sxy + syx, -sxx + syy - szz, syz + szy,  //
        sxy - syx, szx + sxz, syz + szy, -sxx - syy + szz;
    // Eigenvalues come in increasing order: the last eigenvector is the quaternion (w, x, y, z).
    const Eigen::Vector4d e =
        Eigen::SelfAdjointEigenSolver<Eigen::Matrix4d>(m).eigenvectors().col(3);
    return Q(e[0], e[1], e[2], e[3]).normalized();
}

std::vector<double> lowPassZeroPhase(const std::vector<double>& x, double cutoffHz,
                                     double sampleHz) {
    const size_t n = x.size();
    if (n < 3) {
        return x;
    }
    const double k = std::tan(kPi * cutoffHz / sampleHz);
    const double norm = 1.0 / (1.0 + std::sqrt(2.0) * k + k * k);
    const double b0 = k * k * norm, b1 = 2.0 * b0, b2 = b0;
    const double a1 = 2.0 * (k * k - 1.0) * norm;
    const double a2 = (1.0 - std::sqrt(2.0) * k + k * k) * norm;
    const size_t pad = std::min(n - 1, static_cast<size_t>(3.0 * sampleHz / cutoffHz));
    std::vector<double> y;
    y.reserve(n + 2 * pad);
    for (size_t i = pad; i >= 1; --i) {
        y.push_back(2.0 * x[0] - x[i]);
    }
    y.insert(y.end(), x.begin(), x.end());
    for (size_t i = 1; i <= pad; ++i) {
        y.push_back(2.0 * x[n - 1] - x[n - 1 - i]);
    }
    auto pass = [&](std::vector<double>& s) {
        double x1 = s[0], x2 = s[0], y1 = s[0], y2 = s[0];
        for (double& v : s) {
            const double in = v;
            const double out = b0 * in + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
            x2 = x1;
            x1 = in;
            y2 = y1;
            y1 = out;
            v = out;
        }
    };
    pass(y);
    std::reverse(y.begin(), y.end());
    pass(y);
    std::reverse(y.begin(), y.end());
    return std::vector<double>(y.begin() + static_cast<long>(pad),
                               y.begin() + static_cast<long>(pad + n));
}

double lowFrequencyShare(const std::vector<const std::vector<double>*>& sequences) {
    double low = 0.0, all = 0.0;
    for (const std::vector<double>* seq : sequences) {
        const size_t n = seq->size();
        for (size_t f = 1; f <= n / 2; ++f) {
            std::complex<double> acc = 0.0;
            for (size_t t = 0; t < n; ++t) {
                acc += (*seq)[t] * std::polar(1.0, -2.0 * kPi * static_cast<double>(f * t % n) / n);
            }
            const double e = std::norm(acc);
            all += e;
            if (f <= 5) {
                low += e;
            }
        }
    }
    return all > 1e-24 ? low / all : -1.0;
}

double displacementPx(const V3& d, double focalPx, double rmsRadiusPx) {
    return std::sqrt(focalPx * focalPx * (d.x() * d.x() + d.y() * d.y()) +
                     rmsRadiusPx * rmsRadiusPx * d.z() * d.z());
}

double gridZoom(const float* grid, int columns, int rows) {
    // Shoelace area of the grid's outline, walked around its border vertices.
    double area2 = 0.0;
    auto at = [&](int i, int j) { return grid + 3 * (static_cast<size_t>(j) * columns + i); };
    const float* prev = at(0, 0);
    auto edge = [&](int i, int j) {
        const float* p = at(i, j);
        area2 += static_cast<double>(prev[0]) * p[1] - static_cast<double>(p[0]) * prev[1];
        prev = p;
    };
    for (int i = 1; i < columns; ++i) {
        edge(i, 0);
    }
    for (int j = 1; j < rows; ++j) {
        edge(columns - 1, j);
    }
    for (int i = columns - 2; i >= 0; --i) {
        edge(i, rows - 1);
    }
    for (int j = rows - 2; j >= 0; --j) {
        edge(0, j);
    }
    return std::sqrt(std::fabs(area2) * 0.5 / 4.0);
}

FrameEvaluation evaluateFrame(const float* grid, int columns, int rows,
                              const sim::Trajectory& truth, const sim::CameraSetup& camera,
                              const sim::FrameStamp& frame) {
    FrameEvaluation ev;
    const WarpMesh mesh(grid, columns, rows);
    const double rmsRadius = std::sqrt((static_cast<double>(camera.width) * camera.width +
                                        static_cast<double>(camera.height) * camera.height) /
                                       12.0);
    V3 rays[kSamplesPerAxis * kSamplesPerAxis];
    V3 seen[kSamplesPerAxis * kSamplesPerAxis];
    double px[kSamplesPerAxis * kSamplesPerAxis], py[kSamplesPerAxis * kSamplesPerAxis];
    int count = 0;
    for (int r = 0; r < kSamplesPerAxis; ++r) {
        for (int c = 0; c < kSamplesPerAxis; ++c) {
            const double x = -1.0 + 2.0 * c / (kSamplesPerAxis - 1);
            const double y = -1.0 + 2.0 * r / (kSamplesPerAxis - 1);
            double u, v;
            if (mesh.textureAt(x, y, u, v)) {
                px[count] = x;
                py[count] = y;
                seen[count] = sim::worldDirection(truth, camera, frame, u, v);
                ++count;
            }
        }
    }
    // Output camera: the virtual pinhole whose picture the output is, magnified by the zoom
    // that best explains what it shows (searched around the grid's outline estimate).
    double overscan = gridZoom(grid, columns, rows);
    auto outputRay = [&](double x, double y) {
        return V3((0.5 * x / overscan) / camera.fx(), (0.5 * y / overscan) / camera.fy(), 1.0)
            .normalized();
    };
    auto misfit = [&](double zoom) {
        overscan = zoom;
        for (int k = 0; k < count; ++k) {
            rays[k] = outputRay(px[k], py[k]);
        }
        const Q fit = fitRotation(rays, seen, count);
        double sum = 0.0;
        for (int k = 0; k < count; ++k) {
            const V3 d = fit * rays[k] - seen[k];
            sum += d.squaredNorm();
        }
        return sum;
    };
    if (count >= 3) {
        const double golden = 0.5 * (std::sqrt(5.0) - 1.0);
        double a = 0.85 * overscan, b = 1.15 * overscan;
        double c = b - golden * (b - a), d = a + golden * (b - a);
        double fc = misfit(c), fd = misfit(d);
        for (int it = 0; it < 40; ++it) {
            if (fc < fd) {
                b = d;
                d = c;
                fd = fc;
                c = b - golden * (b - a);
                fc = misfit(c);
            } else {
                a = c;
                c = d;
                fc = fd;
                d = a + golden * (b - a);
                fd = misfit(d);
            }
        }
        misfit(0.5 * (a + b));
    }
    ev.zoom = overscan;
    const double focalOut = camera.focalPx() * overscan;
    ev.output = fitRotation(rays, seen, count);
    ev.intended = truth.intended(sim::rowTimeS(camera, frame, 0.5));
    // Rolling-shutter wobble: orientation of each output row, compared pairwise.
    V3 rowDev[kSamplesPerAxis];
    int rowCount = 0;
    for (int r = 0; r < kSamplesPerAxis; ++r) {
        V3 a[kSamplesPerAxis], b[kSamplesPerAxis];
        int n = 0;
        for (int c = 0; c < kSamplesPerAxis; ++c) {
            const double x = -1.0 + 2.0 * c / (kSamplesPerAxis - 1);
            const double y = -1.0 + 2.0 * r / (kSamplesPerAxis - 1);
            double u, v;
            if (mesh.textureAt(x, y, u, v)) {
                a[n] = outputRay(x, y);
                b[n] = sim::worldDirection(truth, camera, frame, u, v);
                ++n;
            }
        }
        if (n >= 3) {
            rowDev[rowCount++] =
                sim::toRotationVector(ev.output.conjugate() * fitRotation(a, b, n));
        }
    }
    for (int i = 0; i < rowCount; ++i) {
        for (int j = i + 1; j < rowCount; ++j) {
            ev.wobblePx =
                std::max(ev.wobblePx, displacementPx(rowDev[i] - rowDev[j], focalOut, rmsRadius));
        }
    }
    // Border of the output: every point must be drawn from inside the frame.
    const double stepX = 2.0 * kBorderStepPx / camera.width;
    const double stepY = 2.0 * kBorderStepPx / camera.height;
    auto check = [&](double x, double y) {
        double u, v;
        if (!mesh.textureAt(x, y, u, v)) {
            ++ev.outsidePoints;
            ev.worstOutsidePx = std::max(ev.worstOutsidePx, 1e9);
            return;
        }
        const double ex = std::max({0.0, -u, u - 1.0}) * camera.width;
        const double ey = std::max({0.0, -v, v - 1.0}) * camera.height;
        const double e = std::max(ex, ey);
        if (e > 0.0) {
            ++ev.outsidePoints;
            ev.worstOutsidePx = std::max(ev.worstOutsidePx, e);
        }
    };
    for (double x = -1.0; x <= 1.0 + 1e-12; x += stepX) {
        check(std::min(x, 1.0), -1.0);
        check(std::min(x, 1.0), 1.0);
    }
    for (double y = -1.0; y <= 1.0 + 1e-12; y += stepY) {
        check(-1.0, std::min(y, 1.0));
        check(1.0, std::min(y, 1.0));
    }
    return ev;
}

Figures summarize(const std::vector<FrameEvaluation>& frames, const sim::CameraSetup& camera,
                  double trimS) {
    Figures f;
    const size_t n = frames.size();
    if (n < 4) {
        return f;
    }
    double overscan = 0.0;
    f.minRetained = 1.0;
    for (const FrameEvaluation& e : frames) {
        overscan += e.zoom / static_cast<double>(n);
        const double kept = std::min(1.0, 1.0 / (e.zoom * e.zoom));
        f.meanRetained += kept / static_cast<double>(n);
        f.minRetained = std::min(f.minRetained, kept);
    }
    const double fps = camera.fps;
    const double focalOut = camera.focalPx() * overscan;
    const double rmsRadius = std::sqrt((static_cast<double>(camera.width) * camera.width +
                                        static_cast<double>(camera.height) * camera.height) /
                                       12.0);
    // Motion path: frame-to-frame rotations in the output camera's axes, accumulated.
    std::vector<double> path[3], step[3];
    V3 acc = V3::Zero();
    for (int a = 0; a < 3; ++a) {
        path[a].push_back(0.0);
    }
    for (size_t k = 1; k < n; ++k) {
        const V3 d = sim::toRotationVector(frames[k - 1].output.conjugate() * frames[k].output);
        acc += d;
        for (int a = 0; a < 3; ++a) {
            path[a].push_back(acc[a]);
            step[a].push_back(d[a]);
        }
    }
    const size_t trim = std::min(n / 4, static_cast<size_t>(trimS * fps));
    // Jitter: the fast part of the output camera's turn away from the intended orientation,
    // in the intended camera's axes (small angles: a rotation vector per frame).
    std::vector<double> deviation[3], high[3];
    for (size_t k = 0; k < n; ++k) {
        const V3 d = sim::toRotationVector(frames[k].intended.conjugate() * frames[k].output);
        for (int a = 0; a < 3; ++a) {
            deviation[a].push_back(d[a]);
        }
    }
    for (int a = 0; a < 3; ++a) {
        const std::vector<double> low = lowPassZeroPhase(deviation[a], 1.0, fps);
        high[a].resize(n);
        for (size_t k = 0; k < n; ++k) {
            high[a][k] = deviation[a][k] - low[k];
        }
    }
    double sum = 0.0;
    size_t used = 0;
    for (size_t k = trim; k < n - trim; ++k) {
        const double px =
            displacementPx(V3(high[0][k], high[1][k], high[2][k]), focalOut, rmsRadius);
        sum += px * px;
        ++used;
        if (k > 0 && k + 1 < n) {
            V3 a2;
            for (int a = 0; a < 3; ++a) {
                a2[a] = (path[a][k + 1] - 2.0 * path[a][k] + path[a][k - 1]) * fps * fps;
            }
            f.maxAccelRadS2 = std::max(f.maxAccelRadS2, a2.norm());
        }
    }
    f.jitterPx = used > 0 ? std::sqrt(sum / used) : 0.0;
    auto jitterOver = [&](size_t from, size_t to) {
        double acc2 = 0.0;
        for (size_t k = from; k < to; ++k) {
            const double px =
                displacementPx(V3(high[0][k], high[1][k], high[2][k]), focalOut, rmsRadius);
            acc2 += px * px;
        }
        return to > from ? std::sqrt(acc2 / static_cast<double>(to - from)) : 0.0;
    };
    const size_t second = std::min(n, static_cast<size_t>(std::lround(fps)));
    f.jitterFirstPx = jitterOver(0, second);
    f.jitterLastPx = jitterOver(n - second, n);
    std::vector<double> zoom(n);
    for (size_t k = 0; k < n; ++k) {
        zoom[k] = frames[k].zoom;
    }
    const std::vector<double> zoomLow = lowPassZeroPhase(zoom, 0.5, fps);
    double zoomHigh2 = 0.0;
    for (size_t k = 0; k < n; ++k) {
        zoomHigh2 += (zoom[k] - zoomLow[k]) * (zoom[k] - zoomLow[k]);
    }
    f.zoomHighPassPct = 100.0 * std::sqrt(zoomHigh2 / static_cast<double>(n)) / overscan;
    double wobble = 0.0;
    for (const FrameEvaluation& e : frames) {
        wobble += e.wobblePx;
        if (e.outsidePoints > 0) {
            ++f.framesOutside;
            f.worstOutsidePx = std::max(f.worstOutsidePx, e.worstOutsidePx);
        }
    }
    f.wobblePx = wobble / n;
    // Stability: translation (yaw, pitch as picture shifts) and rotation (roll), averaged.
    std::vector<double> tx(step[1].size()), ty(step[0].size());
    for (size_t k = 0; k < tx.size(); ++k) {
        tx[k] = step[1][k] * focalOut;
        ty[k] = step[0][k] * focalOut;
    }
    // A component without any motion has no spectrum to judge; the other one decides alone.
    const double translation = lowFrequencyShare({&tx, &ty});
    const double rotation = lowFrequencyShare({&step[2]});
    if (translation < 0.0 || rotation < 0.0) {
        f.stability = translation < 0.0 && rotation < 0.0 ? 1.0 : std::max(translation, rotation);
    } else {
        f.stability = 0.5 * (translation + rotation);
    }
    return f;
}

}  // namespace qlmr::harness
