#include "Stabilizer.h"

#include <algorithm>
#include <cmath>

#include "zef_gyro_vstab.h"

namespace vstab {

namespace {

constexpr double kPi = 3.14159265358979323846;
// A frame whose timestamp lies beyond +-this is shown unwarped (status 1), before any offset
// is added to the timestamp that could overflow.
constexpr int64_t kMaxAbsFrameNs = int64_t{1} << 61;
// Longest exposure the engine reports (it clamps to 0.3 s); used to size the history.
constexpr int64_t kMaxExposureNs = 300000000;
// Inset of the crop check: the output keeps this share of the frame away from its edges, so
// that straight interpolation between checked border points cannot reach past them.
constexpr double kCropInset = 0.001;

size_t historyCapacity(const StabConfig& c) {
    const double spanS =
        static_cast<double>(c.latencyNs + c.windowNs + c.readoutNs + kMaxExposureNs) * 1e-9 + 1.5;
    return static_cast<size_t>(std::ceil(spanS * c.gyroRateMaxHz)) + 16;
}

int lookAheadNodes(int64_t latencyNs) {
    if (latencyNs <= 0) {
        return 1;
    }
    return 1 +
           static_cast<int>((latencyNs + Stabilizer::kNodeStepNs - 1) / Stabilizer::kNodeStepNs);
}

}  // namespace

bool gyroEnded(uint32_t idleAsks, int64_t newestSampleNs, int64_t firstRowNs) {
    return idleAsks >= Stabilizer::kIdleAsksForGyroEnd && newestSampleNs >= firstRowNs;
}

Stabilizer::Stabilizer(const StabConfig& config)
    : config_(config),
      history_(historyCapacity(config), config.gyroGapMaxNs),
      smoother_(3 * static_cast<size_t>(lookAheadNodes(config.latencyNs))),
      nodeCount_(lookAheadNodes(config.latencyNs)),
      nodeStepS_(nodeCount_ > 1 ? static_cast<double>(config.latencyNs) * 1e-9 / (nodeCount_ - 1)
                                : 0.0),
      rowQ_(config.gridRows),
      rowM_(config.gridRows),
      times_(std::max<size_t>(config.gridRows, 3 * lookAheadNodes(config.latencyNs))),
      nodeQ_(3 * static_cast<size_t>(lookAheadNodes(config.latencyNs))),
      nodeT_(static_cast<size_t>(nodeCount_)),
      nodeP_(static_cast<size_t>(nodeCount_)),
      nodeX_(static_cast<size_t>(nodeCount_)),
      nodeNeed_(static_cast<size_t>(nodeCount_)),
      solveT_(3 * static_cast<size_t>(nodeCount_)),
      solveP_(3 * static_cast<size_t>(nodeCount_)),
      solveUsage_(3 * static_cast<size_t>(nodeCount_)),
      solveX_(3 * static_cast<size_t>(nodeCount_)),
      zoom_(config.cropZoomMax > 0.0 ? config.cropZoomMax : config.overscan),
      // The crop check keeps the output kCropInset inside the frame on every side, which a
      // smaller magnification could never satisfy.
      lowestZoom_(
          std::min(zoom_, std::max(config.cropZoomMin, (1.0 + 1e-6) / (1.0 - 2.0 * kCropInset)))),
      planner_(lowestZoom_, zoom_) {
    // Cut-off 0.6 / window: the smoothing's time constant tau = window / (1.2 pi) is then at
    // most 0.53 x the look-ahead (latency >= window / 2), which keeps the receding-horizon path
    // from overshooting.
    const double tau = static_cast<double>(config.windowNs) * 1e-9 / (1.2 * kPi);
    params_.lambda = tau * tau * tau * tau;
    for (int i = 0; i < nodeCount_; ++i) {
        nodeT_[i] = nodeStepS_ * i;
    }
}

void Stabilizer::addAngularVelocity(int64_t timestampNs, const float* rateSensor) {
    if (rateSensor == nullptr) {
        ++counters_.samplesNonFinite;
        return;
    }
    const double s[3] = {rateSensor[0], rateSensor[1], rateSensor[2]};
    const AxisMap& m = config_.gyroAxes;
    const Vec3 cam = {m.sign[0] * s[m.axis[0]], m.sign[1] * s[m.axis[1]], m.sign[2] * s[m.axis[2]]};
    switch (history_.add(timestampNs, cam - bias_.bias())) {
        case GyroHistory::AddResult::Accepted:
            ++counters_.samplesAccepted;
            bias_.add(timestampNs, cam);
            break;
        case GyroHistory::AddResult::NonFinite:
            ++counters_.samplesNonFinite;
            break;
        case GyroHistory::AddResult::Implausible:
            ++counters_.samplesImplausible;
            break;
        case GyroHistory::AddResult::OutOfOrder:
            ++counters_.samplesOutOfOrder;
            break;
        case GyroHistory::AddResult::Duplicate:
            ++counters_.samplesDuplicate;
            break;
    }
}

Quat Stabilizer::physical(int64_t tNs) const {
    Quat q;
    history_.orientationAt(tNs, q);
    return q;
}

const Stabilizer::Committed* Stabilizer::committed(size_t back) const {
    if (back >= committedCount_) {
        return nullptr;
    }
    return &committed_[(committedHead_ + kCommittedKept - 1 - back) % kCommittedKept];
}

void Stabilizer::commit(int64_t frameNs, int64_t centreNs, const Quat& virt) {
    committed_[committedHead_] = {frameNs, centreNs, virt};
    committedHead_ = (committedHead_ + 1) % kCommittedKept;
    if (committedCount_ < kCommittedKept) {
        ++committedCount_;
    }
}

Quat Stabilizer::lastVirtual() const {
    const Committed* c = committed(0);
    return c != nullptr ? c->virt : Quat{};
}

int64_t Stabilizer::lastCentreNs() const {
    const Committed* c = committed(0);
    return c != nullptr ? c->centreNs : 0;
}

Quat Stabilizer::replay(int64_t centreNs, const Quat& physicalCentre) const {
    // A frame that is not newer than the last committed one: show it from the committed
    // path where it lies inside it, without changing the path.
    for (size_t k = 0; k + 1 < committedCount_; ++k) {
        const Committed* b = committed(k);
        const Committed* a = committed(k + 1);
        if (centreNs == b->centreNs) {
            return b->virt;
        }
        if (centreNs >= a->centreNs && centreNs < b->centreNs) {
            const double f = static_cast<double>(centreNs - a->centreNs) /
                             static_cast<double>(b->centreNs - a->centreNs);
            return slerp(a->virt, b->virt, f);
        }
    }
    const Committed* only = committed(0);
    if (only != nullptr && only->centreNs == centreNs) {
        return only->virt;
    }
    return physicalCentre;
}

Quat Stabilizer::solvePath(int64_t centreNs, int64_t dataEndNs, const FrameTiming& timing,
                           const CameraModel& camera, const Quat& physicalCentre) {
    // Continue from the last committed poses when they are recent; otherwise start afresh at
    // the physical orientation.
    SmootherProblem pr;
    Quat ref = physicalCentre;
    const Committed* last = committed(0);
    if (last != nullptr && centreNs > last->centreNs &&
        centreNs - last->centreNs <= kPathRestartNs) {
        ref = last->virt;
        const Committed* prev = committed(1);
        if (prev != nullptr && prev->centreNs < last->centreNs &&
            centreNs - prev->centreNs <= kPathRestartNs) {
            pr.pastT[0] = static_cast<double>(prev->centreNs - centreNs) * 1e-9;
            pr.pastX[0] = logMap(conj(ref) * prev->virt);
            pr.pastT[1] = static_cast<double>(last->centreNs - centreNs) * 1e-9;
            pr.pastX[1] = Vec3{};
            pr.pastCount = 2;
        } else {
            pr.pastT[0] = static_cast<double>(last->centreNs - centreNs) * 1e-9;
            pr.pastX[0] = Vec3{};
            pr.pastCount = 1;
        }
    } else {
        ++counters_.pathRestarts;
    }
    pathRestarted_ = pr.pastCount == 0;
    const Quat refInv = conj(ref);

    // The look-ahead nodes the gyro data reaches.
    nodesUsed_ = 1;
    for (int i = 1; i < nodeCount_; ++i) {
        if (centreNs + static_cast<int64_t>(std::llround(nodeT_[i] * 1e9)) <= dataEndNs) {
            nodesUsed_ = i + 1;
        }
    }
    SmootherParams params = params_;
    params.margins = cropMargins(camera, highestZoom());
    // The rows of a frame turn with the camera during readout; half that spread on either side
    // of the centre row is margin the path cannot use.
    const double halfSpanS = 0.5 * timing.rowSpanNs * 1e-9;
    startPending_ = false;

    // A look-ahead cut short (the gyro ended or stalls) on a path under way: the data there is
    // cannot tell the intended turn from the shake, so the path goes on as it was going, with
    // the velocity and curvature of the poses committed over the last half second.
    Vec3 rate, accel;
    if (nodesUsed_ < nodeCount_ && !pathRestarted_ && committedCourse(rate, accel)) {
        const double sinceLastS = static_cast<double>(centreNs - last->centreNs) * 1e-9;
        for (int i = 0; i < nodesUsed_; ++i) {
            times_[i] = centreNs + static_cast<int64_t>(std::llround(nodeT_[i] * 1e9));
        }
        history_.orientationsAt(times_.data(), static_cast<size_t>(nodesUsed_), nodeQ_.data());
        for (int i = 0; i < nodesUsed_; ++i) {
            const double t = sinceLastS + nodeT_[i];
            nodeP_[i] = logMap(refInv * nodeQ_[i]);
            nodeX_[i] = rate * t + accel * (0.5 * t * t);
        }
        if (config_.cropAdaptive != 0) {
            zoomNeeds(camera, halfSpanS);
        }
        return normalized(ref * expMap(nodeX_[0]));
    }

    // Otherwise the smoother over the look-ahead; on a new path with the gyro history before
    // the frame too (up to twice the look-ahead's span), so the path starts with the velocity the
    // data around the frame gives rather than the one its look-ahead alone suggests.
    int back = 0;
    if (pathRestarted_ && nodeCount_ > 1) {
        const int64_t stepNs = static_cast<int64_t>(std::llround(nodeStepS_ * 1e9));
        const int64_t available = (centreNs - history_.oldestNs()) / stepNs;
        back = static_cast<int>(
            std::min<int64_t>(2 * (nodeCount_ - 1), std::max<int64_t>(0, available)));
    }
    const int total = back + nodesUsed_;
    for (int k = 0; k < total; ++k) {
        solveT_[k] = k < back ? -nodeStepS_ * (back - k) : nodeT_[k - back];
        times_[k] = centreNs + static_cast<int64_t>(std::llround(solveT_[k] * 1e9));
    }
    history_.orientationsAt(times_.data(), static_cast<size_t>(total), nodeQ_.data());
    for (int k = 0; k < total; ++k) {
        solveP_[k] = logMap(refInv * nodeQ_[k]);
    }
    for (int k = 0; k < total; ++k) {
        solveUsage_[k] =
            params.margins.usage(rateAt(solveP_.data(), solveT_.data(), total, k) * halfSpanS);
    }
    pr.count = total;
    pr.t = solveT_.data();
    pr.p = solveP_.data();
    pr.extraUsage = solveUsage_.data();
    smoother_.solve(pr, params, solveX_.data());
    for (int i = 0; i < nodesUsed_; ++i) {
        nodeP_[i] = solveP_[back + i];
        nodeX_[i] = solveX_[back + i];
    }
    // A new path is committed with its pose one node before the frame as well, so the next
    // frame continues with the velocity solved here.
    if (pathRestarted_ && total >= 2) {
        const Vec3 before = back > 0 ? solveX_[back - 1] : solveX_[0] * 2.0 - solveX_[1];
        startPose_ = normalized(ref * expMap(before));
        startCentreNs_ = centreNs - static_cast<int64_t>(std::llround(nodeStepS_ * 1e9));
        startPending_ = true;
    }
    if (config_.cropAdaptive != 0) {
        zoomNeeds(camera, halfSpanS);
    }
    return normalized(ref * expMap(solveX_[back]));
}

bool Stabilizer::committedCourse(Vec3& rate, Vec3& accel) const {
    // Least-squares fit of x(t) = rate t + accel t^2 / 2 to the committed poses of the last
    // kCourseSpanNs, as rotation vectors relative to the newest (t = 0 there, t < 0 before).
    const Committed* newest = committed(0);
    if (newest == nullptr) {
        return false;
    }
    const Quat refInv = conj(newest->virt);
    double s2 = 0.0, s3 = 0.0, s4 = 0.0;
    Vec3 b1, b2;
    int used = 0;
    double oldestS = 0.0;
    for (size_t k = 1; k < committedCount_; ++k) {
        const Committed* c = committed(k);
        if (newest->centreNs - c->centreNs > kCourseSpanNs || c->centreNs >= newest->centreNs) {
            break;
        }
        const double t = static_cast<double>(c->centreNs - newest->centreNs) * 1e-9;
        const Vec3 x = logMap(refInv * c->virt);
        s2 += t * t;
        s3 += t * t * t;
        s4 += t * t * t * t;
        b1 = b1 + x * t;
        b2 = b2 + x * (0.5 * t * t);
        oldestS = t;
        ++used;
    }
    // Normal equations [s2, s3/2; s3/2, s4/4] [rate; accel] = [b1; b2]; a third of the span at
    // least, so that a short history is not read as curvature.
    const double det = s2 * 0.25 * s4 - 0.25 * s3 * s3;
    if (used < 3 || -oldestS < kCourseSpanNs * 1e-9 / 3.0 || !(det > 0.0)) {
        return false;
    }
    rate = (b1 * (0.25 * s4) - b2 * (0.5 * s3)) * (1.0 / det);
    accel = (b2 * s2 - b1 * (0.5 * s3)) * (1.0 / det);
    return true;
}

Vec3 Stabilizer::rateAt(const Vec3* p, const double* tS, int count, int i) {
    // Central difference (rad/s), one-sided at the ends; zero with one node.
    if (count < 2)
        return Vec3();
    const int a = i > 0 ? i - 1 : 0;
    const int b = i + 1 < count ? i + 1 : count - 1;
    return (p[b] - p[a]) * (1.0 / (tS[b] - tS[a]));
}

Vec3 Stabilizer::nodeRate(int i) const {
    return rateAt(nodeP_.data(), nodeT_.data(), nodesUsed_, i);
}

void Stabilizer::zoomNeeds(const CameraModel& camera, double halfSpanS) {
    // Each node's deviation from the physical path, with its frame's rolling-shutter spread,
    // needs some magnification.
    ladder_.prepare(camera, lowestZoom_, highestZoom());
    for (int i = 0; i < nodesUsed_; ++i) {
        nodeNeed_[i] =
            ladder_.zoomFor(nodeX_[i] - nodeP_[i], nodeRate(i) * halfSpanS, kZoomUsageLimit);
    }
}

void Stabilizer::updateZoom(int64_t frameNs, int64_t centreNs, bool restart) {
    if (config_.cropAdaptive == 0) {
        zoom_ = highestZoom();
    } else if (!zoomSet_ || restart || centreNs <= zoomCentreNs_) {
        // Next to frames the engine showed unwarped, start at its grid's magnification and
        // come down from there smoothly.
        const bool besideUnwarped = unwarpedSeen_ &&
                                    frameNs - unwarpedFrameNs_ <= kUnwarpedNeighbourNs &&
                                    unwarpedFrameNs_ - frameNs <= kUnwarpedNeighbourNs;
        planner_.start(nodeNeed_.data(), nodesUsed_, besideUnwarped ? config_.overscan : 0.0);
        zoom_ = planner_.zoom();
    } else {
        zoom_ = planner_.next(static_cast<double>(centreNs - zoomCentreNs_) * 1e-9,
                              nodeNeed_.data(), nodesUsed_);
    }
    zoomSet_ = true;
    zoomCentreNs_ = centreNs;
}

int Stabilizer::warp(const VStabFrameInfo& frame, float* vertices) {
    if (vertices == nullptr || frame.recordSize != sizeof(VStabFrameInfo) ||
        frame.recordKind != 2) {
        return kStatusInvalidArgument;
    }
    const int64_t ts = frame.timestampNs;
    if (ts > kMaxAbsFrameNs || ts < -kMaxAbsFrameNs) {
        ++counters_.framesNoGyroBefore;
        return kStatusNoGyroBeforeFrame;
    }
    const int64_t exposure =
        frame.exposureNs < 0 ? 0 : (frame.exposureNs > 1000000000 ? 1000000000 : frame.exposureNs);
    double zoom = frame.zoom;
    zoom = std::isfinite(zoom) ? (zoom < 1.0 ? 1.0 : (zoom > 16.0 ? 16.0 : zoom)) : 1.0;
    const FrameTiming timing = FrameTiming::make(ts, exposure, zoom, config_);

    if (history_.empty()) {
        ++counters_.framesNeedMoreGyro;
        return kStatusNeedMoreGyro;
    }
    if (timing.firstRowNs < history_.oldestNs()) {
        ++counters_.framesNoGyroBefore;
        unwarpedFrameNs_ = ts;
        unwarpedSeen_ = true;
        return kStatusNoGyroBeforeFrame;
    }
    const int64_t centre = timing.centreNs();
    const int64_t ahead = centre + config_.latencyNs;
    const int64_t needed = ahead > timing.lastRowNs() ? ahead : timing.lastRowNs();
    const bool complete = history_.newestNs() >= needed;
    if (!complete) {
        // Wait for the look-ahead, unless no sample has come for kIdleAsksForGyroEnd asks:
        // then the gyro has ended or stalls, and a frame the gyro reaches is warped with the
        // look-ahead there is rather than left to the engine's unwarped rendering.
        idleAsks_ = counters_.samplesAccepted == samplesAtLastAsk_ ? idleAsks_ + 1 : 1;
        samplesAtLastAsk_ = counters_.samplesAccepted;
        if (!gyroEnded(idleAsks_, history_.newestNs(), timing.firstRowNs)) {
            ++counters_.framesNeedMoreGyro;
            return kStatusNeedMoreGyro;
        }
        ++counters_.framesShortLookAhead;
    }

    const CameraModel camera = CameraModel::fromConfig(config_, zoom);
    const uint32_t rows = config_.gridRows;
    for (uint32_t j = 0; j < rows; ++j) {
        times_[j] = timing.rowNs(static_cast<double>(j) / (rows - 1));
    }
    history_.orientationsAt(times_.data(), rows, rowQ_.data());
    worldToCameraMatrices(rowQ_.data(), rows, rowM_.data());
    const RowOrientations rowSet{rowQ_.data(), rowM_.data(), rows};
    const Quat physicalCentre = physical(centre);

    // A frame not newer than the last committed one (a repeat, or a frame whose centre moved
    // back because its exposure shrank sharply) is shown from the committed path, which it
    // leaves unchanged; the path's times stay strictly increasing.
    const Committed* last = committed(0);
    const bool replayed = last != nullptr && (ts <= last->frameNs || centre <= last->centreNs);
    Quat virt = replayed ? replay(centre, physicalCentre)
                         : solvePath(centre, history_.newestNs(), timing, camera, physicalCentre);
    double outZoom = zoom_;
    if (!replayed) {
        updateZoom(ts, centre, pathRestarted_);
        outZoom = zoom_;
    }

    // Hard crop limit: where the smooth pose would show anything outside the frame, first
    // magnify the output up to the overscan, then turn the pose towards the physical one just
    // far enough.
    bool clamped = false;
    if (!coversOutput(camera, outZoom, virt, rowSet, kCropInset)) {
        const double maxZoom = highestZoom();
        if (outZoom < maxZoom && coversOutput(camera, maxZoom, virt, rowSet, kCropInset)) {
            double lo = outZoom;
            double hi = maxZoom;
            for (int it = 0; it < 8; ++it) {
                const double mid = 0.5 * (lo + hi);
                (coversOutput(camera, mid, virt, rowSet, kCropInset) ? hi : lo) = mid;
            }
            outZoom = hi;
        } else {
            outZoom = maxZoom;
            double lo = 0.0;
            double hi = 1.0;
            for (int it = 0; it < 10; ++it) {
                const double mid = 0.5 * (lo + hi);
                const Quat q = slerp(virt, physicalCentre, mid);
                (coversOutput(camera, outZoom, q, rowSet, kCropInset) ? hi : lo) = mid;
            }
            virt = slerp(virt, physicalCentre, hi);
            clamped = true;
            ++counters_.framesClamped;
        }
        if (!replayed && outZoom > zoom_) {
            zoom_ = outZoom;
            planner_.raiseTo(outZoom);
        }
    }

    writeGrid(camera, outZoom, virt, rowSet, config_.gridColumns, rows, vertices);
    if (replayed) {
        ++counters_.framesReplayed;
    } else {
        if (startPending_ && !clamped) {
            commit(ts - (centre - startCentreNs_), startCentreNs_, startPose_);
        }
        startPending_ = false;
        commit(ts, centre, virt);
    }
    ++counters_.framesWarped;
    return kStatusWarped;
}

}  // namespace vstab
