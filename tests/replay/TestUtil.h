// Helpers shared by the replay tool's tests: scratch folders, pictures, recordings, the command.
#pragma once

#include "app/ReplayApp.h"
#include "common/ReplayError.h"
#include "measure/Calibration.h"
#include "media/Image.h"
#include "media/Y4m.h"
#include "synthetic/Synthetic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

using ::testing::HasSubstr;  // a sentence inside a text, shown whole when it is missing

namespace replay_test {

// A fresh folder under /tmp, removed with its contents when the object goes.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/qlmr_replay_test_XXXXXX";
        const char* made = mkdtemp(tmpl);
        if (made == nullptr)
            throw std::runtime_error("mkdtemp failed");
        path_ = made;
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// A smooth colour gradient with some structure, deterministic.
inline qlmr::replay::RgbImage gradient(int w, int h) {
    qlmr::replay::RgbImage img;
    img.resize(w, h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            uint8_t* p = img.row(y) + 3 * x;
            p[0] = static_cast<uint8_t>(40 + 170 * x / w);
            p[1] = static_cast<uint8_t>(40 + 170 * y / h);
            p[2] = static_cast<uint8_t>(((x / 8 + y / 8) % 2) ? 200 : 60);
        }
    }
    return img;
}

// Frames of one flat colour each, luma level + step * index and chroma (v, u), stepNs apart.
class FlatFrames : public qlmr::replay::FrameSource {
  public:
    FlatFrames(int count, int w, int h) : count_(count), w_(w), h_(h) {}
    int width() const override { return w_; }
    int height() const override { return h_; }
    int count() const override { return count_; }
    int64_t timestampNs(int i) const override { return firstNs + i * stepNs; }
    int exposureUs(int) const override { return exposure; }
    void read(int i, qlmr::replay::Nv21Image& out) override {
        std::fill(out.y(), out.y() + w_ * h_, static_cast<uint8_t>(level + step * i));
        for (int k = 0; k < w_ * h_ / 2; k += 2) {
            out.vu()[k] = v;
            out.vu()[k + 1] = u;
        }
    }
    std::string describe() const override { return "flat"; }

    int64_t firstNs = 5000000000LL, stepNs = 40000000;
    int exposure = 1000, level = 20, step = 10;
    uint8_t v = 128, u = 128;

  private:
    int count_, w_, h_;
};

// An observer that ignores what it is told.
struct NullObserver : qlmr::replay::SessionObserver {
    void onFrameDelivered(int, int64_t, const qlmr::replay::Nv21Image&) override {}
    void onFrameOutput(int, int64_t, const qlmr::replay::RgbaView&) override {}
};

// Frames in a Y4M file.
inline int countFrames(const std::string& path) {
    qlmr::replay::Y4mReader r;
    r.open(path);
    qlmr::replay::I420Image f;
    int n = 0;
    while (r.read(f))
        ++n;
    return n;
}

// What calibrate() needs from a recording: its lumas reduced by `factor`, times and exposures.
inline qlmr::replay::CalibrationInput calibrationInput(
    qlmr::replay::FrameSource& frames, int factor,
    const std::vector<qlmr::replay::GyroSample>& gyro, const std::string& configText) {
    qlmr::replay::CalibrationInput in;
    in.lumas = qlmr::replay::readLumas(frames, factor);
    for (int i = 0; i < frames.count(); ++i) {
        in.timestampsNs.push_back(frames.timestampNs(i));
        in.exposureUs.push_back(frames.exposureUs(i));
    }
    in.frameWidth = frames.width();
    in.gyro = &gyro;
    in.configText = configText;
    return in;
}

// The synthetic handheld walk over the procedural scene at a test-friendly size.
inline qlmr::replay::SyntheticOptions walk(int width, int height, double seconds) {
    qlmr::replay::SyntheticOptions s;
    s.width = width;
    s.height = height;
    s.seconds = seconds;
    s.scene = "procedural";
    return s;
}

// A replay of walk() into dir/out without an MP4, keeping `pairs` picture pairs.
inline qlmr::replay::ReplayOptions replayOf(const TempDir& dir, int width, int height,
                                            double seconds, int pairs = 0) {
    qlmr::replay::ReplayOptions o;
    o.outDir = dir.file("out");
    o.synthetic = walk(width, height, seconds);
    o.mp4 = false;
    o.pairs = pairs;
    return o;
}

// A recording folder: its frames/ folder and the three text files.
inline void writeRecording(const TempDir& dir, const std::string& framesCsv,
                           const std::string& gyroCsv = "timestamp_ns,x,y,z\n1,0,0,0\n",
                           const std::string& config = "x=1\n") {
    std::system(("mkdir -p '" + dir.file("frames") + "'").c_str());
    writeText(dir.file("frames.csv"), framesCsv);
    writeText(dir.file("gyro.csv"), gyroCsv);
    writeText(dir.file("config.txt"), config);
}

// Keeps the header and the samples of a gyro.csv whose timestamp satisfies keep(ns).
template <typename Keep>
void keepGyro(const std::string& path, Keep keep) {
    std::istringstream in(readText(path));
    std::string kept;
    for (std::string line; std::getline(in, line);) {
        if (line[0] == 't' || keep(std::stoll(line)))
            kept += line + "\n";
    }
    writeText(path, kept);
}

// The text of the ReplayError `body` throws; "" when it throws none.
template <typename Body>
std::string errorOf(Body body) {
    try {
        body();
    } catch (const qlmr::replay::ReplayError& e) {
        return e.what();
    }
    return "";
}

// Runs qlmr_replay with `args`; its exit status, and its standard error in `err`.
inline int runCommand(const std::string& args, std::string& err) {
    TempDir dir;
    const std::string cmd =
        std::string(QLMR_REPLAY_BIN) + " " + args + " 2>" + dir.file("err") + " >/dev/null";
    const int status = std::system(cmd.c_str());
    err = readText(dir.file("err"));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace replay_test
