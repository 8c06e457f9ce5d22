#include "media/ImageIo.h"

#include "common/ReplayError.h"
#include "media/ColorConvert.h"
#include "media/PngDecode.h"

#include <jpeglib.h>
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <memory>

namespace qlmr::replay {

namespace {

struct FileCloser {
    void operator()(FILE* f) const {
        if (f != nullptr)
            std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

bool isJpeg(const uint8_t* d, size_t n) {
    return n >= 3 && d[0] == 0xFF && d[1] == 0xD8 && d[2] == 0xFF;
}
bool isPng(const uint8_t* d, size_t n) {
    return n >= 8 && png_sig_cmp(d, 0, 8) == 0;
}

// libjpeg reports fatal errors through error_exit, which must not return: jump back to the
// caller's setjmp with the message kept.
struct JpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<JpegError*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    longjmp(err->jump, 1);
}

// libjpeg goes on after a warning (level -1) with the damaged part of the picture grey:
// "Premature end of JPEG file", "Corrupt JPEG data: premature end of data segment". A frame
// must decode completely, so a warning ends the decode like an error. Trace messages (levels
// 0 and up) are dropped.
void jpegWarningIsError(j_common_ptr cinfo, int level) {
    if (level < 0)
        jpegErrorExit(cinfo);
}

// Decoder set-up shared by the decoders below; each sets its own jump point between
// routeErrors() and readHeader().
void routeErrors(jpeg_decompress_struct& cinfo, JpegError& err) {
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jpegErrorExit;
    err.mgr.emit_message = jpegWarningIsError;
    err.message[0] = '\0';
}
void readHeader(jpeg_decompress_struct& cinfo, const uint8_t* data, size_t size) {
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    jpeg_read_header(&cinfo, TRUE);
}
std::string failure(jpeg_decompress_struct& cinfo, const JpegError& err) {
    jpeg_destroy_decompress(&cinfo);
    return err.message[0] != '\0' ? err.message : "corrupt JPEG data";
}

// Decodes (or, with `out` null, only measures) a JPEG held in memory. Returns an empty string
// on success, else libjpeg's message.
std::string decodeJpeg(const uint8_t* data, size_t size, RgbImage* out, ImageSize* dims) {
    jpeg_decompress_struct cinfo;
    JpegError err;
    routeErrors(cinfo, err);
    if (setjmp(err.jump) != 0)  // in this frame: libjpeg's faults jump back here
        return failure(cinfo, err);
    readHeader(cinfo, data, size);
    dims->width = static_cast<int>(cinfo.image_width);
    dims->height = static_cast<int>(cinfo.image_height);
    if (out != nullptr) {
        cinfo.out_color_space = JCS_RGB;
        jpeg_start_decompress(&cinfo);
        out->resize(static_cast<int>(cinfo.output_width), static_cast<int>(cinfo.output_height));
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW row = out->row(static_cast<int>(cinfo.output_scanline));
            if (jpeg_read_scanlines(&cinfo, &row, 1) == 0) {
                std::snprintf(err.message, sizeof err.message, "the picture ends at row %u of %u",
                              cinfo.output_scanline, cinfo.output_height);
                return failure(cinfo, err);
            }
        }
        jpeg_finish_decompress(&cinfo);
    }
    jpeg_destroy_decompress(&cinfo);
    return {};
}

// Decodes a 4:2:0 YCbCr JPEG (2x2 luma sampling, even size) straight into NV21 planes, without
// the RGB round trip. Returns "" on success, libjpeg's message on a fault, and sets `handled`
// false (with nothing written) when the file is of another kind. `planes` is scratch kept
// between frames.
std::string decodeJpeg420(const uint8_t* data, size_t size, Nv21Image& out,
                          std::vector<uint8_t>& planes, bool& handled) {
    handled = false;
    jpeg_decompress_struct cinfo;
    JpegError err;
    routeErrors(cinfo, err);
    if (setjmp(err.jump) != 0)  // in this frame: libjpeg's faults jump back here
        return failure(cinfo, err);
    readHeader(cinfo, data, size);
    const jpeg_component_info* c = cinfo.comp_info;
    if (cinfo.num_components != 3 || cinfo.jpeg_color_space != JCS_YCbCr ||
        c[0].h_samp_factor != 2 || c[0].v_samp_factor != 2 || c[1].h_samp_factor != 1 ||
        c[1].v_samp_factor != 1 || c[2].h_samp_factor != 1 || c[2].v_samp_factor != 1 ||
        cinfo.image_width % 2 != 0 || cinfo.image_height % 2 != 0) {
        jpeg_destroy_decompress(&cinfo);
        return {};
    }
    handled = true;
    cinfo.raw_data_out = TRUE;
    cinfo.out_color_space = JCS_YCbCr;
    jpeg_start_decompress(&cinfo);
    const int width = static_cast<int>(cinfo.output_width);
    const int height = static_cast<int>(cinfo.output_height);
    // Whole MCUs: the decoder writes 16 luma and 8 chroma rows per call and whole MCU widths,
    // past the picture's edges.
    const size_t lumaStride = static_cast<size_t>(cinfo.MCUs_per_row) * 2 * DCTSIZE;
    const size_t chromaStride = static_cast<size_t>(cinfo.MCUs_per_row) * DCTSIZE;
    const size_t rows16 = (static_cast<size_t>(height) + 15) / 16 * 16;
    planes.resize(lumaStride * rows16 + 2 * chromaStride * (rows16 / 2));
    uint8_t* yPlane = planes.data();
    uint8_t* cbPlane = yPlane + lumaStride * rows16;
    uint8_t* crPlane = cbPlane + chromaStride * (rows16 / 2);
    JSAMPROW yRows[16], cbRows[8], crRows[8];
    JSAMPARRAY planesOut[3] = {yRows, cbRows, crRows};
    while (cinfo.output_scanline < cinfo.output_height) {
        const size_t row = cinfo.output_scanline;
        for (size_t k = 0; k < 16; ++k)
            yRows[k] = yPlane + (row + k) * lumaStride;
        for (size_t k = 0; k < 8; ++k) {
            cbRows[k] = cbPlane + (row / 2 + k) * chromaStride;
            crRows[k] = crPlane + (row / 2 + k) * chromaStride;
        }
        // The source holds the whole file, so the decoder never suspends: no rows is a fault.
        if (jpeg_read_raw_data(&cinfo, planesOut, 16) == 0) {
            std::snprintf(err.message, sizeof err.message, "the picture ends at row %u of %u",
                          cinfo.output_scanline, cinfo.output_height);
            return failure(cinfo, err);
        }
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);

    out.resize(width, height);
    jfifToNv21(yPlane, static_cast<int>(lumaStride), cbPlane, crPlane,
               static_cast<int>(chromaStride), out);
    return {};
}

struct PngSource {
    const uint8_t* data;
    size_t size;
    size_t pos;
};

void pngRead(png_structp png, png_bytep dst, png_size_t n) {
    auto* src = static_cast<PngSource*>(png_get_io_ptr(png));
    if (src->pos + n > src->size)
        png_error(png, "file ends inside the image");
    std::memcpy(dst, src->data + src->pos, n);
    src->pos += n;
}

void pngErrorFn(png_structp png, png_const_charp msg) {
    auto* message = static_cast<std::string*>(png_get_error_ptr(png));
    *message = msg;
    png_longjmp(png, 1);
}
void pngWarnFn(png_structp, png_const_charp) {}

// `rows` lives in the caller's frame so that a longjmp out of libpng leaks nothing.
std::string decodePngInto(const uint8_t* data, size_t size, RgbImage* out, ImageSize* dims,
                          std::vector<png_bytep>& rows) {
    std::string message;
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, pngErrorFn, pngWarnFn);
    if (png == nullptr)
        return "cannot create PNG reader";
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        return "cannot create PNG reader";
    }
    PngSource src{data, size, 0};
    if (setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_read_struct(&png, &info, nullptr);
        return message.empty() ? "corrupt PNG data" : message;
    }
    png_set_read_fn(png, &src, pngRead);
    // A damaged chunk is a damaged frame: a CRC error in an ancillary chunk stops the decode
    // too (libpng's default drops that chunk with a warning), and so do libpng's "benign"
    // errors (a zlib checksum found wrong only after the last row is one). The zlib checksum
    // is checked by default; png_set_option(PNG_IGNORE_ADLER32, ...) must stay unused: libpng
    // 1.6.39 stops checking with PNG_OPTION_OFF as well.
    png_set_crc_action(png, PNG_CRC_ERROR_QUIT, PNG_CRC_ERROR_QUIT);
    png_set_benign_errors(png, 0);
    png_read_info(png, info);
    dims->width = static_cast<int>(png_get_image_width(png, info));
    dims->height = static_cast<int>(png_get_image_height(png, info));
    if (out != nullptr) {
        const int colorType = png_get_color_type(png, info);
        if (png_get_bit_depth(png, info) == 16)
            png_set_strip_16(png);
        if (colorType == PNG_COLOR_TYPE_PALETTE)
            png_set_palette_to_rgb(png);
        if (colorType == PNG_COLOR_TYPE_GRAY || colorType == PNG_COLOR_TYPE_GRAY_ALPHA) {
            png_set_expand_gray_1_2_4_to_8(png);
            png_set_gray_to_rgb(png);
        }
        if (png_get_valid(png, info, PNG_INFO_tRNS))
            png_set_tRNS_to_alpha(png);
        png_set_strip_alpha(png);
        png_set_interlace_handling(png);
        png_read_update_info(png, info);
        out->resize(dims->width, dims->height);
        rows.resize(static_cast<size_t>(dims->height));
        for (int y = 0; y < dims->height; ++y)
            rows[static_cast<size_t>(y)] = out->row(y);
        png_read_image(png, rows.data());
        png_read_end(png, nullptr);
    }
    png_destroy_read_struct(&png, &info, nullptr);
    return {};
}

