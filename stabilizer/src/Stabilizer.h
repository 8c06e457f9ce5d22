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
#include "ZoomPlanner.h"

struct VStabFrameInfo;

namespace vstab {

// Warp statuses, as the engine tells them apart.
constexpr int kStatusWarped = 0;
constexpr int kStatusNoGyroBeforeFrame = 1;  // render unwarped, never retry
constexpr int kStatusNeedMoreGyro = 2;       // keep the frame, retry when more samples came
constexpr int kStatusInvalidArgument = -22;  // a contract violation; the engine stops

// True when a frame still waiting for look-ahead is to be warped with the look-ahead there is:
// idleAsks asks in a row (this one included) came without a new gyro sample, and the gyro
// reaches the frame's first row. A frame the gyro does not reach at all stays waiting (the
// engine renders it unwarped when it drains its queue).
bool gyroEnded(uint32_t idleAsks, int64_t newestSampleNs, int64_t firstRowNs);

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
        uint64_t framesReplayed = 0;        // a frame not newer than the last committed one
        uint64_t framesClamped = 0;         // the crop limit overrode the smooth path
        uint64_t pathRestarts = 0;          // no recent committed pose to continue from
        uint64_t framesShortLookAhead = 0;  // warped with the look-ahead the gyro gave
    };

    // Smallest time step between the smoother's look-ahead nodes.
    static constexpr int64_t kNodeStepNs = 16666667;
    // A frame further than this from the last committed one starts a new path.
    static constexpr int64_t kPathRestartNs = 1000000000;
    // Span of committed poses whose course a path follows where the look-ahead is cut short.
    static constexpr int64_t kCourseSpanNs = 500000000;
    // Asks for frames still waiting for look-ahead, in a row without any new gyro sample, after
    // which the gyro is taken to have ended (or stalled) and frames are warped with the
    // look-ahead there is. The engine asks every 5..10 ms while a frame waits (30 asks: 150..300
    // ms, plus scheduling) and forces its queue out unwarped about 1 s after recording stops;
    // a phone's gyro delivers every 2.5..10 ms, batched at most 100 ms.
    static constexpr uint32_t kIdleAsksForGyroEnd = 30;
    // A path that starts within this of a frame shown unwarped (status 1) starts at the
    // magnification of the engine's unwarped grid, so the picture does not jump.
    static constexpr int64_t kUnwarpedNeighbourNs = 1000000000;

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
    // Solves the path for the frame over the look-ahead nodes up to dataEndNs (at least the
    // frame's own node) and commits the result.
    Quat solvePath(int64_t centreNs, int64_t dataEndNs, const FrameTiming& timing,
                   const CameraModel& camera, const Quat& physicalCentre);
    Quat replay(int64_t centreNs, const Quat& physicalCentre) const;
    // Magnification each node of the path solved last needs (nodeNeed_; uses nodeX_, nodeP_).
    void zoomNeeds(const CameraModel& camera, double halfSpanS);
    // Angular rate of the physical path at look-ahead node i (rad/s); needs nodeP_ and nodeT_.
    Vec3 nodeRate(int i) const;
    // Rate of the path p (rad/s) at node i of count nodes at times tS: central difference,
    // one-sided at the ends, zero for a single node.
    static Vec3 rateAt(const Vec3* p, const double* tS, int count, int i);
    // Velocity (rad/s) and angular acceleration (rad/s^2) of the committed path over its last
    // kCourseSpanNs, relative to the newest committed pose; false without enough of it.
    bool committedCourse(Vec3& rate, Vec3& accel) const;
    // Largest output magnification (vstab.cropZoomMax, the overscan unless set).
    double highestZoom() const {
        return config_.cropZoomMax > 0.0 ? config_.cropZoomMax : config_.overscan;
    }
    void updateZoom(int64_t frameNs, int64_t centreNs, bool restart);
    const Committed* committed(size_t back) const;  // 0 = newest
    void commit(int64_t frameNs, int64_t centreNs, const Quat& virt);

    StabConfig config_;
    Counters counters_;
    GyroHistory history_;
    BiasEstimator bias_;
    PathSmoother smoother_;
    SmootherParams params_;
    int nodeCount_;      // look-ahead nodes including the frame's own
    int nodesUsed_ = 0;  // of them, those the last solvePath had gyro data for
    double nodeStepS_;   // seconds between them

    // Per-frame work buffers, sized once.
    std::vector<Quat> rowQ_;
    std::vector<Mat3> rowM_;
    std::vector<int64_t> times_;  // query times, ascending
    std::vector<Quat> nodeQ_;
    std::vector<double> nodeT_;
    std::vector<Vec3> nodeP_;
    std::vector<Vec3> nodeX_;       // solved path at the nodes
    std::vector<double> nodeNeed_;  // magnification each node needs
    // The smoother's problem: gyro history before the frame (new paths only, up to twice the
    // look-ahead's span) and the look-ahead the data reaches; up to three times the look-ahead's
    // nodes. Times in seconds from the frame's centre.
    std::vector<double> solveT_;
    std::vector<Vec3> solveP_;
    std::vector<double> solveUsage_;
    std::vector<Vec3> solveX_;
    // A new path's pose one node before its first frame, committed with that frame.
    Quat startPose_;
    int64_t startCentreNs_ = 0;
    bool startPending_ = false;

    ZoomLadder ladder_;
    double zoom_;        // current output magnification
    double lowestZoom_;  // smallest one the adaptive crop uses
    ZoomPlanner planner_;
    int64_t zoomCentreNs_ = 0;  // centre time of the frame it was set for
    bool zoomSet_ = false;
    bool pathRestarted_ = false;  // the last solvePath found no recent pose to continue from
    // Frame timestamp of the newest frame answered with status 1 (shown unwarped).
    int64_t unwarpedFrameNs_ = 0;
    bool unwarpedSeen_ = false;
    // Asks in a row for frames waiting for look-ahead without a new sample in between.
    uint32_t idleAsks_ = 0;
    uint64_t samplesAtLastAsk_ = 0;

    static constexpr size_t kCommittedKept = 64;
    Committed committed_[kCommittedKept];
    size_t committedCount_ = 0;
    size_t committedHead_ = 0;  // index of the next slot to write
};

}  // namespace vstab

#endif  // ZEF_VSTAB_STABILIZER_H
