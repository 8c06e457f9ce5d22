// Global image motion from pixels: a similarity transform (scale, rotation, translation)
// between two luma pictures, estimated coarse to fine (exhaustive translation search at the
// coarsest level, then robust Gauss-Newton at every level).
#pragma once

#include "Image.h"

#include <vector>

namespace qlmr::replay {

// Maps a point x of the reference picture to the moving picture:
//   x_moving = scale * Rot(angle) * (x - c) + c + (tx, ty),  c = the reference picture's centre.
// Pixel units, angle in radians (positive = counter-clockwise in a y-down picture, i.e. the
// moving picture's content appears rotated clockwise... see docs/replay.md for the sign use).
struct Similarity {
    double scale = 1;
    double angle = 0;
    double tx = 0;
    double ty = 0;
};

struct MotionEstimate {
    Similarity motion;
    double rmsResidual = 0;  // grey levels, over the pixels used
    double usedShare = 0;    // share of reference pixels that map inside the moving picture
    bool ok = false;         // false when too little overlap or no convergence
};

struct MotionOptions {
    // Translation searched exhaustively at the coarsest level, in that level's pixels.
    int searchRadius = 8;
    // Scales tried at the coarsest level (the initial guess's scale is always tried).
    std::vector<double> scales;
    int iterations = 12;  // Gauss-Newton iterations per level
    int minSize = 40;     // the pyramid stops before a level smaller than this (either side)
    // Sampling step on the two finest levels, in pixels, when the picture holds at least
    // finestStepMinPixels (2: every other row and column). Those levels start within about a
    // pixel of the answer; at the tool's 640-pixel-wide luma a quarter of their pixels settle
    // it as well as all of them, and they were most of the work. Smaller pictures keep every
    // pixel.
    int finestStep = 2;
    int finestStepMinPixels = 160000;
};

// Keeps its pyramids between calls; one per thread.
class MotionEstimator {
  public:
    MotionEstimate estimate(const GrayImage& reference, const GrayImage& moving,
                            const Similarity& initial, const MotionOptions& options);

  private:
    struct Level {
        int width = 0;
        int height = 0;
        std::vector<float> pixels;
        std::vector<float> gx;
        std::vector<float> gy;
    };
    static void build(const GrayImage& image, int levels, std::vector<Level>& pyramid);

    std::vector<Level> ref_;
    std::vector<Level> mov_;
};

}  // namespace qlmr::replay
