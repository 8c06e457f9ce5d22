// Reading JPEG and PNG pictures (libjpeg, libpng) into RGB, and writing them back out.
// Every failure is a ReplayError naming the file.
#pragma once

#include "media/Image.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

class PngFastDecoder;

struct ImageSize {
    int width = 0;
    int height = 0;
};

// Width and height from the file's header only (cheap: used to validate a whole recording
// before replaying it). JPEG and PNG are recognised by their first bytes, not by the name.
// Also refuses a file that does not end as a whole one does (a JPEG without its end-of-image
// marker, a PNG without IEND): a frame cut short is caught before the replay starts. Decoding
// checks every frame completely (a libjpeg warning, a chunk CRC or the zlib checksum fails it).
ImageSize readImageSize(const std::string& path);

// Decodes JPEG/PNG files into RGB. Keeps its file buffer between calls so that decoding a
// sequence of same-sized frames reuses memory (the codec libraries allocate internally).
class ImageReader {
  public:
    ImageReader();
    ~ImageReader();
    ImageReader(ImageReader&&) noexcept;
    ImageReader& operator=(ImageReader&&) noexcept;

    // Decodes `path` into `out`, resizing it to the picture's size.
    void read(const std::string& path, RgbImage& out);
    // Decodes `path` into NV21 (BT.601, limited range, like the camera's frames), resizing
    // `out` to the picture's size. 4:2:0 JPEG files (what cameras and this tool write) go
    // straight from their YCbCr planes, without the RGB round trip; other files through RGB.
    void readNv21(const std::string& path, Nv21Image& out);

  private:
    // Decodes a PNG file held in file_ by the fast path; false: use libpng.
    bool decodePngFast(RgbImage& out);

    std::vector<uint8_t> file_;
    std::vector<uint8_t> planes_;  // JPEG planes, whole MCUs
    RgbImage rgb_;
    std::unique_ptr<PngFastDecoder> png_;  // made with the first PNG file
};

// Convenience: one-off decode.
RgbImage readImage(const std::string& path);

// Encoders. Quality 1..100.
std::vector<uint8_t> encodeJpeg(const RgbImage& image, int quality);
std::vector<uint8_t> encodePng(const RgbImage& image);
void writeJpeg(const std::string& path, const RgbImage& image, int quality);
void writePng(const std::string& path, const RgbImage& image);

// Whole-file helpers; failures name the file.
void readFile(const std::string& path, std::vector<uint8_t>& out);
void writeFile(const std::string& path, const void* data, size_t size);

}  // namespace qlmr::replay
