#include "media/Y4m.h"

#include "common/ReplayError.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <sys/stat.h>

namespace qlmr::replay {

Y4mWriter::~Y4mWriter() {
    try {
        close();
    } catch (...) {
    }
}

void Y4mWriter::open(const std::string& path, int width, int height, int fpsNum, int fpsDen) {
    close();
    if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) {
        throw ReplayError(path, 0,
                          "Y4M frames need an even, positive size, got " + std::to_string(width) +
                              "x" + std::to_string(height));
    }
    file_ = std::fopen(path.c_str(), "wb");
    if (file_ == nullptr)
        throw ReplayError(path, 0, std::string("cannot create: ") + std::strerror(errno));
    path_ = path;
    width_ = width;
    height_ = height;
    frames_ = 0;
    if (std::fprintf(file_, "YUV4MPEG2 W%d H%d F%d:%d Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n",
                     width, height, fpsNum, fpsDen) < 0) {
        throw ReplayError(path, 0, "write error");
    }
}

void Y4mWriter::write(const I420Image& frame) {
    if (file_ == nullptr)
        throw ReplayError("Y4M writer used before open");
    if (frame.width != width_ || frame.height != height_) {
        throw ReplayError(path_, 0,
                          "frame of " + std::to_string(frame.width) + "x" +
                              std::to_string(frame.height) + " in a stream of " +
                              std::to_string(width_) + "x" + std::to_string(height_));
    }
    if (std::fwrite("FRAME\n", 1, 6, file_) != 6 ||
        std::fwrite(frame.data.data(), 1, frame.data.size(), file_) != frame.data.size()) {
        throw ReplayError(path_, 0, "write error (disk full?)");
    }
    ++frames_;
}

void Y4mWriter::close() {
    if (file_ == nullptr)
        return;
    FILE* f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0)
        throw ReplayError(path_, 0, "write error on close");
}

Y4mReader::~Y4mReader() {
    if (owned_ && file_ != nullptr)
        std::fclose(file_);
}

void Y4mReader::open(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
    use(f, true, path);
}

void Y4mReader::attach(FILE* stream, const std::string& name) {
    use(stream, false, name);
}

void Y4mReader::use(FILE* stream, bool owned, const std::string& name) {
    if (owned_ && file_ != nullptr)
        std::fclose(file_);
    file_ = stream;
    owned_ = owned;
    name_ = name;
    readHeader();
}

void Y4mReader::readHeader() {
    std::string line;
    for (int c; (c = std::fgetc(file_)) != EOF && c != '\n';) {
        line.push_back(static_cast<char>(c));
        if (line.size() > 4096)
            throw ReplayError(name_, 0, "Y4M header line too long");
    }
    std::istringstream in(line);
    std::string magic;
    in >> magic;
    if (magic != "YUV4MPEG2")
        throw ReplayError(name_, 0, "not a YUV4MPEG2 stream");
    width_ = height_ = 0;
    fpsNum_ = 30;
    fpsDen_ = 1;
    frames_ = 0;
    for (std::string tok; in >> tok;) {
        const char key = tok[0];
        const std::string value = tok.substr(1);
        if (key == 'W') {
            width_ = std::atoi(value.c_str());
        } else if (key == 'H') {
            height_ = std::atoi(value.c_str());
        } else if (key == 'F') {
            if (std::sscanf(value.c_str(), "%d:%d", &fpsNum_, &fpsDen_) != 2 || fpsNum_ <= 0 ||
                fpsDen_ <= 0) {
                throw ReplayError(name_, 0, "bad Y4M frame rate '" + value + "'");
            }
        } else if (key == 'C') {
            if (value.rfind("420", 0) != 0) {
                throw ReplayError(name_, 0,
                                  "Y4M colour space C" + value + " is not supported (only 4:2:0)");
            }
        }
    }
    if (width_ <= 0 || height_ <= 0 || width_ % 2 != 0 || height_ % 2 != 0) {
        throw ReplayError(name_, 0,
                          "Y4M stream has no valid even W/H (" + std::to_string(width_) + "x" +
                              std::to_string(height_) + ")");
    }
    // A frame buffer is sized from the header before any picture data is read, so an absurd
    // size must stop here rather than in the allocator.
    if (width_ > kMaxY4mSide || height_ > kMaxY4mSide) {
        throw ReplayError(name_, 0,
                          "Y4M stream size " + std::to_string(width_) + "x" +
                              std::to_string(height_) + " is larger than " +
                              std::to_string(kMaxY4mSide) + " on a side");
    }
}

bool Y4mReader::readFrameHeader() {
    if (file_ == nullptr)
        throw ReplayError("Y4M reader used before open");
    char marker[5];
    const size_t got = std::fread(marker, 1, 5, file_);
    if (got == 0)
        return false;
    if (got != 5 || std::memcmp(marker, "FRAME", 5) != 0) {
        throw ReplayError(name_, 0,
                          frameName() + ": missing FRAME marker (truncated or corrupt stream)");
    }
    for (int c; (c = std::fgetc(file_)) != '\n';) {
        if (c == EOF)
            throw ReplayError(name_, 0, frameName() + ": stream ends in the frame header");
    }
    return true;
}

std::string Y4mReader::frameName() const {
    return "frame " + std::to_string(frames_ + 1);
}

bool Y4mReader::read(I420Image& out) {
    if (!readFrameHeader())
        return false;
    out.resize(width_, height_);
    if (std::fread(out.data.data(), 1, out.data.size(), file_) != out.data.size()) {
        throw ReplayError(name_, 0, frameName() + ": stream ends inside the frame (truncated)");
    }
    ++frames_;
    return true;
}

bool Y4mReader::skip() {
    if (!readFrameHeader())
        return false;
    // File offsets as off_t (64 bits with _FILE_OFFSET_BITS=64): a long is 32 bits on armhf,
    // and ftell() fails there once a stream passes 2 GiB (8 seconds of 1080p).
    const off_t bytes = static_cast<off_t>(width_) * height_ * 3 / 2;
    struct stat st;
    const off_t at = ftello(file_);
    if (at < 0 || fstat(fileno(file_), &st) != 0)
        throw ReplayError(name_, 0, "cannot seek in the stream");
    if (st.st_size - at < bytes)
        throw ReplayError(name_, 0, frameName() + ": stream ends inside the frame (truncated)");
    if (fseeko(file_, bytes, SEEK_CUR) != 0)
        throw ReplayError(name_, 0, "cannot seek in the stream");
    ++frames_;
    return true;
}

}  // namespace qlmr::replay
