// Small 3-D rotation helpers for the synthetic camera: 3x3 matrices, rotation vectors
// (axis * angle, radians) and their exponential / logarithm.
#pragma once

#include <cmath>

namespace qlmr::replay {

struct Vec3 {
    double x = 0;
    double y = 0;
    double z = 0;
};

inline Vec3 operator+(Vec3 a, Vec3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(Vec3 a, Vec3 b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(double s, Vec3 a) {
    return {s * a.x, s * a.y, s * a.z};
}
inline double dot(Vec3 a, Vec3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline double norm(Vec3 a) {
    return std::sqrt(dot(a, a));
}

// Row-major 3x3 matrix.
struct Mat3 {
    double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    static Mat3 identity() { return Mat3{}; }
    Vec3 operator*(Vec3 v) const {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
                m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
    Mat3 operator*(const Mat3& o) const {
        Mat3 r;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
            }
        }
        return r;
    }
    Mat3 transposed() const {
        Mat3 r;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j)
                r.m[i][j] = m[j][i];
        }
        return r;
    }
};

// Rotation by |v| radians about v (Rodrigues).
inline Mat3 rotationFromVector(Vec3 v) {
    const double a = norm(v);
    if (a < 1e-12) {
        Mat3 r;
        r.m[0][1] = -v.z;
        r.m[0][2] = v.y;
        r.m[1][0] = v.z;
        r.m[1][2] = -v.x;
        r.m[2][0] = -v.y;
        r.m[2][1] = v.x;
        return r;
    }
    const double x = v.x / a, y = v.y / a, z = v.z / a;
    const double c = std::cos(a), s = std::sin(a), t = 1 - c;
    Mat3 r;
    r.m[0][0] = t * x * x + c;
    r.m[0][1] = t * x * y - s * z;
    r.m[0][2] = t * x * z + s * y;
    r.m[1][0] = t * x * y + s * z;
    r.m[1][1] = t * y * y + c;
    r.m[1][2] = t * y * z - s * x;
    r.m[2][0] = t * x * z - s * y;
    r.m[2][1] = t * y * z + s * x;
    r.m[2][2] = t * z * z + c;
    return r;
}

// Inverse of rotationFromVector for rotations below pi.
inline Vec3 vectorFromRotation(const Mat3& r) {
    const double c = (r.m[0][0] + r.m[1][1] + r.m[2][2] - 1) * 0.5;
    const double a = std::acos(c < -1 ? -1 : (c > 1 ? 1 : c));
    const Vec3 w{r.m[2][1] - r.m[1][2], r.m[0][2] - r.m[2][0], r.m[1][0] - r.m[0][1]};
    if (a < 1e-9)
        return 0.5 * w;
    return (a / (2 * std::sin(a))) * w;
}

}  // namespace qlmr::replay
