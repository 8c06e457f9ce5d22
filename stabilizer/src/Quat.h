// Rotation arithmetic of the stabilization library: 3-vectors, unit quaternions and 3x3
// rotation matrices in double precision. Pure inline functions without state, usable from any
// thread.
//
// Convention: an orientation q maps camera coordinates to world coordinates
// (v_world = q * v_cam * conj(q)). The camera frame is x right, y down (growing with the image
// row), z along the optical axis. A body rate w (rad/s, camera axes) advances an orientation as
// q(t + dt) = q(t) * expMap(w * dt).
#ifndef ZEF_VSTAB_QUAT_H
#define ZEF_VSTAB_QUAT_H

#include <cmath>

namespace vstab {

struct Vec3 {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

inline Vec3 operator+(const Vec3& a, const Vec3& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(const Vec3& a, const Vec3& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(const Vec3& a, double s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline double dot(const Vec3& a, const Vec3& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline double norm(const Vec3& a) {
    return std::sqrt(dot(a, a));
}
inline Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline bool isFinite(const Vec3& a) {
    return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z);
}

struct Quat {
    double w = 1.0;
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

inline Quat operator*(const Quat& a, const Quat& b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z,
            a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
            a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

inline Quat conj(const Quat& q) {
    return {q.w, -q.x, -q.y, -q.z};
}

inline Quat normalized(const Quat& q) {
    const double n = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    if (!(n > 0.0) || !std::isfinite(n)) {
        return Quat{};
    }
    const double s = 1.0 / n;
    return {q.w * s, q.x * s, q.y * s, q.z * s};
}

// Rotation by the rotation vector r (axis times angle, radians). Exact for any angle: below
// 0.25 rad (every step of gyro integration) a Taylor series accurate to machine precision
// replaces sin and cos.
inline Quat expMap(const Vec3& r) {
    const double a2 = dot(r, r);
    double c;
    double k;  // sin(a/2)/a
    if (a2 < 0.0625) {
        c = 1.0 + a2 * (-1.0 / 8 + a2 * (1.0 / 384 + a2 * (-1.0 / 46080 + a2 * (1.0 / 10321920))));
        k = 0.5 +
            a2 * (-1.0 / 48 + a2 * (1.0 / 3840 + a2 * (-1.0 / 645120 + a2 * (1.0 / 185794560))));
    } else {
        const double a = std::sqrt(a2);
        c = std::cos(0.5 * a);
        k = std::sin(0.5 * a) / a;
    }
    return {c, r.x * k, r.y * k, r.z * k};
}

// Inverse of expMap for a unit quaternion, taking the shorter of the two equivalent rotations
// (angle in 0..pi).
inline Vec3 logMap(const Quat& qIn) {
    Quat q = qIn;
    if (q.w < 0.0) {
        q = {-q.w, -q.x, -q.y, -q.z};
    }
    const double s = std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z);
    double k;  // angle / sin(angle/2)
    if (s < 1e-8) {
        k = 2.0 / (q.w > 0.0 ? q.w : 1.0);
    } else {
        k = 2.0 * std::atan2(s, q.w) / s;
    }
    return {q.x * k, q.y * k, q.z * k};
}

// Angle of the rotation between two orientations, radians in 0..pi.
inline double angleBetween(const Quat& a, const Quat& b) {
    return norm(logMap(conj(a) * b));
}

// Spherical interpolation from a (f = 0) to b (f = 1) along the shorter arc.
inline Quat slerp(const Quat& a, const Quat& b, double f) {
    return normalized(a * expMap(logMap(conj(a) * b) * f));
}

struct Mat3 {
    double m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // row-major
};

inline Mat3 toMat3(const Quat& q) {
    const double ww = q.w * q.w, xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
    const double xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
    const double wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
    Mat3 r;
    r.m[0] = ww + xx - yy - zz;
    r.m[1] = 2.0 * (xy - wz);
    r.m[2] = 2.0 * (xz + wy);
    r.m[3] = 2.0 * (xy + wz);
    r.m[4] = ww - xx + yy - zz;
    r.m[5] = 2.0 * (yz - wx);
    r.m[6] = 2.0 * (xz - wy);
    r.m[7] = 2.0 * (yz + wx);
    r.m[8] = ww - xx - yy + zz;
    return r;
}

inline Vec3 operator*(const Mat3& a, const Vec3& v) {
    return {a.m[0] * v.x + a.m[1] * v.y + a.m[2] * v.z, a.m[3] * v.x + a.m[4] * v.y + a.m[5] * v.z,
            a.m[6] * v.x + a.m[7] * v.y + a.m[8] * v.z};
}

inline Vec3 rotate(const Quat& q, const Vec3& v) {
    return toMat3(q) * v;
}

}  // namespace vstab

#endif  // ZEF_VSTAB_QUAT_H
