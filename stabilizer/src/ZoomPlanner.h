// Output magnification of the adaptive crop: stays ahead of what the virtual camera's
// deviation from the physical one needs, and keeps as much of the picture as it can.
//
// Per frame the stabilizer hands over the magnification each look-ahead node needs (from the
// zoom ladder) and the time since the previous frame. The zoom is at least every need minus
// kRisePerS per second of look-ahead, so a need seen ahead raises it early, at most that fast;
// without a need it falls back at kFallPerS. The zoom's motion above 0.5 Hz is about 1 % of
// it on a walk: a smoother plan (holding the zoom between peaks) kept up to 6 points less of
// the picture and magnified the remaining jitter, so tracking the needs tightly wins.
//
// Pure value type; called on the engine's processing thread. No allocation.
#ifndef ZEF_VSTAB_ZOOM_PLANNER_H
#define ZEF_VSTAB_ZOOM_PLANNER_H

namespace vstab {

class ZoomPlanner {
  public:
    // A need t seconds ahead asks for at least need - kRisePerS x t now.
    static constexpr double kRisePerS = 0.3;
    // Without a need the zoom falls back this fast (per second).
    static constexpr double kFallPerS = 0.05;

    ZoomPlanner(double lowest, double highest) : lowest_(lowest), highest_(highest) {}

    // Starts a new path at what the look-ahead asks for now, or at `atLeast` if that is
    // higher (the magnification of frames just shown unwarped). need[i] is the magnification
    // node i, tS[i] seconds ahead (tS[0] = 0), needs.
    void start(const double* need, const double* tS, int count, double atLeast);

    // Advances by dtS seconds to the next frame. Returns the zoom for the frame.
    double next(double dtS, const double* need, const double* tS, int count);

    // The crop limit magnified the frame beyond the plan: continue from there.
    void raiseTo(double z) { zoom_ = clamp(z > zoom_ ? z : zoom_); }

    double zoom() const { return zoom_; }

  private:
    double clamp(double z) const { return z < lowest_ ? lowest_ : (z > highest_ ? highest_ : z); }
    // Largest need - kRisePerS x t over the nodes, at least `from`.
    static double asked(const double* need, const double* tS, int count, double from);

    double lowest_;
    double highest_;
    double zoom_ = 1.0;
};

}  // namespace vstab

#endif  // ZEF_VSTAB_ZOOM_PLANNER_H
