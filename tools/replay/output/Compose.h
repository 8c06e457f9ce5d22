// Picture composition for the side-by-side video and the report's thumbnails.
#pragma once

#include "media/Image.h"

namespace qlmr::replay {

// Gap between the two halves of a side-by-side frame, pixels (black).
constexpr int kSideBySideGap = 8;

// Size of the side-by-side frame for a left picture of lw x lh and a right one of rw x rh:
// the right picture is scaled to the left's height (width rounded to even).
void sideBySideSize(int lw, int lh, int rw, int rh, int& width, int& height);

// Left | gap | right (right scaled, nearest neighbour, to the left's height). `out` must be
// sized by sideBySideSize. No allocation.
void composeSideBySide(const I420Image& left, const I420Image& right, I420Image& out);

// Box-filtered RGB reduction to at most `maxWidth` wide (integer factor), for thumbnails.
RgbImage thumbnail(const RgbImage& in, int maxWidth);

}  // namespace qlmr::replay
