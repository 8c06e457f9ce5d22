#include "PathSmoother.h"

#include <cmath>

namespace vstab {

PathSmoother::PathSmoother(size_t maxNodes)
    : w_(maxNodes < 1 ? 1 : maxNodes),
      a0_(w_.size()),
      a1_(w_.size()),
      a2_(w_.size()),
      l0_(w_.size()),
      l1_(w_.size()),
      l2_(w_.size()),
      b_(w_.size()),
      x_(w_.size()) {}

bool PathSmoother::solveOnce(const SmootherProblem& pr, const SmootherParams& params) {
    const int n = pr.count;
    const int past = pr.pastCount;
    for (int i = 0; i < n; ++i) {
        a0_[i] = a1_[i] = a2_[i] = 0.0;
        b_[i] = Vec3{};
    }
    // Deviation terms, weighted by the time each node stands for.
    const double hNom = n > 1 ? pr.t[1] - pr.t[0] : 1.0 / 60.0;
    for (int i = 0; i < n; ++i) {
        double h = hNom;
        if (i > 0 && i + 1 < n) {
            h = 0.5 * (pr.t[i + 1] - pr.t[i - 1]);
        } else if (i > 0) {
            h = 0.5 * (pr.t[i] - pr.t[i - 1]);
        }
        const double c = w_[i] * h;
        a0_[i] += c;
        b_[i] = b_[i] + pr.p[i] * c;
    }
    // Acceleration terms over consecutive triplets of the whole sequence (past, then free).
    const int total = past + n;
    auto timeOf = [&](int k) { return k < past ? pr.pastT[k] : pr.t[k - past]; };
    for (int k = 1; k + 1 < total; ++k) {
        if (k + 1 < past) {
            continue;  // all three fixed: a constant
        }
        const double h1 = timeOf(k) - timeOf(k - 1);
        const double h2 = timeOf(k + 1) - timeOf(k);
        if (!(h1 > 0.0) || !(h2 > 0.0)) {
            return false;
        }
        const double c[3] = {2.0 / (h1 * (h1 + h2)), -2.0 / (h1 * h2), 2.0 / (h2 * (h1 + h2))};
        const double weight = params.lambda * 0.5 * (h1 + h2);
        Vec3 fixedPart;
        for (int a = 0; a < 3; ++a) {
            const int ka = k - 1 + a;
            if (ka < past) {
                fixedPart = fixedPart + pr.pastX[ka] * c[a];
            }
        }
        for (int a = 0; a < 3; ++a) {
            const int ia = k - 1 + a - past;
            if (ia < 0) {
                continue;
            }
            b_[ia] = b_[ia] - fixedPart * (weight * c[a]);
            for (int bb = a; bb < 3; ++bb) {
                const int ib = k - 1 + bb - past;
                const double v = weight * c[a] * c[bb];
                if (ib == ia) {
                    a0_[ia] += v;
                } else if (ib == ia + 1) {
                    a1_[ia] += v;
                } else {
                    a2_[ia] += v;
                }
            }
        }
    }
    // Banded Cholesky, then forward and backward substitution for the three axes at once.
    for (int i = 0; i < n; ++i) {
        const double l2 = i >= 2 ? a2_[i - 2] / l0_[i - 2] : 0.0;
        const double l1 =
            i >= 1 ? (a1_[i - 1] - (i >= 2 ? l2 * l1_[i - 1] : 0.0)) / l0_[i - 1] : 0.0;
        const double d = a0_[i] - l1 * l1 - l2 * l2;
        if (!(d > 0.0) || !std::isfinite(d)) {
            return false;
        }
        l0_[i] = std::sqrt(d);
        l1_[i] = l1;
        l2_[i] = l2;
    }
    for (int i = 0; i < n; ++i) {
        Vec3 y = b_[i];
        if (i >= 1) {
            y = y - x_[i - 1] * l1_[i];
        }
        if (i >= 2) {
            y = y - x_[i - 2] * l2_[i];
        }
        x_[i] = y * (1.0 / l0_[i]);
    }
    for (int i = n - 1; i >= 0; --i) {
        Vec3 y = x_[i];
        if (i + 1 < n) {
            y = y - x_[i + 1] * l1_[i + 1];
        }
        if (i + 2 < n) {
            y = y - x_[i + 2] * l2_[i + 2];
        }
        x_[i] = y * (1.0 / l0_[i]);
    }
    return true;
}

Vec3 PathSmoother::solve(const SmootherProblem& pr, const SmootherParams& params, Vec3* path,
                         int* iterationsUsed) {
    const int n =
        pr.count < 1
            ? 0
            : (pr.count > static_cast<int>(w_.size()) ? static_cast<int>(w_.size()) : pr.count);
    if (iterationsUsed != nullptr) {
        *iterationsUsed = 0;
    }
    if (n == 0) {
        return Vec3{};
    }
    SmootherProblem p = pr;
    p.count = n;
    p.pastCount = pr.pastCount < 0 ? 0 : (pr.pastCount > 2 ? 2 : pr.pastCount);
    for (int i = 0; i < n; ++i) {
        w_[i] = 1.0;
    }
    int iterations = 0;
    bool ok = false;
    for (;;) {
        ok = solveOnce(p, params);
        ++iterations;
        if (!ok || iterations >= params.maxIterations) {
            break;
        }
        // Raise the weight where the path would use more than the allowed share of the
        // margin; the next solve pulls it towards the physical path there and, through the
        // smoothness terms, gently around it.
        bool over = false;
        for (int i = 0; i < n; ++i) {
            const double u = params.margins.usage(x_[i] - p.p[i]) +
                             (p.extraUsage != nullptr ? p.extraUsage[i] : 0.0);
            const double allowed = params.usageLimit;
            if (u > allowed * 1.02) {
                const double r = u / allowed;
                w_[i] *= r * r * r * r;
                w_[i] = w_[i] < 1e12 ? w_[i] : 1e12;
                over = true;
            }
        }
        if (!over) {
            break;
        }
    }
    if (iterationsUsed != nullptr) {
        *iterationsUsed = iterations;
    }
    if (!ok) {
        // Degenerate timing: fall back to the physical path.
        for (int i = 0; i < n; ++i) {
            x_[i] = p.p[i];
        }
    }
    if (path != nullptr) {
        for (int i = 0; i < n; ++i) {
            path[i] = x_[i];
        }
    }
    return x_[0];
}

}  // namespace vstab
