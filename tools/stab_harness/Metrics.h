// Measures of stabilization quality against simulated ground truth: what the engine draws
// through a warp grid, which world directions an output frame shows, and the figures computed
// over a whole recording. Pure functions; single-threaded use.
#ifndef QLMR_STAB_HARNESS_METRICS_H
#define QLMR_STAB_HARNESS_METRICS_H

#include <vector>

#include "sim/Rotation.h"
#include "sim/Sensors.h"
#include "sim/Trajectory.h"

namespace qlmr::harness {

using sim::Q;
using sim::V3;

// The warp grid as the engine draws it: columns x rows vertices (x, y, z floats) at normalised
// device coordinates, vertex (i, j) carrying texture coordinate (i / (columns - 1),
// j / (rows - 1)), split into triangles the way the engine's triangle strip splits each cell.
class WarpMesh {
  public:
    WarpMesh(const float* grid, int columns, int rows);
    // Texture coordinate drawn at output point (x, y); false where no triangle covers it.
    bool textureAt(double x, double y, double& u, double& v) const;

  private:
    bool inCell(int i, int j, double x, double y, double& u, double& v) const;
    const float* grid_;
    int columns_;
    int rows_;
};

// Rotation R minimising sum |R a_i - b_i|^2 over unit vectors (Davenport's q-method).
Q fitRotation(const V3* a, const V3* b, int n);

// Zero-phase low-pass (second-order Butterworth run forwards and backwards, odd-reflected
// ends): the slow part of a sequence sampled at sampleHz.
std::vector<double> lowPassZeroPhase(const std::vector<double>& x, double cutoffHz,
                                     double sampleHz);

// Share of the energy (DC left out) in the 2nd to 6th lowest frequency components of the
// spectra of the given sequences together; -1 for sequences without energy.
double lowFrequencyShare(const std::vector<const std::vector<double>*>& sequences);

// Image displacement (px, RMS over the picture) caused by a small rotation d of the camera:
// yaw and pitch move it by focalPx * angle, roll by the picture's RMS radius * angle.
double displacementPx(const V3& d, double focalPx, double rmsRadiusPx);

// Output magnification a grid shows the frame at: the frame's outline covers (2 zoom)^2 in
// normalised device coordinates (exact for an unturned pinhole grid; turns change it only to
// second order). The output keeps 1 / zoom^2 of the frame's area.
double gridZoom(const float* grid, int columns, int rows);

struct FrameEvaluation {
    Q output = Q::Identity();    // orientation of the output camera (world from output)
    Q intended = Q::Identity();  // the shake-free orientation at the frame's middle row
    double zoom = 1.0;           // output magnification: the one whose pinhole fits the view best
    double wobblePx = 0.0;       // spread of orientation between the output's rows
    int outsidePoints = 0;       // output border points not drawn from inside the frame
    double worstOutsidePx = 0.0;
};

// Evaluates one output frame drawn through `grid`; its magnification is found by fitting the
// output camera with the zoom free (starting from gridZoom).
FrameEvaluation evaluateFrame(const float* grid, int columns, int rows,
                              const sim::Trajectory& truth, const sim::CameraSetup& camera,
                              const sim::FrameStamp& frame);

struct Figures {
    // RMS of the > 1 Hz part of the output camera's turn away from the intended (shake-free)
    // orientation: what the intended path does itself is not jitter, and a smooth path ends
    // without the filter's end-point bend.
    double jitterPx = 0.0;
    double wobblePx = 0.0;       // mean per-frame rolling-shutter wobble
    double stability = 0.0;      // low-frequency energy share of frame-to-frame motion
    double maxAccelRadS2 = 0.0;  // largest angular acceleration of the output camera
    int framesOutside = 0;       // frames showing anything outside the input frame
    double worstOutsidePx = 0.0;
    double meanRetained = 0.0;  // share of the frame's area the output keeps, mean over frames
    double minRetained = 0.0;   // and its smallest value
    // The jitter measure over the first and over the last second alone (the filter runs over
    // the whole recording).
    double jitterFirstPx = 0.0;
    double jitterLastPx = 0.0;
    // RMS of the part above 0.5 Hz of the output magnification, per cent of its mean: zoom
    // that moves with the shake (a picture that breathes).
    double zoomHighPassPct = 0.0;
};

// Figures over consecutive frames at `fps`; `trimS` seconds at each end are left out of the
// jitter and acceleration (filter edges, start-up). Angles become output pixels at the frames'
// mean magnification.
Figures summarize(const std::vector<FrameEvaluation>& frames, const sim::CameraSetup& camera,
                  double trimS);

}  // namespace qlmr::harness

#endif  // QLMR_STAB_HARNESS_METRICS_H
