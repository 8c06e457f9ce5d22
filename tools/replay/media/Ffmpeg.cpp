#include "media/Ffmpeg.h"

#include "common/ReplayError.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qlmr::replay {

namespace {

std::vector<char*> cArgs(const std::vector<std::string>& argv) {
    std::vector<char*> out;
    out.reserve(argv.size() + 1);
    for (const auto& a : argv)
        out.push_back(const_cast<char*>(a.c_str()));
    out.push_back(nullptr);
    return out;
}

// Starts `argv` (argv[0] a full path) with `actions`, in a process group of its own: a Ctrl-C
// at the terminal reaches only this program, which stops its children itself (an ffmpeg that
// took the signal too would end its file early and complain on the terminal). Returns
// posix_spawn's error number.
int spawnChild(pid_t& pid, const std::vector<std::string>& argv,
               const posix_spawn_file_actions_t& actions) {
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    std::vector<char*> args = cArgs(argv);
    const int rc = posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    return rc;
}

// An unlinked temporary file for a child's stderr: read after the child has exited, it can
// never fill up while this side blocks on the child's other pipe. -1 with errno set on failure.
int errorFile() {
    char name[] = "/tmp/qlmr-ffmpeg-XXXXXX";
    const int fd = mkostemp(name, O_CLOEXEC);
    if (fd >= 0)
        unlink(name);
    return fd;
}

int waitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return access(name.c_str(), X_OK) == 0 ? name : "";
    }
    const char* path = std::getenv("PATH");
    if (path == nullptr)
        return "";
    std::string dirs(path);
    size_t start = 0;
    while (start <= dirs.size()) {
        const size_t end = dirs.find(':', start);
        std::string dir =
            dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (dir.empty())
            dir = ".";
        const std::string candidate = dir + "/" + name;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return "";
}

std::string ffmpegProgram() {
    if (const char* env = std::getenv("QLMR_FFMPEG")) {
        const std::string v(env);
        if (v.empty() || v == "none")
            return "";
        return findProgram(v);
    }
    return findProgram("ffmpeg");
}

int runProgram(const std::vector<std::string>& argv, std::string* errorText,
               std::string* outputText) {
    int errPipe[2] = {-1, -1};
    if (errorText != nullptr && pipe2(errPipe, O_CLOEXEC) != 0) {
        throw ReplayError(argv[0], 0, std::string("pipe: ") + std::strerror(errno));
    }
    // The standard output goes to an unlinked temporary file, read once the program has
    // ended: no second pipe to drain while the first is read.
    std::unique_ptr<FILE, int (*)(FILE*)> output(
        outputText != nullptr ? std::tmpfile() : nullptr,
        [](FILE* f) { return f != nullptr ? std::fclose(f) : 0; });
    if (output != nullptr)
        fcntl(fileno(output.get()), F_SETFD, FD_CLOEXEC);  // only the child's stdout keeps it
    if (outputText != nullptr && output == nullptr) {
        if (errorText != nullptr) {
            close(errPipe[0]);
            close(errPipe[1]);
        }
        throw ReplayError(argv[0], 0, std::string("temporary file: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (errorText != nullptr)
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    if (output != nullptr)
        posix_spawn_file_actions_adddup2(&actions, fileno(output.get()), 1);
    pid_t pid = -1;
    std::vector<char*> args = cArgs(argv);
    const int rc = posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errorText != nullptr)
        close(errPipe[1]);
    if (rc != 0) {
        if (errorText != nullptr)
            close(errPipe[0]);
        throw ReplayError(argv[0], 0, std::string("cannot run: ") + std::strerror(rc));
    }
    if (errorText != nullptr) {
        errorText->clear();
        char buf[4096];
        for (ssize_t n; (n = read(errPipe[0], buf, sizeof buf)) != 0;) {
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                break;
            }
            errorText->append(buf, static_cast<size_t>(n));
            if (errorText->size() > 4096)
                errorText->erase(0, errorText->size() - 4096);
        }
        close(errPipe[0]);
    }
    const int status = waitStatus(pid);
    if (output != nullptr) {
        outputText->clear();
        std::rewind(output.get());
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, output.get())) > 0;)
            outputText->append(buf, n);
    }
    return status;
}

