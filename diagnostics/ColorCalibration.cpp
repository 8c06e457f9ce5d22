#include "ColorCalibration.h"

#include <cstring>

#include "Log.h"

namespace {

constexpr int kBandRows = 32;
constexpr int kColumnWidth = 32;
constexpr int kChromaRows = ColorCalibration::kHeight / 2;
constexpr int kChromaSamples = ColorCalibration::kWidth / 2;
constexpr int kSamplesPerColumn = kColumnWidth / 2;

bool usable(const void* a, const void* b, const void* c, int stride) {
    if (a == nullptr || b == nullptr || c == nullptr || stride < ColorCalibration::kWidth) {
        QLOGW("[COLORCONVERSION] chart not painted: null plane or stride %d below %d", stride,
              ColorCalibration::kWidth);
        return false;
    }
    return true;
}

void paintLuma(unsigned char* yPlane, int stride) {
    for (int row = 0; row < ColorCalibration::kHeight; ++row) {
        std::memset(yPlane + static_cast<long>(row) * stride, ColorCalibration::y[row / kBandRows],
                    ColorCalibration::kWidth);
    }
}

}  // namespace

const unsigned char ColorCalibration::y[5] = {70, 90, 120, 140, 170};
const unsigned char ColorCalibration::vu[10][2] = {{0, 0},     {70, 70},   {90, 90},  {128, 128},
                                                   {140, 140}, {170, 170}, {70, 170}, {90, 140},
                                                   {140, 90},  {170, 70}};

void ColorCalibration::setColorCalibration_YUVp(unsigned char* yPlane, unsigned char* uPlane,
                                                unsigned char* vPlane, int stride) {
    if (!usable(yPlane, uPlane, vPlane, stride))
        return;
    stride_ = stride;
    paintLuma(yPlane, stride);
    for (int row = 0; row < kChromaRows; ++row) {
        const long start = static_cast<long>(row) * stride / 2;
        for (int sample = 0; sample < kChromaSamples; ++sample) {
            const unsigned char* pair = vu[sample / kSamplesPerColumn + 1];
            uPlane[start + sample] = pair[1];
            vPlane[start + sample] = pair[0];
        }
    }
}

void ColorCalibration::setColorCalibration_YUV21sp(unsigned char* yPlane, unsigned char* vuPlane,
                                                   int stride) {
    if (!usable(yPlane, vuPlane, vuPlane, stride))
        return;
    stride_ = stride;
    paintLuma(yPlane, stride);
    for (int row = 0; row < kChromaRows; ++row) {
        unsigned char* out = vuPlane + static_cast<long>(row) * stride;
        for (int sample = 0; sample < kChromaSamples; ++sample) {
            const unsigned char* pair = vu[sample / kSamplesPerColumn + 1];
            out[2 * sample] = pair[0];      // V
            out[2 * sample + 1] = pair[1];  // U
        }
    }
}

void ColorCalibration::getColorCalibration(unsigned char* rgba, int width) {
    if (rgba == nullptr || width <= 0 || stride_ <= 0) {
        QLOGW("[COLORCONVERSION] no chart to read: painted stride %d, width %d", stride_, width);
        return;
    }
    const float scale = static_cast<float>(width) / static_cast<float>(stride_);
    for (int band = 0; band < 5; ++band) {
        for (int column = 0; column < 9; ++column) {
            const int row = static_cast<int>(static_cast<float>(kBandRows * band + 16) * scale);
            const int col =
                static_cast<int>(static_cast<float>(16 + kColumnWidth * column) * scale);
            const unsigned char* pixel = rgba + (static_cast<long>(row) * width + col) * 4;
            QLOGW("[COLORCONVERSION] %d %d %d -> %d %d %d", y[band], vu[column + 1][0],
                  vu[column + 1][1], pixel[0], pixel[1], pixel[2]);
        }
    }
}