std::string decodePng(const uint8_t* data, size_t size, RgbImage* out, ImageSize* dims) {
    std::vector<png_bytep> rows;
    return decodePngInto(data, size, out, dims, rows);
}

std::string decodeAny(const std::string& path, const std::vector<uint8_t>& file, RgbImage* out,
                      ImageSize* dims) {
    if (isJpeg(file.data(), file.size()))
        return decodeJpeg(file.data(), file.size(), out, dims);
    if (isPng(file.data(), file.size()))
        return decodePng(file.data(), file.size(), out, dims);
    (void)path;
    return "not a JPEG or PNG file";
}

}  // namespace

void readFile(const std::string& path, std::vector<uint8_t>& out) {
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f)
        throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode))
        throw ReplayError(path, 0, "not a regular file");
    if (std::fseek(f.get(), 0, SEEK_END) != 0)
        throw ReplayError(path, 0, "cannot seek");
    const long size = std::ftell(f.get());
    if (size < 0)
        throw ReplayError(path, 0, "cannot tell size (not a regular file?)");
    std::rewind(f.get());
    out.resize(static_cast<size_t>(size));
    if (size > 0 && std::fread(out.data(), 1, out.size(), f.get()) != out.size()) {
        throw ReplayError(path, 0, "read error");
    }
}

