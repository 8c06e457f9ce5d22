// Output magnification of the adaptive crop: a slow, smooth path above what the virtual
// camera's deviation from the physical one needs, so the picture does not breathe with the
// shake.
//
// Per frame the stabilizer hands over the magnification each look-ahead node needs (from the
// zoom ladder) and the time since the previous frame. A path starts kStartMargin above the
// largest need it sees (at the lowest zoom if nothing needs more). It then moves with a speed
// that changes by at most kAccelPerS2: towards kRisePerS while a need lies above the zoom,
// towards -kFallPerS while every need lies more than kFallGap below it, towards rest
// otherwise. Its motion above 0.5 Hz stays below 0.05 % of it in the harness's scenarios; a
// zoom that tracked each need (rising 0.3 per second of look-ahead, falling 0.05 per second)
// moved about 1 % with a walk's shake. The price is picture: a walk keeps about 75 % of the
// frame instead of 80 %. Where a need outruns the plan, the stabilizer's crop limit magnifies
// the frame and the plan continues from there, at rest.
//
// Pure value type; called on the engine's processing thread. No allocation.
#ifndef ZEF_VSTAB_ZOOM_PLANNER_H
#define ZEF_VSTAB_ZOOM_PLANNER_H

namespace vstab {

class ZoomPlanner {
  public:
    static constexpr double kStartMargin = 0.06;  // share above the first largest need
    static constexpr double kRisePerS = 0.03;     // fastest rise, magnification per second
    static constexpr double kFallPerS = 0.003;    // fastest fall
    static constexpr double kAccelPerS2 = 0.01;   // largest change of that speed per second
    static constexpr double kFallGap = 0.03;      // falls only while every need is this far below

    ZoomPlanner(double lowest, double highest) : lowest_(lowest), highest_(highest) {}

    // Starts a new path kStartMargin above the largest need (at the lowest zoom without one),
    // or at `atLeast` if that is higher (the magnification of frames just shown unwarped), at
    // rest. need[i] is the magnification
    // node i of the look-ahead needs.
    void start(const double* need, int count, double atLeast);

    // Advances by dtS seconds to the next frame. Returns the zoom for the frame.
    double next(double dtS, const double* need, int count);

    // The crop limit magnified the frame beyond the plan: continue from there, at rest.
    void raiseTo(double z) {
        if (z > zoom_) {
            zoom_ = clamp(z);
            speed_ = 0.0;
        }
    }

    double zoom() const { return zoom_; }

  private:
    double clamp(double z) const { return z < lowest_ ? lowest_ : (z > highest_ ? highest_ : z); }
    static double largest(const double* need, int count);

    double lowest_;
    double highest_;
    double zoom_ = 1.0;
    double speed_ = 0.0;  // magnification per second
};

}  // namespace vstab

#endif  // ZEF_VSTAB_ZOOM_PLANNER_H
