// Colour calibration chart: paints a known YUV chart, then reads the chart's patches back from
// the RGBA picture that a colour conversion made of it and logs input beside output, to check
// the conversion's matrix and range.
//
// The chart is 288 x 160 pixels: five horizontal luma bands of 32 rows (band b has level y[b]),
// crossed by nine vertical chroma columns of 32 pixels (column c has the pair vu[c + 1]):
// 45 patches.
#pragma once

class ColorCalibration {
  public:
    static constexpr int kWidth = 288;   // pixels
    static constexpr int kHeight = 160;  // pixels

    // Luma levels of the five bands.
    static const unsigned char y[5];
    // Chroma pairs, each (V, U); vu[0] is not used by the chart.
    static const unsigned char vu[10][2];

    // Paints the chart into planar YUV 4:2:0: luma rows of `stride` bytes; 80 chroma rows of 144
    // samples in each of the U and V planes, chroma row r starting at r * stride / 2. Stores the
    // stride. Nothing is painted (a warning is logged) for null planes or a stride below 288.
    void setColorCalibration_YUVp(unsigned char* yPlane, unsigned char* uPlane,
                                  unsigned char* vPlane, int stride);

    // Paints the chart into NV21: the same luma rows, then 80 rows of the interleaved plane
    // (row r at r * stride), 144 byte pairs each, V first. Stores the stride. Refuses as above.
    void setColorCalibration_YUV21sp(unsigned char* yPlane, unsigned char* vuPlane, int stride);

    // Samples the centre of every patch in the converted picture `rgba` (4 bytes a pixel,
    // `width` pixels a row; its scale against the stored stride is width / stride) and logs, at
    // warning priority, "[COLORCONVERSION] %d %d %d -> %d %d %d" with Y, V, U and the R, G, B
    // found: 45 lines, band by band, columns left to right. Logs one warning and nothing else
    // when no chart was painted or the arguments are unusable.
    void getColorCalibration(unsigned char* rgba, int width);

  private:
    int stride_ = 0;  // row stride of the painted chart, bytes; 0 until painted
};