void writeFile(const std::string& path, const void* data, size_t size) {
    FilePtr f(std::fopen(path.c_str(), "wb"));
    if (!f)
        throw ReplayError(path, 0, std::string("cannot create: ") + std::strerror(errno));
    if (size > 0 && std::fwrite(data, 1, size, f.get()) != size) {
        throw ReplayError(path, 0, "write error (disk full?)");
    }
    if (std::fclose(f.release()) != 0)
        throw ReplayError(path, 0, "write error on close");
}

namespace {

// True when the JPEG `file` holds its end-of-image marker FF D9 after the start of its first
// scan: some cameras append data after the image (a second picture, a maker's trailer). The
// segments before the scan are walked by their lengths, so an embedded thumbnail's marker does
// not count; inside the scan FF is always followed by 00 or a restart marker.
bool jpegEndsAfterItsScan(const std::vector<uint8_t>& file) {
    size_t i = 2;
    while (i + 4 <= file.size() && file[i] == 0xFF && file[i + 1] != 0xDA)
        i += 2 + (static_cast<size_t>(file[i + 2]) << 8 | file[i + 3]);
    if (i + 2 > file.size() || file[i] != 0xFF)
        return false;
    for (size_t j = i + 2; j + 1 < file.size(); ++j) {
        if (file[j] == 0xFF && file[j + 1] == 0xD9)
            return true;
    }
    return false;
}

// What is wrong with the end of a JPEG or PNG file whose last bytes are `tail` ("" when it ends
// as a whole file does): a JPEG ends with its end-of-image marker FF D9 (zero bytes after it
// are padding some writers add; a JPEG with more after it is read whole to find the marker),
// a PNG with its empty IEND chunk. A file cut short fails here.
std::string endFault(const std::string& path, const std::vector<uint8_t>& head,
                     const std::vector<uint8_t>& tail) {
    if (isJpeg(head.data(), head.size())) {
        size_t n = tail.size();
        while (n > 0 && tail[n - 1] == 0)
            --n;
        if (n >= 2 && tail[n - 2] == 0xFF && tail[n - 1] == 0xD9)
            return {};
        std::vector<uint8_t> whole;
        readFile(path, whole);
        if (jpegEndsAfterItsScan(whole))
            return {};
        return "the file does not end with the JPEG end-of-image marker (FF D9): it is cut "
               "short or damaged";
    }
    static const uint8_t kIend[12] = {0, 0, 0, 0, 'I', 'E', 'N', 'D', 0xAE, 0x42, 0x60, 0x82};
    if (tail.size() >= 12 && std::memcmp(tail.data() + tail.size() - 12, kIend, 12) == 0)
        return {};
    return "the file does not end with the PNG IEND chunk: it is cut short or damaged";
}

}  // namespace

