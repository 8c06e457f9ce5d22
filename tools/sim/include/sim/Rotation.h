// Rotation arithmetic of the simulator: vectors, unit quaternions, rotation matrices (double).
// Independent of the stabilization library on purpose: the simulator is the ground truth the
// library is measured against. Pure inline functions, usable from any thread.
//
// An orientation q maps camera coordinates (x right, y down, z forward) to world coordinates.
#ifndef QLMR_SIM_ROTATION_H
#define QLMR_SIM_ROTATION_H

#include <cmath>

namespace qlmr::sim {

struct V3 {
    double x = 0.0, y = 0.0, z = 0.0;
    double& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    double operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
};
inline V3 operator+(V3 a, V3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline V3 operator-(V3 a, V3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline V3 operator*(V3 a, double s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline double dot(V3 a, V3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline double length(V3 a) {
    return std::sqrt(dot(a, a));
}
inline V3 unit(V3 a) {
    return a * (1.0 / length(a));
}

struct Q {
    double w = 1.0, x = 0.0, y = 0.0, z = 0.0;
};
inline Q operator*(Q a, Q b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,
            a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
            a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}
inline Q inverse(Q q) {
    return {q.w, -q.x, -q.y, -q.z};
}
inline Q unit(Q q) {
    const double n = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    return {q.w / n, q.x / n, q.y / n, q.z / n};
}
// Rotation about `axis` (unit) by `angle` radians.
inline Q axisAngle(V3 axis, double angle) {
    const double s = std::sin(0.5 * angle);
    return {std::cos(0.5 * angle), axis.x * s, axis.y * s, axis.z * s};
}
inline Q fromRotationVector(V3 r) {
    const double a = length(r);
    if (a < 1e-12) {
        return unit(Q{1.0, 0.5 * r.x, 0.5 * r.y, 0.5 * r.z});
    }
    return axisAngle(r * (1.0 / a), a);
}
inline V3 toRotationVector(Q q) {
    if (q.w < 0) {
        q = {-q.w, -q.x, -q.y, -q.z};
    }
    const double s = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z);
    if (s < 1e-15) {
        return {2 * q.x, 2 * q.y, 2 * q.z};
    }
    const double k = 2.0 * std::atan2(s, q.w) / s;
    return {q.x * k, q.y * k, q.z * k};
}
inline V3 rotate(Q q, V3 v) {
    const Q r = q * Q{0.0, v.x, v.y, v.z} * inverse(q);
    return {r.x, r.y, r.z};
}
inline double angle(Q a, Q b) {
    return length(toRotationVector(inverse(a) * b));
}

}  // namespace qlmr::sim

#endif  // QLMR_SIM_ROTATION_H
