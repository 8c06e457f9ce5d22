// Output magnification of the adaptive crop: a slow, smooth path that stays ahead of what the
// virtual camera's deviation from the physical one needs.
//
// Per frame the stabilizer hands over the magnification each look-ahead node needs (from the
// zoom ladder) and the time since the previous frame. The planner keeps a zoom and its rate:
// a need seen ahead starts a rise at once, at the rate that reaches it by the node's time, and
// the rate itself changes gradually, so the zoom moves along a smooth curve rather than in
// steps with the shake. Without a need it holds for a while and then falls back slowly. A rise
// that would come too late is forced by a hard floor (need minus kFloorRisePerS per second of
// look-ahead), which the smooth plan normally never meets.
//
// Pure value type; called on the engine's processing thread. No allocation.
#ifndef ZEF_VSTAB_ZOOM_PLANNER_H
#define ZEF_VSTAB_ZOOM_PLANNER_H

namespace vstab {

class ZoomPlanner {
  public:
    // Time constant of the zoom rate's changes (s): the zoom's curvature is spread over
    // about this long, which keeps its motion below 0.5 Hz.
    static constexpr double kRateTimeConstantS = 0.8;
    // A rise aims this much faster than the straight line to the need, to make up for the
    // rate's gradual start.
    static constexpr double kRiseLead = 2.5;
    // Hard floor: the zoom now is at least need_i - this x t_i for every node.
    static constexpr double kFloorRisePerS = 0.3;
    // Without a need above or within kHoldBand of the zoom for this long, it falls back
    // towards the need ...
    static constexpr double kHoldS = 1.5;
    static constexpr double kHoldBand = 0.03;
    // ... over about this time constant, at most this fast (per second).
    static constexpr double kFallTimeConstantS = 2.0;
    static constexpr double kFallMaxPerS = 0.03;

    ZoomPlanner(double lowest, double highest) : lowest_(lowest), highest_(highest) {}

    // Starts a new path: at the largest need of the look-ahead, or at `atLeast` if that is
    // higher (the magnification of frames just shown unwarped), with no motion.
    void start(const double* need, int count, double atLeast);

    // Advances by dtS seconds to the next frame; need[i] is the magnification node i, tS[i]
    // seconds ahead (tS[0] = 0), needs. Returns the zoom for the frame.
    double next(double dtS, const double* need, const double* tS, int count);

    // The crop limit magnified the frame beyond the plan: continue from there.
    void raiseTo(double z) {
        zoom_ = clamp(z > zoom_ ? z : zoom_);
        rate_ = rate_ > 0.0 ? rate_ : 0.0;
        heldS_ = 0.0;
    }

    double zoom() const { return zoom_; }
    double ratePerS() const { return rate_; }

  private:
    double clamp(double z) const { return z < lowest_ ? lowest_ : (z > highest_ ? highest_ : z); }

    double lowest_;
    double highest_;
    double zoom_ = 1.0;
    double rate_ = 0.0;
    double heldS_ = 0.0;  // time since a need last reached the zoom
};

}  // namespace vstab

#endif  // ZEF_VSTAB_ZOOM_PLANNER_H
