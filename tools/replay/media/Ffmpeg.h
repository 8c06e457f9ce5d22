// The ffmpeg command-line tool, used when it is installed: to encode the output into MP4 while
// the replay runs and to decode a recording's video file. Nothing here links against ffmpeg's
// libraries; the program is run as a child process (no shell) and fed or read through pipes.
#pragma once

#include "media/Image.h"
#include "media/Y4m.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace qlmr::replay {

// Full path of an executable `name` found on PATH, or "" when there is none.
std::string findProgram(const std::string& name);

// The ffmpeg to use: the environment variable QLMR_FFMPEG when set (empty or "none" means
// "behave as if ffmpeg were not installed"), else ffmpeg on PATH, else "".
std::string ffmpegProgram();

// Runs `argv` (argv[0] a full path) and waits. Returns the exit status (128+signal when
// killed); throws ReplayError when the program cannot be started. The child's stderr is kept
// in `errorText` (last 4 KiB) and its stdout in `outputText` (all of it) when given.
int runProgram(const std::vector<std::string>& argv, std::string* errorText = nullptr,
               std::string* outputText = nullptr);

// The ffprobe program in the folder of `ffmpeg` (a full path), or "" when there is none.
std::string ffprobeBeside(const std::string& ffmpeg);

// Number of frames of the first video stream of `path`, counted by `ffprobe` packet by packet
// (not the container's estimate). Throws ReplayError naming the file when ffprobe fails or
// finds no video stream.
long countVideoFrames(const std::string& ffprobe, const std::string& path);

// x264's speed presets, fastest first; the tool's MP4 files use kDefaultH264Preset unless told.
extern const std::vector<std::string> kH264Presets;
constexpr const char* kDefaultH264Preset = "ultrafast";

// The H.264 settings of every MP4 the tool writes (yuv420p, constant quality CRF 18, x264 speed
// `preset`), as ffmpeg output options.
std::vector<std::string> h264Options(const std::string& preset);

// Encodes I420 frames into an H.264 MP4 as they arrive: ffmpeg runs as a child process reading
// a Y4M stream on its stdin. write() copies the frame into one of `depth` preallocated slots and
// returns; a thread of this class feeds the slots to ffmpeg in order, so the caller (the
// engine's output callback) waits for the encoder only when `depth` frames are already queued.
// No allocation per frame. Not thread-safe: one producer thread calls write()/finish().
class VideoEncoder {
  public:
    VideoEncoder() = default;
    // Stops ffmpeg when finish() was not called (the MP4 is then incomplete).
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    // Starts ffmpeg writing `mp4Path`; width and height are even. Throws ReplayError when the
    // program cannot be started.
    void open(const std::string& ffmpeg, const std::string& mp4Path, int width, int height,
              int fpsNum, int fpsDen, const std::string& preset = kDefaultH264Preset,
              int depth = 8);
    // Queues one frame of the opened size. Throws ReplayError on a size mismatch, or when
    // ffmpeg has already failed (with its message).
    void write(const I420Image& frame);
    // Sends the queued frames, closes ffmpeg's input and waits for it to write the file.
    // Throws ReplayError with ffmpeg's own last message when it failed.
    void finish();

    bool isOpen() const { return child_ >= 0; }
    int frames() const { return written_; }
    const std::string& path() const { return path_; }

  private:
    void feed();  // the writer thread
    void stop();  // abandons the encode: kills ffmpeg, joins the thread
    std::string failure(int status);

    std::string path_;
    int width_ = 0;
    int height_ = 0;
    int written_ = 0;
    pid_t child_ = -1;
    int input_ = -1;   // write end of ffmpeg's stdin
    int errors_ = -1;  // ffmpeg's stderr (an unlinked temporary file)
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<I420Image> slots_;
    std::deque<int> queued_;  // slot indices, oldest first
    std::vector<int> free_;   // slot indices
    bool closing_ = false;    // no more frames: the thread ends when the queue is empty
    std::string writeError_;  // set by the thread when ffmpeg stopped reading
};

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
    // Stops ffmpeg (if still running) quietly and reaps it: frames may be left unread.
    void close();

    int width() const { return reader_.width(); }
    int height() const { return reader_.height(); }

  private:
    // Closes the pipe and waits for ffmpeg to exit; "" when it succeeded, else its exit
    // status and last message.
    std::string finish();

    Y4mReader reader_;
    FILE* pipe_ = nullptr;
    pid_t child_ = -1;
    int errors_ = -1;  // ffmpeg's stderr (an unlinked temporary file)
    std::string path_;
};

}  // namespace qlmr::replay
