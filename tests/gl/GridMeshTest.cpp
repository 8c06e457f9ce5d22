#include <gtest/gtest.h>

#include <vector>

#include "cTGridMesh.h"
#include "cTGridMeshIndices.h"

// Found by argument-dependent lookup from std::vector's comparison.
bool operator==(const cTGridMesh::vec2& a, const cTGridMesh::vec2& b) {
    return a.x == b.x && a.y == b.y;
}

namespace {

using V = cTGridMesh::vec2;

std::vector<unsigned short> strip(int w, int h) {
    cTGridMeshIndices indices;
    indices.resize(w, h);
    return indices.indices;
}

TEST(cTGridMesh, UniformBorderRepeatsTheInteriorRingNormalizeAndRotate) {
    cTGridMesh mesh;
    mesh.resize(4, 4);
    mesh.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
    auto at = [&](int i, int j) { return mesh.vertices[j * 4 + i]; };
    EXPECT_TRUE(at(1, 1) == (V{0, 0}));
    EXPECT_TRUE(at(2, 1) == (V{1, 0}));
    EXPECT_TRUE(at(1, 2) == (V{0, 1}));
    EXPECT_TRUE(at(2, 2) == (V{1, 1}));
    // Every border vertex equals its nearest interior vertex, corners included.
    for (int j = 0; j < 4; ++j) {
        for (int i = 0; i < 4; ++i) {
            int ci = i == 0 ? 1 : (i == 3 ? 2 : i), cj = j == 0 ? 1 : (j == 3 ? 2 : j);
            EXPECT_TRUE(at(i, j) == at(ci, cj)) << i << "," << j;
        }
    }

    // 6 x 5 with the engine's range: interior steps of 1/3 in x and 1/2 in y.
    cTGridMesh wide;
    wide.resize(6, 5);
    wide.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
    EXPECT_FLOAT_EQ(wide.vertices[2 * 6 + 2].x, 1.0f / 3.0f);
    EXPECT_FLOAT_EQ(wide.vertices[2 * 6 + 2].y, 0.5f);
    EXPECT_TRUE(wide.vertices[4 * 6 + 5] == (V{1, 1}));

    // The same dimensions keep the values; new ones keep the overlap and add zeros.
    mesh.vertices[5] = V{7, 8};
    mesh.resize(4, 4);
    EXPECT_TRUE(mesh.vertices[5] == (V{7, 8}));
    mesh.resize(4, 5);
    EXPECT_TRUE(mesh.vertices[5] == (V{7, 8}));
    EXPECT_TRUE(mesh.vertices[19] == (V{0, 0}));

    // Uniform fill, normalize and rotate on 3 x 2.
    mesh.resize(3, 2);
    mesh.uniform(-1.0f, 3.0f, 1.0f, -3.0f);
    EXPECT_TRUE(mesh.vertices[0] == (V{-1, -3}));
    EXPECT_TRUE(mesh.vertices[1] == (V{0, -3}));
    EXPECT_TRUE(mesh.vertices[5] == (V{1, 3}));
    mesh.normalize(-1.0f, 3.0f, 1.0f, -3.0f);
    EXPECT_TRUE(mesh.vertices[4] == (V{0.5f, 1}));

    const std::vector<V> original = mesh.vertices;
    mesh.rotate(45, false);
    EXPECT_EQ(mesh.width, 3);
    EXPECT_TRUE(mesh.vertices == original);
    // Clockwise quarter turn of 3 x 2 gives 2 x 3; the source's first row is the last column.
    mesh.rotate(90, false);
    ASSERT_EQ(mesh.width, 2);
    ASSERT_EQ(mesh.height, 3);
    EXPECT_TRUE(mesh.vertices[1] == original[0]);
    EXPECT_TRUE(mesh.vertices[5] == original[2]);
    EXPECT_TRUE(mesh.vertices[0] == original[3]);
    mesh.rotate(-90, false);
    EXPECT_TRUE(mesh.vertices == original);
    cTGridMesh a = mesh, b = mesh;
    a.rotate(-90, true);
    b.rotate(270, true);
    EXPECT_TRUE(a.vertices == b.vertices);
    mesh.rotate(0, true);  // mirror only
    EXPECT_TRUE(mesh.vertices[0] == original[2]);
    EXPECT_TRUE(mesh.vertices[3] == original[5]);
}

TEST(cTGridMeshIndices, SerpentineStripOverAllBands) {
    EXPECT_EQ(strip(2, 2), (std::vector<unsigned short>{0, 2, 1, 3}));
    EXPECT_EQ(strip(3, 3), (std::vector<unsigned short>{0, 3, 1, 4, 2, 5, 8, 4, 7, 3, 6}));
    // 4 x 4: three bands, the middle one right to left, closing on the last vertex.
    EXPECT_EQ(strip(4, 4), (std::vector<unsigned short>{0,  4,  1,  5,  2,  6,  3,  7,  // band 0
                                                        11, 6,  10, 5,  9,  4,          // band 1
                                                        8,  12, 9,  13, 10, 14, 11,     // band 2
                                                        15}));
    EXPECT_EQ(strip(14, 14).size(), 14u * 14u + 12u * 13u);
    EXPECT_TRUE(strip(1, 5).empty());

    // Every triangle of the strip is either a real half-quad or a zero-area sliver on an edge.
    const int w = 5, h = 4;
    std::vector<unsigned short> s = strip(w, h);
    int real = 0;
    for (size_t k = 2; k < s.size(); ++k) {
        int a = s[k - 2], b = s[k - 1], c = s[k];
        int rows = (a / w != b / w) + (b / w != c / w) + (a / w != c / w);
        if (a != b && b != c && a != c && rows == 2)
            ++real;
    }
    EXPECT_EQ(real, 2 * (w - 1) * (h - 1));

    cTGridMeshIndices same;
    same.resize(3, 3);
    same.indices[0] = 99;
    same.resize(3, 3);
    EXPECT_EQ(same.indices[0], 99);  // unchanged dimensions: not rebuilt
}

}  // namespace