std::string ffprobeBeside(const std::string& ffmpeg) {
    const size_t slash = ffmpeg.rfind('/');
    if (ffmpeg.empty() || slash == std::string::npos)
        return "";
    return findProgram(ffmpeg.substr(0, slash + 1) + "ffprobe");
}

long countVideoFrames(const std::string& ffprobe, const std::string& path) {
    std::string errors, output;
    const int status =
        runProgram({ffprobe, "-v", "error", "-count_packets", "-select_streams", "v:0",
                    "-show_entries", "stream=nb_read_packets", "-of", "csv=p=0", path},
                   &errors, &output);
    if (status != 0) {
        // ffprobe's last line says why.
        std::string reason = errors.substr(0, errors.find_last_not_of(" \r\n") + 1);
        const size_t newline = reason.rfind('\n');
        if (newline != std::string::npos)
            reason.erase(0, newline + 1);
        throw ReplayError(path, 0,
                          "ffprobe cannot count the video frames" +
                              (reason.empty() ? std::string() : ": " + reason));
    }
    const size_t first = output.find_first_not_of(" \r\n");
    const size_t last = output.find_last_not_of(" \r\n");
    const std::string number =
        first == std::string::npos ? "" : output.substr(first, last - first + 1);
    if (number.empty() || number.size() > 9 ||
        number.find_first_not_of("0123456789") != std::string::npos) {
        throw ReplayError(path, 0, "ffprobe finds no video stream in this file");
    }
    return std::stol(number);
}

const std::vector<std::string> kH264Presets = {
    "ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower", "veryslow"};

std::vector<std::string> h264Options(const std::string& preset) {
    return {"-c:v", "libx264", "-preset", preset, "-crf", "18", "-pix_fmt", "yuv420p"};
}

namespace {

// Last non-empty line of ffmpeg's stderr, read from the start of file descriptor `fd`.
std::string lastLine(int fd) {
    std::string text;
    if (fd < 0 || lseek(fd, 0, SEEK_SET) < 0)
        return text;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0;) {
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > 8192)
            text.erase(0, text.size() - 4096);
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    const size_t cut = text.rfind('\n');
    return cut == std::string::npos ? text : text.substr(cut + 1);
}

// Writes all of `size` bytes; false with errno set when the reader has gone (EPIPE) or the
// write failed.
bool writeAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

VideoEncoder::~VideoEncoder() {
    stop();
}

