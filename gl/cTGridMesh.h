// Texture coordinates of the warp mesh: one vec2 per vertex of a regular grid, row-major.
//
// The engine sizes it once per recording to the stabilization grid plus one ring of border
// vertices and fills it with uniformBorder(0, 1, 1, 0); the renderer passes `vertices` to GL as a
// tightly packed client-side array of two-float attributes. Used on one thread at a time (the
// engine's start and its processing thread, serialised by the engine).
//
// Range convention of uniform(), uniformBorder() and normalize(): a is x at the first column,
// c is x at the last column, d is y at the first row, b is y at the last row.
#pragma once

#include <cstddef>
#include <vector>

class cTGridMesh {
  public:
    struct vec2 {
        float x;
        float y;
    };
    static_assert(sizeof(vec2) == 2 * sizeof(float), "vec2 is handed to GL with stride 0");

    unsigned short width;        // vertices per row
    unsigned short height;       // rows
    std::vector<vec2> vertices;  // vertex (i, j) at j * width + i

    cTGridMesh();
    ~cTGridMesh();

    // New dimensions: kept entries keep their values, new ones are (0, 0). The same dimensions:
    // nothing happens.
    void resize(unsigned short width, unsigned short height);
    // Even grid over every vertex. Needs at least 2 x 2 (a single row or column divides by 0,
    // as the arithmetic is kept plain); does nothing on an empty mesh.
    void uniform(float a, float b, float c, float d);
    // Even grid over the interior (columns and rows 1..n-2); the outer ring repeats its interior
    // neighbour, so it adds geometry without adding texture. The first interior vertex is exactly
    // (a, d), the last exactly (c, b). Meant for meshes of at least 4 x 4.
    void uniformBorder(float a, float b, float c, float d);
    // Inverse of uniform()'s mapping: back into the unit square.
    void normalize(float a, float b, float c, float d);
    // Turns the grid by whole quarter turns (clockwise for positive angles), mirrored left to
    // right first when `mirror` is set. Angles that are not multiples of 90 leave it unchanged.
    // Quarter turns 1 and 3 exchange width and height.
    void rotate(int degrees, bool mirror);

  private:
    vec2& at(int i, int j) { return vertices[static_cast<size_t>(j) * width + i]; }
};
