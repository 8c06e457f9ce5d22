// YUV4MPEG2 ("Y4M") streams of 4:2:0 frames: the tool's always-available video format, which
// every player that reads raw video and the ffmpeg command line understand.
#pragma once

#include "media/Image.h"

#include <cstdio>
#include <string>

namespace qlmr::replay {

// Writes I420 frames to a .y4m file. Header: size, frame rate, progressive, square pixels,
// centred 4:2:0 chroma, limited range.
class Y4mWriter {
  public:
    Y4mWriter() = default;
    ~Y4mWriter();
    Y4mWriter(const Y4mWriter&) = delete;
    Y4mWriter& operator=(const Y4mWriter&) = delete;

    // Creates `path`; throws ReplayError when it cannot. Width and height are even.
    void open(const std::string& path, int width, int height, int fpsNum, int fpsDen);
    // Appends one frame of the opened size; throws on a size mismatch or a write error.
    void write(const I420Image& frame);
    // Flushes and closes; throws on a write error. Called by the destructor if still open
    // (errors are then swallowed).
    void close();

    bool isOpen() const { return file_ != nullptr; }
    int frames() const { return frames_; }
    const std::string& path() const { return path_; }

  private:
    FILE* file_ = nullptr;
    std::string path_;
    int width_ = 0;
    int height_ = 0;
    int frames_ = 0;
};

// Largest width or height a Y4M stream may declare (pixels): twice the sides of 8K video.
constexpr int kMaxY4mSide = 16384;

// Reads a 4:2:0 Y4M stream from a file or from a pipe (e.g. ffmpeg's output).
class Y4mReader {
  public:
    Y4mReader() = default;
    ~Y4mReader();
    Y4mReader(const Y4mReader&) = delete;
    Y4mReader& operator=(const Y4mReader&) = delete;

    // Opens a file; `name` is used in error messages.
    void open(const std::string& path);
    // Reads from a stream the caller owns (and closes after this reader is done).
    void attach(FILE* stream, const std::string& name);
    // Next frame into `out` (resized to the stream's size). False at the clean end of the
    // stream; throws ReplayError on a truncated frame or a bad frame marker.
    bool read(I420Image& out);
    // Passes over the next frame without reading its pixels (a file opened with open(): it
    // seeks). Returns and throws as read() does, a frame cut short included.
    bool skip();

    int width() const { return width_; }
    int height() const { return height_; }
    int fpsNum() const { return fpsNum_; }
    int fpsDen() const { return fpsDen_; }

  private:
    // Reads from `stream` from now on (closed by this reader when `owned`).
    void use(FILE* stream, bool owned, const std::string& name);
    void readHeader();
    // Reads the next "FRAME...\n" line; false at the clean end of the stream.
    bool readFrameHeader();
    std::string frameName() const;  // "frame N" of the frame being read, for errors

    FILE* file_ = nullptr;
    bool owned_ = false;
    std::string name_;
    int width_ = 0;
    int height_ = 0;
    int fpsNum_ = 30;
    int fpsDen_ = 1;
    int frames_ = 0;
};

}  // namespace qlmr::replay