void VideoEncoder::open(const std::string& ffmpeg, const std::string& mp4Path, int width,
                        int height, int fpsNum, int fpsDen, const std::string& preset, int depth) {
    stop();
    if (width <= 0 || height <= 0 || width % 2 != 0 || height % 2 != 0) {
        throw ReplayError(mp4Path, 0,
                          "H.264 frames need an even, positive size, got " + std::to_string(width) +
                              "x" + std::to_string(height));
    }
    // ffmpeg's stderr goes to an unlinked temporary file, read when it failed.
    errors_ = errorFile();
    if (errors_ < 0)
        throw ReplayError(mp4Path, 0, std::string("temporary file: ") + std::strerror(errno));
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        const int e = errno;
        ::close(errors_);
        errors_ = -1;
        throw ReplayError(mp4Path, 0, std::string("pipe: ") + std::strerror(e));
    }
    // A larger pipe means fewer wake-ups per frame; the default size works too.
    (void)fcntl(in[1], F_SETPIPE_SZ, 1 << 20);
    std::vector<std::string> argv = {ffmpeg, "-y",           "-v", "error",
                                     "-f",   "yuv4mpegpipe", "-i", "pipe:0"};
    for (const std::string& o : h264Options(preset))
        argv.push_back(o);
    // The format is named: the file may be written under a temporary name (".x.mp4.part").
    argv.insert(argv.end(), {"-movflags", "+faststart", "-f", "mp4", mp4Path});
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, errors_, 2);
    const int rc = spawnChild(child_, argv, actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    if (rc != 0) {
        child_ = -1;
        ::close(in[1]);
        ::close(errors_);
        errors_ = -1;
        throw ReplayError(ffmpeg, 0, std::string("cannot run: ") + std::strerror(rc));
    }
    input_ = in[1];
    path_ = mp4Path;
    width_ = width;
    height_ = height;
    written_ = 0;
    closing_ = false;
    writeError_.clear();
    queued_.clear();
    free_.clear();
    slots_.resize(static_cast<size_t>(std::max(1, depth)));
    for (size_t i = 0; i < slots_.size(); ++i) {
        slots_[i].resize(width, height);
        free_.push_back(static_cast<int>(i));
    }
    char header[128];
    const int n = std::snprintf(header, sizeof header,
                                "YUV4MPEG2 W%d H%d F%d:%d Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n",
                                width, height, fpsNum, fpsDen);
    thread_ = std::thread([this, h = std::string(header, static_cast<size_t>(n))] {
        // ffmpeg exiting early must show as a write error here, not kill the process: SIGPIPE
        // is blocked on this thread (a pipe write raises it on the writing thread only).
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
        if (!writeAll(input_, h.data(), h.size())) {
            std::lock_guard<std::mutex> lock(mutex_);
            writeError_ = std::strerror(errno);
        }
        feed();
        // Consume the SIGPIPE a failed write left pending, so it is not delivered elsewhere.
        const timespec zero{0, 0};
        while (sigtimedwait(&pipeSignal, nullptr, &zero) > 0) {
        }
    });
}

void VideoEncoder::feed() {
    for (;;) {
        int slot = -1;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !queued_.empty() || closing_; });
            if (queued_.empty())
                return;
            slot = queued_.front();
            queued_.pop_front();
        }
        const I420Image& f = slots_[static_cast<size_t>(slot)];
        bool ok = true;
        std::string error;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ok = writeError_.empty();
        }
        if (ok &&
            (!writeAll(input_, "FRAME\n", 6) || !writeAll(input_, f.data.data(), f.data.size())))
            error = std::strerror(errno);
        std::lock_guard<std::mutex> lock(mutex_);
        if (!error.empty() && writeError_.empty())
            writeError_ = error;
        free_.push_back(slot);
        changed_.notify_all();
    }
}

void VideoEncoder::write(const I420Image& frame) {
    if (child_ < 0)
        throw ReplayError("H.264 encoder used before open");
    if (frame.width != width_ || frame.height != height_) {
        throw ReplayError(path_, 0,
                          "frame of " + std::to_string(frame.width) + "x" +
                              std::to_string(frame.height) + " in a video of " +
                              std::to_string(width_) + "x" + std::to_string(height_));
    }
    int slot = -1;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !free_.empty() || !writeError_.empty(); });
        if (!writeError_.empty()) {
            lock.unlock();
            const std::string why = failure(-1);
            throw ReplayError(path_, 0, why);
        }
        slot = free_.back();
        free_.pop_back();
    }
    std::copy(frame.data.begin(), frame.data.end(), slots_[static_cast<size_t>(slot)].data.begin());
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queued_.push_back(slot);
    }
    changed_.notify_all();
    ++written_;
}

std::string VideoEncoder::failure(int status) {
    // ffmpeg stopped reading: let the thread drop what is queued, then wait for ffmpeg so that
    // its message is complete.
    if (status < 0 && child_ >= 0) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            closing_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable())
            thread_.join();
        ::close(input_);
        input_ = -1;
        status = waitStatus(child_);
        child_ = -1;
    }
    const std::string msg = lastLine(errors_);
    return "ffmpeg failed (exit " + std::to_string(status) + ")" + (msg.empty() ? "" : ": " + msg);
}

