#include "cTGridMeshIndices.h"

#include <cstddef>

cTGridMeshIndices::cTGridMeshIndices() : width(0), height(0) {}

cTGridMeshIndices::~cTGridMeshIndices() = default;

void cTGridMeshIndices::resize(int widthIn, int heightIn) {
    if (widthIn == width && heightIn == height)
        return;
    width = widthIn;
    height = heightIn;
    if (width < 2 || height < 2) {
        indices.clear();
        return;
    }
    const int w = width;
    const int h = height;
    indices.resize(static_cast<size_t>(h - 1) * (2 * w - 1) + 1, 0);
    auto index = [](int value) { return static_cast<unsigned short>(value & 0xFFFF); };
    size_t n = 0;
    for (int q = 0; q <= h - 2; ++q) {
        if (q % 2 == 0) {
            indices[n++] = index(q * w);
            for (int c = 1; c <= w - 1; ++c) {
                indices[n++] = index((q + 1) * w + (c - 1));
                indices[n++] = index(q * w + c);
            }
        } else {
            indices[n++] = index(q * w + (w - 1));
            for (int c = w - 1; c >= 1; --c) {
                indices[n++] = index((q + 1) * w + c);
                indices[n++] = index(q * w + (c - 1));
            }
        }
    }
    indices[n] = index(h % 2 == 1 ? (h - 1) * w : h * w - 1);
}
