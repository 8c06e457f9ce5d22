#include "cTGridMesh.h"

#include <cstddef>

cTGridMesh::cTGridMesh() : width(0), height(0) {}

cTGridMesh::~cTGridMesh() = default;

void cTGridMesh::resize(unsigned short widthIn, unsigned short heightIn) {
    if (widthIn == width && heightIn == height)
        return;
    width = widthIn;
    height = heightIn;
    vertices.resize(static_cast<size_t>(width) * height, vec2{0.0f, 0.0f});
}

void cTGridMesh::uniform(float a, float b, float c, float d) {
    if (width == 0 || height == 0)
        return;
    const int w = width;
    const int h = height;
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            vec2& v = at(i, j);
            v.x = a + (static_cast<float>(i) / static_cast<float>(w - 1)) * (c - a);
            v.y = d + (static_cast<float>(j) / static_cast<float>(h - 1)) * (b - d);
        }
    }
}

void cTGridMesh::uniformBorder(float a, float b, float c, float d) {
    const int w = width;
    const int h = height;
    if (h >= 3) {
        if (w >= 3) {
            for (int j = 1; j <= h - 2; ++j) {
                for (int i = 1; i <= w - 2; ++i) {
                    vec2& v = at(i, j);
                    v.x = a + (static_cast<float>(i - 1) / static_cast<float>(w - 3)) * (c - a);
                    v.y = d + (static_cast<float>(j - 1) / static_cast<float>(h - 3)) * (b - d);
                }
            }
        }
        for (int j = 1; w >= 2 && j <= h - 2; ++j) {
            at(0, j) = at(1, j);
            at(w - 1, j) = at(w - 2, j);
        }
    }
    // Top and bottom rows, corners included; skipped when the mesh has no second row to copy.
    if (h >= 2) {
        for (int i = 0; i < w; ++i) {
            at(i, 0) = at(i, 1);
            at(i, h - 1) = at(i, h - 2);
        }
    }
}

void cTGridMesh::normalize(float a, float b, float c, float d) {
    if (width == 0 || height == 0)
        return;
    for (vec2& v : vertices) {
        v.x = (v.x - a) / (c - a);
        v.y = (v.y - d) / (b - d);
    }
}

void cTGridMesh::rotate(int degrees, bool mirror) {
    if (degrees % 90 != 0)
        return;
    const int turns = ((degrees / 90) % 4 + 4) % 4;
    const std::vector<vec2> source = vertices;
    const int w = width;
    const int h = height;
    // Value of the (optionally mirrored) source grid at column i, row j.
    auto from = [&](int i, int j) {
        return source[static_cast<size_t>(j) * w + (mirror ? w - 1 - i : i)];
    };
    if (turns == 1 || turns == 3) {
        width = static_cast<unsigned short>(h);
        height = static_cast<unsigned short>(w);
    }
    const int nw = width;
    const int nh = height;
    for (int j = 0; j < nh; ++j) {
        for (int i = 0; i < nw; ++i) {
            vec2& v = at(i, j);
            switch (turns) {
                case 0:
                    v = from(i, j);
                    break;
                case 1:  // clockwise: the source's first row becomes the last column
                    v = from(j, h - 1 - i);
                    break;
                case 2:
                    v = from(w - 1 - i, h - 1 - j);
                    break;
                default:  // counter-clockwise: the source's first row becomes the first column
                    v = from(w - 1 - j, i);
                    break;
            }
        }
    }
}
