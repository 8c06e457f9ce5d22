// The ffmpeg command-line tool, used when it is installed: to encode the Y4M result into MP4
// and to decode a recording's video file. Nothing here links against ffmpeg's libraries; the
// program is run as a child process (no shell), its stdout read through a pipe.
#pragma once

#include "Image.h"
#include "Y4m.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace qlmr::replay {

// Full path of an executable `name` found on PATH, or "" when there is none.
std::string findProgram(const std::string& name);

// The ffmpeg to use: the environment variable QLMR_FFMPEG when set (empty or "none" means
// "behave as if ffmpeg were not installed"), else ffmpeg on PATH, else "".
std::string ffmpegProgram();

// Runs `argv` (argv[0] a full path) and waits. Returns the exit status (128+signal when
// killed); throws ReplayError when the program cannot be started. The child's stderr is kept
// in `errorText` (last 4 KiB) when given.
int runProgram(const std::vector<std::string>& argv, std::string* errorText = nullptr);

// Encodes a Y4M file to H.264 MP4 (yuv420p, constant quality). Throws ReplayError with
// ffmpeg's own message when it fails.
void encodeMp4(const std::string& ffmpeg, const std::string& y4mPath, const std::string& mp4Path);

// Decodes any video file ffmpeg reads into I420 frames, in order, through a pipe.
class VideoDecoder {
  public:
    VideoDecoder() = default;
    ~VideoDecoder();
    VideoDecoder(const VideoDecoder&) = delete;
    VideoDecoder& operator=(const VideoDecoder&) = delete;

    // Starts ffmpeg on `path`; reads the stream header (so width()/height() are known).
    void open(const std::string& ffmpeg, const std::string& path);
    // Next frame; false at the end of the video. Throws when ffmpeg fails mid-way.
    bool read(I420Image& out);
    // Stops ffmpeg (if still running) and reaps it.
    void close();

    int width() const { return reader_.width(); }
    int height() const { return reader_.height(); }

  private:
    Y4mReader reader_;
    FILE* pipe_ = nullptr;
    pid_t child_ = -1;
    std::string path_;
};

}  // namespace qlmr::replay