ImageSize readImageSize(const std::string& path) {
    // The header is near the start of the file; 64 KiB covers JPEG files with big EXIF blocks
    // in practice, and the whole file is read when that is not enough. The last bytes tell
    // whether the file is complete.
    std::vector<uint8_t> head, tail(256);
    {
        FilePtr f(std::fopen(path.c_str(), "rb"));
        if (!f)
            throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
        head.resize(65536);
        head.resize(std::fread(head.data(), 1, head.size(), f.get()));
        if (head.size() < 65536) {
            tail = head;  // the whole file
        } else if (std::fseek(f.get(), -static_cast<long>(tail.size()), SEEK_END) == 0) {
            tail.resize(std::fread(tail.data(), 1, tail.size(), f.get()));
        } else {
            tail.clear();
        }
    }
    ImageSize dims;
    std::string err = decodeAny(path, head, nullptr, &dims);
    if (!err.empty() && head.size() == 65536) {
        readFile(path, head);
        err = decodeAny(path, head, nullptr, &dims);
    }
    if (err.empty())
        err = endFault(path, head, tail);
    if (!err.empty())
        throw ReplayError(path, 0, err);
    return dims;
}

ImageReader::ImageReader() = default;
ImageReader::~ImageReader() = default;
ImageReader::ImageReader(ImageReader&&) noexcept = default;
ImageReader& ImageReader::operator=(ImageReader&&) noexcept = default;

bool ImageReader::decodePngFast(RgbImage& out) {
    if (!isPng(file_.data(), file_.size()))
        return false;
    if (png_ == nullptr)
        png_ = std::make_unique<PngFastDecoder>();
    return png_->decode(file_.data(), file_.size(), out);
}

void ImageReader::read(const std::string& path, RgbImage& out) {
    readFile(path, file_);
    if (decodePngFast(out))
        return;
    ImageSize dims;
    const std::string err = decodeAny(path, file_, &out, &dims);
    if (!err.empty())
        throw ReplayError(path, 0, err);
}

void ImageReader::readNv21(const std::string& path, Nv21Image& out) {
    readFile(path, file_);
    if (isJpeg(file_.data(), file_.size())) {
        bool handled = false;
        const std::string err = decodeJpeg420(file_.data(), file_.size(), out, planes_, handled);
        if (!err.empty())
            throw ReplayError(path, 0, err);
        if (handled)
            return;
    }
    if (!decodePngFast(rgb_)) {
        ImageSize dims;
        const std::string err = decodeAny(path, file_, &rgb_, &dims);
        if (!err.empty())
            throw ReplayError(path, 0, err);
    }
    out.resize(rgb_.width, rgb_.height);
    rgbToNv21(rgb_, out);
}

RgbImage readImage(const std::string& path) {
    ImageReader reader;
    RgbImage out;
    reader.read(path, out);
    return out;
}

std::vector<uint8_t> encodeJpeg(const RgbImage& image, int quality) {
    jpeg_compress_struct cinfo;
    JpegError err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jpegErrorExit;
    unsigned char* mem = nullptr;
    unsigned long memSize = 0;
    if (setjmp(err.jump) != 0) {
        jpeg_destroy_compress(&cinfo);
        std::free(mem);
        throw ReplayError(std::string("JPEG encoding failed: ") + err.message);
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, &mem, &memSize);
    cinfo.image_width = static_cast<JDIMENSION>(image.width);
    cinfo.image_height = static_cast<JDIMENSION>(image.height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(image.row(static_cast<int>(cinfo.next_scanline)));
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    std::vector<uint8_t> out(mem, mem + memSize);
    jpeg_destroy_compress(&cinfo);
    std::free(mem);
    return out;
}

namespace {
void pngWrite(png_structp png, png_bytep data, png_size_t n) {
    auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}
void pngFlush(png_structp) {}
}  // namespace

std::vector<uint8_t> encodePng(const RgbImage& image) {
    std::string message;
    std::vector<uint8_t> out;
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, pngErrorFn, pngWarnFn);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        throw ReplayError("cannot create PNG writer");
    }
    if (setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        throw ReplayError("PNG encoding failed: " + message);
    }
    png_set_write_fn(png, &out, pngWrite, pngFlush);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
                 static_cast<png_uint_32>(image.height), 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y) {
        png_write_row(png, const_cast<uint8_t*>(image.row(y)));
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

void writeJpeg(const std::string& path, const RgbImage& image, int quality) {
    const std::vector<uint8_t> data = encodeJpeg(image, quality);
    writeFile(path, data.data(), data.size());
}

void writePng(const std::string& path, const RgbImage& image) {
    const std::vector<uint8_t> data = encodePng(image);
    writeFile(path, data.data(), data.size());
}

}  // namespace qlmr::replay
