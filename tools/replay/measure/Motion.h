// Global image motion from pixels: a similarity transform (scale, rotation, translation)
// between two luma pictures, estimated coarse to fine (exhaustive translation search at the
// coarsest level, then robust inverse-compositional Gauss-Newton at every level).
#pragma once

#include "media/Image.h"

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
    // Sampling steps, in pixels, below the coarsest level when the picture holds at least
    // finestStepMinPixels: the two finest levels every third row and column, the levels
    // between them and the coarsest every other one. Those levels start within about a pixel
    // of the answer; at the tool's 640-pixel-wide luma a ninth of the finest level's pixels
    // settle it within a few hundredths of a pixel of what all of them give, and they were
    // most of the work. Smaller pictures keep every pixel.
    int finestStep = 3;
    int coarserStep = 2;
    int finestStepMinPixels = 160000;
    // Sampling step of the coarsest level's translation search (every third row and column).
    int searchStep = 3;
    // A level stops iterating when the last update moves the picture's edge by less than
    // this (that level's pixels).
    double finestTolerancePx = 0.01;
    // Large pictures only (finestStepMinPixels): the finest level iterates at most
    // finestIterations times, and the levels between it and the coarsest stop at
    // coarseTolerancePx (they only bring the next level within its basin).
    int finestIterations = 4;
    double coarseTolerancePx = 0.05;
    // Gauss-Newton sums with the processor's vector unit where it has one (AVX2 and FMA);
    // false: the portable code. The two differ by float rounding only.
    bool vectorKernels = true;
};

// A picture prepared for registration: float levels, each half the size of the one below
// (means of 2x2 pixels), down to the last level whose sides are both at least `minSize`.
// Built once per picture, it serves any number of registrations, on either side.
class MotionPyramid {
  public:
    void build(const GrayImage& image, int minSize);
    int width() const { return levels_.empty() ? 0 : levels_[0].width; }
    int height() const { return levels_.empty() ? 0 : levels_[0].height; }
    int levels() const { return static_cast<int>(levels_.size()); }

  private:
    friend class MotionEstimator;
    struct Level {
        int width = 0;
        int height = 0;
        std::vector<float> pixels;
    };
    std::vector<Level> levels_;
};

// Keeps its buffers between calls (no allocation once warm); one per thread.
class MotionEstimator {
  public:
    MotionEstimate estimate(const GrayImage& reference, const GrayImage& moving,
                            const Similarity& initial, const MotionOptions& options);
    // The same on pyramids built with options.minSize.
    MotionEstimate estimate(const MotionPyramid& reference, const MotionPyramid& moving,
                            const Similarity& initial, const MotionOptions& options);

  private:
    MotionPyramid ref_;
    MotionPyramid mov_;
    // The sampled reference pixels of one level, row by row: value and central-difference
    // gradient, as three arrays so that the Gauss-Newton sums take eight samples at a time.
    std::vector<float> sampleValue_;
    std::vector<float> sampleGx_;
    std::vector<float> sampleGy_;
    // The coarsest level's sparse grid mapped into the moving picture for the offset search:
    // the integer part of each position and its bilinear weights, and the reference pixel.
    struct SearchGrid {
        std::vector<int> ix, iy;
        std::vector<float> fx, fy, value;
        int total = 0;  // grid pixels, mapped inside or not
    };
    SearchGrid search_;
};

// One registration to run: `moving` against `reference`; registerPairs fills in the result.
struct PairRegistration {
    const GrayImage* reference = nullptr;
    const GrayImage* moving = nullptr;
    Similarity initial;
    const MotionOptions* options = nullptr;
    MotionEstimate result;
};

// Runs every registration of `jobs` on `threads` threads, each taking a contiguous run of
// jobs. A picture met again in the next job (consecutive pairs of a frame sequence share a
// frame) keeps its pyramid: each frame of a chain is prepared once, not twice.
void registerPairs(std::vector<PairRegistration>& jobs, int threads);

}  // namespace qlmr::replay
