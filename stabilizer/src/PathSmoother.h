// Virtual camera path of the stabilization library: a receding-horizon smoother.
//
// For every frame the path is solved anew over a short horizon: node 0 at the frame's centre
// time, further nodes up to the look-ahead the gyro data allows, preceded by up to two virtual
// camera orientations already committed for earlier frames, which are held fixed. The solution
// minimises, per axis of the rotation vectors (all expressed relative to one reference
// orientation),
//
//   sum_i w_i h_i |x_i - p_i|^2                      (stay near the physical orientation p)
// + lambda * sum_k hbar_k |x''_k|^2                  (low angular acceleration)
//
// which approximates a zero-phase low-pass of the physical path (cut-off (2 pi)^-1
// lambda^-1/4) that follows constant-velocity pans without lag. The horizon must span about
// twice the filter's time constant lambda^1/4: a shorter one makes the path overshoot. The fixed
// past nodes keep the path and its velocity continuous from frame to frame. Where the deviation
// would use up the crop margin, the weights w_i are raised and the problem solved again, so the
// path bends towards the physical one ahead of time instead of being clamped. Only node 0 is used;
// the rest of the horizon is re-solved with the next frame.
//
// Called on the engine's processing thread. Allocates only in its constructor.
#ifndef ZEF_VSTAB_PATH_SMOOTHER_H
#define ZEF_VSTAB_PATH_SMOOTHER_H

#include <cstddef>
#include <vector>

#include "Quat.h"
#include "Warp.h"

namespace vstab {

struct SmootherParams {
    double lambda = 0.0;      // acceleration weight, s^4
    CropMargins margins;      // how far the path may deviate from the physical one
    double usageLimit = 0.9;  // share of the margin the soft limit aims to stay within
    int maxIterations = 6;    // re-weighting passes for the soft limit
};

// One frame's problem. Times are seconds relative to node 0; values are rotation vectors
// relative to the common reference orientation.
struct SmootherProblem {
    int pastCount = 0;  // 0..2 fixed nodes, oldest first
    double pastT[2] = {0.0, 0.0};
    Vec3 pastX[2];
    int count = 0;  // free nodes, 1..maxNodes; t[0] must be 0
    const double* t = nullptr;
    const Vec3* p = nullptr;  // physical orientation at each node
    // Margin share already used at each node by the rolling-shutter spread of its frame
    // (may be null: none).
    const double* extraUsage = nullptr;
};

class PathSmoother {
  public:
    explicit PathSmoother(size_t maxNodes);

    size_t maxNodes() const { return w_.size(); }

    // Solves the problem and returns x_0. `path`, if given, receives all `count` nodes.
    // `iterationsUsed` (optional) receives the number of solves.
    Vec3 solve(const SmootherProblem& problem, const SmootherParams& params, Vec3* path = nullptr,
               int* iterationsUsed = nullptr);

  private:
    bool solveOnce(const SmootherProblem& pr, const SmootherParams& params);

    // Band of the symmetric normal matrix: a0[i] = A(i,i), a1[i] = A(i,i+1), a2[i] = A(i,i+2).
    std::vector<double> w_, a0_, a1_, a2_;
    std::vector<double> l0_, l1_, l2_;  // banded Cholesky factor
    std::vector<Vec3> b_, x_;
};

}  // namespace vstab

#endif  // ZEF_VSTAB_PATH_SMOOTHER_H
