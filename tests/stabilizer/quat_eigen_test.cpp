// The library's own allocation-free rotation arithmetic against Eigen's on random rotations.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <random>

#include "Quat.h"

namespace vstab {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kRotations = 2000;

// Random rotation vectors: uniform axis, angle uniform in [0, pi), a quarter of them below the
// library's Taylor-series threshold of 0.25 rad.
class RandomRotations {
  public:
    Vec3 next() {
        const Eigen::Vector3d axis =
            Eigen::Vector3d(normal_(rng_), normal_(rng_), normal_(rng_)).normalized();
        const double angle = (count_++ % 4 == 0 ? 0.25 : kPi) * unit_(rng_);
        return {axis.x() * angle, axis.y() * angle, axis.z() * angle};
    }

  private:
    std::mt19937_64 rng_{20240611};
    std::normal_distribution<double> normal_;
    std::uniform_real_distribution<double> unit_{0.0, 1.0};
    int count_ = 0;
};

Eigen::Vector3d toEigen(const Vec3& v) {
    return {v.x, v.y, v.z};
}
Eigen::Quaterniond toEigen(const Quat& q) {
    return {q.w, q.x, q.y, q.z};
}
Eigen::Quaterniond eigenExp(const Vec3& r) {
    const Eigen::Vector3d v = toEigen(r);
    return Eigen::Quaterniond(Eigen::AngleAxisd(v.norm(), v.normalized()));
}

TEST(StabRotationAgainstEigen, ExpAndLogMatchAngleAxis) {
    RandomRotations random;
    for (int i = 0; i < kRotations; ++i) {
        const Vec3 r = random.next();
        const Quat q = expMap(r);
        EXPECT_TRUE(toEigen(q).coeffs().isApprox(eigenExp(r).coeffs(), 1e-14)) << i;
        const Eigen::AngleAxisd aa(eigenExp(r));
        EXPECT_LT((toEigen(logMap(q)) - aa.angle() * aa.axis()).norm(), 1e-12) << i;
    }
}

TEST(StabRotationAgainstEigen, ProductConjugateAndAngleMatch) {
    RandomRotations random;
    for (int i = 0; i < kRotations; ++i) {
        const Quat a = expMap(random.next());
        const Quat b = expMap(random.next());
        EXPECT_TRUE(toEigen(a * b).coeffs().isApprox((toEigen(a) * toEigen(b)).coeffs(), 1e-14));
        EXPECT_TRUE(toEigen(conj(a)).coeffs().isApprox(toEigen(a).inverse().coeffs(), 1e-14));
        EXPECT_NEAR(angleBetween(a, b), toEigen(a).angularDistance(toEigen(b)), 1e-9) << i;
    }
}

TEST(StabRotationAgainstEigen, MatrixAndRotatedVectorMatch) {
    RandomRotations random;
    for (int i = 0; i < kRotations; ++i) {
        const Quat q = expMap(random.next());
        const Mat3 m = toMat3(q);
        const Eigen::Matrix3d e = toEigen(q).toRotationMatrix();
        using RowMajor = Eigen::Matrix<double, 3, 3, Eigen::RowMajor>;
        EXPECT_TRUE(Eigen::Map<const RowMajor>(m.m).isApprox(e, 1e-14)) << i;
        const Vec3 v = random.next();
        EXPECT_LT((toEigen(rotate(q, v)) - toEigen(q) * toEigen(v)).norm(),
                  1e-14 * (1.0 + toEigen(v).norm()))
            << i;
    }
}

TEST(StabRotationAgainstEigen, SlerpFollowsTheShorterArc) {
    RandomRotations random;
    std::uniform_real_distribution<double> fraction(0.0, 1.0);
    std::mt19937_64 rng(7);
    for (int i = 0; i < kRotations; ++i) {
        const Quat a = expMap(random.next());
        const Quat b = expMap(random.next());
        const double f = fraction(rng);
        const Eigen::Quaterniond expected = toEigen(a).slerp(f, toEigen(b));
        EXPECT_LT(toEigen(slerp(a, b, f)).angularDistance(expected), 1e-9) << i;
    }
}

}  // namespace
}  // namespace vstab