void VideoEncoder::finish() {
    if (child_ < 0)
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    thread_.join();
    ::close(input_);
    input_ = -1;
    const int status = waitStatus(child_);
    child_ = -1;
    std::string why;
    if (status != 0) {
        why = failure(status);
    } else {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!writeError_.empty())
            why = "ffmpeg stopped reading the frames: " + writeError_;
    }
    ::close(errors_);
    errors_ = -1;
    if (!why.empty())
        throw ReplayError(path_, 0, why);
}

void VideoEncoder::stop() {
    // Killing ffmpeg makes a write the thread is blocked in fail with EPIPE; the descriptor is
    // closed only after the thread has ended.
    if (child_ >= 0)
        kill(child_, SIGKILL);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
        queued_.clear();
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
    if (input_ >= 0) {
        ::close(input_);
        input_ = -1;
    }
    if (child_ >= 0) {
        waitStatus(child_);
        child_ = -1;
    }
    if (errors_ >= 0) {
        ::close(errors_);
        errors_ = -1;
    }
}

VideoDecoder::~VideoDecoder() {
    close();
}

void VideoDecoder::open(const std::string& ffmpeg, const std::string& path) {
    close();
    if (access(path.c_str(), R_OK) != 0) {
        throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
    }
    // ffmpeg's stderr is kept aside and shown only when the decode fails: closing the pipe
    // before the end of the video (all the frames needed were read) makes it complain.
    errors_ = errorFile();
    if (errors_ < 0)
        throw ReplayError(path, 0, std::string("temporary file: ") + std::strerror(errno));
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        const int e = errno;
        close();
        throw ReplayError(path, 0, std::string("pipe: ") + std::strerror(e));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errors_, 2);
    const std::vector<std::string> argv = {ffmpeg,     "-nostdin", "-v", "error",
                                           "-i",       path,       "-f", "yuv4mpegpipe",
                                           "-pix_fmt", "yuv420p",  "-"};
    const int rc = spawnChild(child_, argv, actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
        ::close(out[0]);
        child_ = -1;
        close();
        throw ReplayError(ffmpeg, 0, std::string("cannot run: ") + std::strerror(rc));
    }
    pipe_ = fdopen(out[0], "rb");
    path_ = path;
    try {
        reader_.attach(pipe_, path);
    } catch (const ReplayError&) {
        const std::string why = finish();
        throw ReplayError(
            path, 0,
            "ffmpeg could not decode this file as video" + (why.empty() ? "" : " (" + why + ")"));
    }
}

bool VideoDecoder::read(I420Image& out) {
    if (pipe_ == nullptr)
        return false;
    if (reader_.read(out))
        return true;
    // End of stream: ffmpeg must have exited cleanly for the video to be complete.
    const std::string why = finish();
    if (!why.empty())
        throw ReplayError(path_, 0, "ffmpeg failed while decoding: " + why);
    return false;
}

std::string VideoDecoder::finish() {
    if (pipe_ != nullptr) {
        std::fclose(pipe_);
        pipe_ = nullptr;
    }
    int status = 0;
    if (child_ >= 0) {
        status = waitStatus(child_);
        child_ = -1;
    }
    std::string why;
    if (status != 0) {
        const std::string msg = lastLine(errors_);
        why = "exit " + std::to_string(status) + (msg.empty() ? "" : ": " + msg);
    }
    if (errors_ >= 0) {
        ::close(errors_);
        errors_ = -1;
    }
    return why;
}

void VideoDecoder::close() {
    // Frames left unread: ffmpeg is stopped before its pipe is closed (otherwise it writes into
    // the closed pipe and complains; its stderr is discarded anyway) and reaped.
    if (child_ >= 0) {
        kill(child_, SIGKILL);
        waitStatus(child_);
        child_ = -1;
    }
    if (pipe_ != nullptr) {
        std::fclose(pipe_);
        pipe_ = nullptr;
    }
    if (errors_ >= 0) {
        ::close(errors_);
        errors_ = -1;
    }
}

}  // namespace qlmr::replay
