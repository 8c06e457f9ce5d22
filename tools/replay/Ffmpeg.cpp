#include "Ffmpeg.h"

#include "ReplayError.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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

int runProgram(const std::vector<std::string>& argv, std::string* errorText) {
    int errPipe[2] = {-1, -1};
    if (errorText != nullptr && pipe2(errPipe, O_CLOEXEC) != 0) {
        throw ReplayError(argv[0], 0, std::string("pipe: ") + std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (errorText != nullptr)
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
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
    return waitStatus(pid);
}

void encodeMp4(const std::string& ffmpeg, const std::string& y4mPath, const std::string& mp4Path) {
    std::string err;
    const int status = runProgram(
        {ffmpeg, "-nostdin", "-y", "-v", "error", "-i", y4mPath, "-c:v", "libx264", "-preset",
         "veryfast", "-crf", "18", "-pix_fmt", "yuv420p", "-movflags", "+faststart", mp4Path},
        &err);
    if (status != 0) {
        while (!err.empty() && (err.back() == '\n' || err.back() == '\r'))
            err.pop_back();
        const size_t lastLine = err.rfind('\n');
        const std::string msg = lastLine == std::string::npos ? err : err.substr(lastLine + 1);
        throw ReplayError(mp4Path, 0,
                          "ffmpeg failed (exit " + std::to_string(status) + ")" +
                              (msg.empty() ? "" : ": " + msg));
    }
}

VideoDecoder::~VideoDecoder() {
    try {
        close();
    } catch (...) {
    }
}

void VideoDecoder::open(const std::string& ffmpeg, const std::string& path) {
    close();
    if (access(path.c_str(), R_OK) != 0) {
        throw ReplayError(path, 0, std::string("cannot open: ") + std::strerror(errno));
    }
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        throw ReplayError(path, 0, std::string("pipe: ") + std::strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const std::vector<std::string> argv = {ffmpeg,     "-nostdin", "-v", "error",
                                           "-i",       path,       "-f", "yuv4mpegpipe",
                                           "-pix_fmt", "yuv420p",  "-"};
    std::vector<char*> args = cArgs(argv);
    const int rc = posix_spawn(&child_, ffmpeg.c_str(), &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
        ::close(out[0]);
        child_ = -1;
        throw ReplayError(ffmpeg, 0, std::string("cannot run: ") + std::strerror(rc));
    }
    pipe_ = fdopen(out[0], "rb");
    path_ = path;
    try {
        reader_.attach(pipe_, path);
    } catch (const ReplayError&) {
        close();
        throw ReplayError(path, 0, "ffmpeg could not decode this file as video");
    }
}

bool VideoDecoder::read(I420Image& out) {
    if (pipe_ == nullptr)
        return false;
    if (reader_.read(out))
        return true;
    // End of stream: ffmpeg must have exited cleanly for the video to be complete.
    FILE* p = pipe_;
    pipe_ = nullptr;
    std::fclose(p);
    const int status = child_ >= 0 ? waitStatus(child_) : 0;
    child_ = -1;
    if (status != 0) {
        throw ReplayError(path_, 0,
                          "ffmpeg failed while decoding (exit " + std::to_string(status) + ")");
    }
    return false;
}

void VideoDecoder::close() {
    if (pipe_ != nullptr) {
        std::fclose(pipe_);
        pipe_ = nullptr;
    }
    if (child_ >= 0) {
        kill(child_, SIGTERM);
        waitStatus(child_);
        child_ = -1;
    }
}

}  // namespace qlmr::replay
