// Rotation arithmetic of the tools (simulator, quality harness, replay tool) on Eigen: vectors,
// unit quaternions, rotation matrices (double) and rotation vectors (axis * angle, radians).
// Independent of the stabilization library on purpose: the simulator is the ground truth the
// library is measured against. Pure inline functions, usable from any thread.
//
// An orientation maps camera coordinates (x right, y down, z forward) to world coordinates.
#ifndef QLMR_SIM_ROTATION_H
#define QLMR_SIM_ROTATION_H

#include <Eigen/Geometry>

namespace qlmr::sim {

// Eigen leaves its values uninitialized: write V3::Zero(), Q::Identity(), M3::Identity().
using V3 = Eigen::Vector3d;
using Q = Eigen::Quaterniond;
using M3 = Eigen::Matrix3d;

// Rotation by |r| radians about r.
inline Q fromRotationVector(const V3& r) {
    const double a = r.norm();
    return a > 0.0 ? Q(Eigen::AngleAxisd(a, r / a)) : Q::Identity();
}
// The shortest rotation vector of q (angle in [0, pi]).
inline V3 toRotationVector(const Q& q) {
    const Eigen::AngleAxisd aa(q);
    return aa.angle() * aa.axis();
}
inline V3 toRotationVector(const M3& r) {
    return toRotationVector(Q(r));
}
// Yaw about y, then pitch about x, then roll about z (radians): R = Ry(yaw) Rx(pitch) Rz(roll).
inline Q fromYawPitchRoll(double yaw, double pitch, double roll) {
    return Q(Eigen::AngleAxisd(yaw, V3::UnitY()) * Eigen::AngleAxisd(pitch, V3::UnitX()) *
             Eigen::AngleAxisd(roll, V3::UnitZ()));
}

}  // namespace qlmr::sim

#endif  // QLMR_SIM_ROTATION_H
