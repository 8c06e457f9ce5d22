// One stabilization session: gyro history, virtual camera path and warp grids.
//
// The engine calls addAngularVelocity from its gyro thread and warp from its processing thread,
// never both at once (it holds one mutex around every call), so the class has no lock of its
// own. Every buffer is allocated by the constructor; neither call allocates.
#ifndef ZEF_VSTAB_STABILIZER_H
#define ZEF_VSTAB_STABILIZER_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "BiasEstimator.h"
#include "Config.h"
#include "GyroHistory.h"
#include "PathSmoother.h"
#include "Quat.h"
#include "Warp.h"

struct VStabFrameInfo;

namespace vstab {

// Warp statuses, as the engine tells them apart.
constexpr int kStatusWarped = 0;
constexpr int kStatusNoGyroBeforeFrame = 1;  // render unwarped, never retry
constexpr int kStatusNeedMoreGyro = 2;       // keep the frame, retry when more samples came
constexpr int kStatusInvalidArgument = -22;  // a contract violation; the engine stops

class Stabilizer {
  public:
    struct Counters {
        uint64_t samplesAccepted = 0;
        uint64_t samplesNonFinite = 0;
        uint64_t samplesImplausible = 0;
        uint64_t samplesOutOfOrder = 0;
        uint64_t samplesDuplicate = 0;
        uint64_t framesWarped = 0;
        uint64_t framesNoGyroBefore = 0;
        uint64_t framesNeedMoreGyro = 0;
        uint64_t framesReplayed = 0;  // a frame not newer than the last committed one
        uint64_t framesClamped = 0;   // the crop limit overrode the smooth path
        uint64_t pathRestarts = 0;    // no recent committed pose to continue from
    };

    // Smallest time step between the smoother's look-ahead nodes.
    static constexpr int64_t kNodeStepNs = 16666667;
    // A frame further than this from the last committed one starts a new path.
    static constexpr int64_t kPathRestartNs = 1000000000;

    explicit Stabilizer(const StabConfig& config);

    const StabConfig& config() const { return config_; }
    const Counters& counters() const { return counters_; }
    const GyroHistory& history() const { return history_; }
    const BiasEstimator& bias() const { return bias_; }

    // One gyro sample in the sensor's axes (rad/s). Samples that cannot be used (not finite,
    // absurd, out of order, repeated) are counted and dropped; the call always succeeds. The
    // offset estimated while the camera was at rest is taken off before integration.
    void addAngularVelocity(int64_t timestampNs, const float* rateSensor);

    // Warp grid of one frame into `vertices` (gridColumns x gridRows x 3 floats). Returns
    // kStatusWarped, kStatusNoGyroBeforeFrame, kStatusNeedMoreGyro or kStatusInvalidArgument.
    int warp(const VStabFrameInfo& frame, float* vertices);

    // The virtual camera orientation committed for the newest warped frame (identity before
    // the first), and that frame's centre time in the gyro time base.
    Quat lastVirtual() const;
    int64_t lastCentreNs() const;
    // Output magnification of the newest warped frame (output half-widths per frame
    // half-width; the picture keeps 1 / zoom^2 of the frame's area).
    double outputZoom() const { return zoom_; }

    // Adaptive crop: the magnification a node needs may be reached at most this fast, so a
    // need seen ahead raises the zoom early; without a need it falls back this slowly.
    static constexpr double kZoomRisePerS = 0.3;
    static constexpr double kZoomFallPerS = 0.05;
    // Share of the crop margin the adaptive zoom leaves the path (the rest is spare for the
    // hard limit's exact check).
    static constexpr double kZoomUsageLimit = 0.85;

  private:
    struct Committed {
        int64_t frameNs;   // frame timestamp as the engine gave it
        int64_t centreNs;  // the frame's centre row time, gyro time base
        Quat virt;
    };

    Quat physical(int64_t tNs) const;
    Quat solvePath(int64_t centreNs, const FrameTiming& timing, const CameraModel& camera,
                   const Quat& physicalCentre);
    Quat replay(int64_t centreNs, const Quat& physicalCentre) const;
    // Output magnification for the frame whose path was solved last (uses nodeX_, nodeP_).
    double zoomTarget(const CameraModel& camera, double halfSpanS);
    // Angular rate of the physical path at look-ahead node i (rad/s); needs nodeP_ and nodeT_.
    Vec3 nodeRate(int i) const;
    // Largest output magnification (vstab.cropZoomMax, the overscan unless set).
    double highestZoom() const {
        return config_.cropZoomMax > 0.0 ? config_.cropZoomMax : config_.overscan;
    }
    void updateZoom(int64_t centreNs, double target, bool restart);
    const Committed* committed(size_t back) const;  // 0 = newest
    void commit(int64_t frameNs, int64_t centreNs, const Quat& virt);

    StabConfig config_;
    Counters counters_;
    GyroHistory history_;
    BiasEstimator bias_;
    PathSmoother smoother_;
    SmootherParams params_;
    int nodeCount_;     // look-ahead nodes including the frame's own
    double nodeStepS_;  // seconds between them

    // Per-frame work buffers, sized once.
    std::vector<Quat> rowQ_;
    std::vector<Mat3> rowM_;
    std::vector<int64_t> times_;  // query times, ascending
    std::vector<Quat> nodeQ_;
    std::vector<double> nodeT_;
    std::vector<Vec3> nodeP_;
    std::vector<double> nodeUsage_;
    std::vector<Vec3> nodeX_;  // solved path at the nodes

    ZoomLadder ladder_;
    double zoom_;               // current output magnification
    double lowestZoom_;         // smallest one the adaptive crop uses
    int64_t zoomCentreNs_ = 0;  // centre time of the frame it was set for
    bool zoomSet_ = false;
    bool pathRestarted_ = false;  // the last solvePath found no recent pose to continue from
    double zoomWanted_ = 0.0;     // target of the last solvePath

    static constexpr size_t kCommittedKept = 16;
    Committed committed_[kCommittedKept];
    size_t committedCount_ = 0;
    size_t committedHead_ = 0;  // index of the next slot to write
};

}  // namespace vstab

#endif  // ZEF_VSTAB_STABILIZER_H
