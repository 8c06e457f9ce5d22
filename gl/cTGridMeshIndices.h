// Index list that walks a width x height vertex grid as one GL_TRIANGLE_STRIP.
//
// Bands of quads between rows q and q+1 are walked alternately left to right and right to left,
// with no degenerate restart between bands: each band starts with the vertex that completes the
// previous band's last triangle, and the turns leave thin sliver triangles along the outer
// columns. Length (H - 1) * (2W - 1) + 1. Indices are 16-bit and computed modulo 65,536, so a grid
// should have at most 65,536 vertices. Grids narrower or lower than 2 give an empty strip.
#pragma once

#include <vector>

class cTGridMeshIndices {
  public:
    int width;   // vertices per row of the indexed grid
    int height;  // rows
    std::vector<unsigned short> indices;

    cTGridMeshIndices();
    ~cTGridMeshIndices();

    // Rebuilds the strip for new dimensions; the same dimensions cost nothing.
    void resize(int width, int height);
};
