#include "input/Recording.h"

#include "common/ReplayError.h"
#include "input/Csv.h"
#include "media/ColorConvert.h"
#include "media/Ffmpeg.h"
#include "media/Y4m.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <dirent.h>
#include <sys/stat.h>

namespace qlmr::replay {

namespace {

std::string joinPath(const std::string& dir, const std::string& name) {
    if (name.empty() || name[0] == '/' || dir.empty())
        return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string sizeText(int w, int h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

// "" when a frame size can be replayed, else what is wrong with it ("WxH; ..."). Any even size
// up to 8192 pixels: the engine session scales widths its buffers cannot take.
std::string frameSizeFault(int w, int h) {
    if (w % 2 == 0 && h % 2 == 0 && w > 0 && h > 0 && w <= 8192 && h <= 8192)
        return "";
    return sizeText(w, h) + "; frames need an even width and height of at most 8192 pixels";
}

// Finds the folder's single "video.*" file, or "".
std::string findVideo(const std::string& dir) {
    std::string found;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr)
        return found;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.rfind("video.", 0) == 0) {
            if (!found.empty()) {
                closedir(d);
                throw ReplayError(dir, 0,
                                  "more than one video.* file (" + found + ", " + name + ")");
            }
            found = name;
        }
    }
    closedir(d);
    return found.empty() ? found : joinPath(dir, found);
}

void loadFrames(const std::string& dir, bool checkImages, Recording& rec) {
    const std::string path = joinPath(dir, "frames.csv");
    CsvReader csv(path);
    std::vector<std::string> f;
    if (!csv.next(f))
        throw ReplayError(path, 0, "empty file: a header line is expected");
    // Header: timestamp_ns, then optionally file, then optionally exposure_us.
    int fileCol = -1;
    int exposureCol = -1;
    if (f[0] != "timestamp_ns") {
        csv.fail("header must start with timestamp_ns, got '" + f[0] + "'");
    }
    for (size_t i = 1; i < f.size(); ++i) {
        if (f[i] == "file" && fileCol < 0) {
            fileCol = static_cast<int>(i);
        } else if (f[i] == "exposure_us" && exposureCol < 0) {
            exposureCol = static_cast<int>(i);
        } else {
            csv.fail("unknown or repeated column '" + f[i] +
                     "' (columns: timestamp_ns[,file][,exposure_us])");
        }
    }
    const size_t columns = f.size();
    std::string header;
    for (size_t i = 0; i < f.size(); ++i)
        header += (i ? "," : "") + f[i];

    if (fileCol < 0) {
        rec.videoPath = findVideo(dir);
        if (rec.videoPath.empty()) {
            csv.fail("frames.csv has no file column and the folder has no video.* file");
        }
    }
    int previousLine = 0;
    while (csv.next(f)) {
        if (f.size() != columns) {
            csv.fail("expected " + std::to_string(columns) + " fields (" + header + "), got " +
                     std::to_string(f.size()));
        }
        FrameEntry e;
        e.line = csv.line();
        e.timestampNs = csv.toInt64(f[0], "timestamp_ns");
        if (!rec.frames.empty() && e.timestampNs <= rec.frames.back().timestampNs) {
            csv.fail("timestamp " + std::to_string(e.timestampNs) +
                     " is not after the previous frame's " +
                     std::to_string(rec.frames.back().timestampNs) + " (line " +
                     std::to_string(previousLine) + ")");
        }
        if (exposureCol >= 0) {
            const int64_t exp = csv.toInt64(f[static_cast<size_t>(exposureCol)], "exposure_us");
            if (exp < 0 || exp > 65535)
                csv.fail("exposure_us " + std::to_string(exp) + " outside 0..65535");
            e.exposureUs = static_cast<int>(exp);
        }
        if (fileCol >= 0) {
            const std::string& name = f[static_cast<size_t>(fileCol)];
            if (name.empty())
                csv.fail("empty file name");
            e.file = joinPath(dir, name);
            if (checkImages || rec.frames.empty()) {
                ImageSize size;
                try {
                    size = readImageSize(e.file);
                } catch (const ReplayError& err) {
                    csv.fail("image " + std::string(err.what()));
                }
                if (rec.frames.empty()) {
                    if (const std::string fault = frameSizeFault(size.width, size.height);
                        !fault.empty())
                        csv.fail("image " + e.file + " is " + fault);
                    rec.width = size.width;
                    rec.height = size.height;
                } else if (size.width != rec.width || size.height != rec.height) {
                    csv.fail("image " + e.file + " is " + sizeText(size.width, size.height) +
                             ", the recording's frames are " + sizeText(rec.width, rec.height) +
                             " (line " + std::to_string(rec.frames.front().line) + ")");
                }
            }
        }
        previousLine = csv.line();
        rec.frames.push_back(std::move(e));
    }
    if (rec.frames.empty())
        throw ReplayError(path, 0, "no frames listed");
    if (!rec.videoPath.empty()) {
        // The size comes from the stream header. The frames are counted now, so that a video
        // that does not match frames.csv stops the run before the replay starts: a Y4M file by
        // its frame headers, anything else by ffprobe when it is installed beside ffmpeg
        // (without it, reading the video finds the difference).
        long frames = -1;
        if (rec.videoPath.size() > 4 &&
            rec.videoPath.compare(rec.videoPath.size() - 4, 4, ".y4m") == 0) {
            Y4mReader reader;
            reader.open(rec.videoPath);
            rec.width = reader.width();
            rec.height = reader.height();
            frames = 0;
            while (reader.skip())
                ++frames;
        } else {
            const std::string ffmpeg = ffmpegProgram();
            if (ffmpeg.empty()) {
                throw ReplayError(rec.videoPath, 0,
                                  "decoding this video needs the ffmpeg program, which is not "
                                  "installed (convert it to .y4m or to image files)");
            }
            VideoDecoder decoder;
            decoder.open(ffmpeg, rec.videoPath);
            rec.width = decoder.width();
            rec.height = decoder.height();
            const std::string ffprobe = ffprobeBeside(ffmpeg);
            if (!ffprobe.empty())
                frames = countVideoFrames(ffprobe, rec.videoPath);
        }
        if (const std::string fault = frameSizeFault(rec.width, rec.height); !fault.empty())
            throw ReplayError(rec.videoPath, 0, "the video is " + fault);
        if (frames >= 0 && frames != static_cast<long>(rec.frames.size())) {
            throw ReplayError(rec.videoPath, 0,
                              "the video has " + std::to_string(frames) +
                                  " frames, frames.csv lists " + std::to_string(rec.frames.size()));
        }
    }
}

}  // namespace

float readGyroRate(const CsvReader& csv, const std::string& field, const char* axis) {
    const double v = csv.toDouble(field, axis);
    if (std::fabs(v) > kMaxGyroRate) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "%s %g rad/s is beyond the gyroscope's range of ±%g rad/s (about 2000 "
                      "°/s): a damaged sample",
                      axis, v, kMaxGyroRate);
        csv.fail(text);
    }
    return static_cast<float>(v);
}

namespace {

void loadGyro(const std::string& dir, Recording& rec) {
    const std::string path = joinPath(dir, "gyro.csv");
    CsvReader csv(path);
    std::vector<std::string> f;
    if (!csv.next(f))
        throw ReplayError(path, 0, "empty file: a header line is expected");
    if (f != std::vector<std::string>{"timestamp_ns", "x", "y", "z"}) {
        csv.fail("header must be timestamp_ns,x,y,z");
    }
    int previousLine = 0;
    while (csv.next(f)) {
        if (f.size() != 4) {
            csv.fail("expected 4 fields (timestamp_ns,x,y,z), got " + std::to_string(f.size()));
        }
        GyroSample s;
        s.timestampNs = csv.toInt64(f[0], "timestamp_ns");
        if (s.timestampNs <= 0)
            csv.fail("timestamp_ns must be positive");
        s.x = readGyroRate(csv, f[1], "x");
        s.y = readGyroRate(csv, f[2], "y");
        s.z = readGyroRate(csv, f[3], "z");
        if (!rec.gyro.empty() && s.timestampNs < rec.gyro.back().timestampNs) {
            csv.fail("timestamp " + std::to_string(s.timestampNs) + " goes back before " +
                     std::to_string(rec.gyro.back().timestampNs) + " (line " +
                     std::to_string(previousLine) + ")");
        }
        previousLine = csv.line();
        rec.gyro.push_back(s);
    }
    if (rec.gyro.empty())
        throw ReplayError(path, 0, "no gyro samples");
}

void loadConfig(const std::string& dir, Recording& rec) {
    const std::string path = joinPath(dir, "config.txt");
    std::vector<uint8_t> bytes;
    readFile(path, bytes);
    if (bytes.empty())
        throw ReplayError(path, 0, "empty configuration text");
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == 0) {
            int line = 1;
            for (size_t j = 0; j < i; ++j)
                line += bytes[j] == '\n';
            throw ReplayError(path, line, "NUL byte in the configuration text");
        }
    }
    rec.configText.assign(bytes.begin(), bytes.end());
}

// What both frame sources of a loaded recording read from its frame list.
class RecordingFrames : public FrameSource {
  public:
    explicit RecordingFrames(const Recording& rec) : rec_(rec) {}
    int width() const override { return rec_.width; }
    int height() const override { return rec_.height; }
    int count() const override { return static_cast<int>(rec_.frames.size()); }
    int64_t timestampNs(int i) const override {
        return rec_.frames[static_cast<size_t>(i)].timestampNs;
    }
    int exposureUs(int i) const override { return rec_.frames[static_cast<size_t>(i)].exposureUs; }

  protected:
    const Recording& rec_;
};

// Frames from image files.
class ImageFrames : public RecordingFrames {
  public:
    explicit ImageFrames(const Recording& rec) : RecordingFrames(rec) {}
    void read(int i, Nv21Image& out) override {
        const FrameEntry& e = rec_.frames[static_cast<size_t>(i)];
        try {
            reader_.readNv21(e.file, out);
        } catch (const ReplayError& err) {
            // "<image>: <the decoder's reason>", placed at the frame's line.
            throw ReplayError(joinPath(rec_.dir, "frames.csv"), e.line,
                              "image " + std::string(err.what()));
        }
        if (out.width != rec_.width || out.height != rec_.height) {
            const std::string found = sizeText(out.width, out.height);
            out.resize(rec_.width, rec_.height);
            throw ReplayError(joinPath(rec_.dir, "frames.csv"), e.line,
                              "image " + e.file + " is " + found + ", the recording's frames are " +
                                  sizeText(rec_.width, rec_.height));
        }
    }
    std::string describe() const override {
        return rec_.dir + " (" + std::to_string(count()) + " image frames, " +
               sizeText(rec_.width, rec_.height) + ")";
    }
    std::unique_ptr<FrameSource> clone() const override {
        return std::make_unique<ImageFrames>(rec_);
    }

  private:
    ImageReader reader_;
};

// Frames from one video file (Y4M read directly, anything else through ffmpeg).
class VideoFrames : public RecordingFrames {
  public:
    explicit VideoFrames(const Recording& rec) : RecordingFrames(rec) {}
    void read(int i, Nv21Image& out) override {
        if (i != next_)
            throw ReplayError(rec_.videoPath, 0, "video frames must be read in order");
        if (next_ == 0)
            start();
        if (!nextFrame()) {
            throw ReplayError(rec_.videoPath, 0,
                              "video ends after " + std::to_string(i) +
                                  " frames, frames.csv lists " + std::to_string(count()));
        }
        if (yuv_.width != rec_.width || yuv_.height != rec_.height) {
            throw ReplayError(rec_.videoPath, 0,
                              "frame " + std::to_string(i + 1) + " is " +
                                  sizeText(yuv_.width, yuv_.height) + ", expected " +
                                  sizeText(rec_.width, rec_.height));
        }
        toNv21(out);
        ++next_;
        if (next_ == count() && nextFrame()) {
            throw ReplayError(
                rec_.videoPath, 0,
                "video has more frames than the " + std::to_string(count()) + " in frames.csv");
        }
    }
    std::string describe() const override {
        return rec_.videoPath + " (" + std::to_string(count()) + " video frames, " +
               sizeText(rec_.width, rec_.height) + ")";
    }

  private:
    bool isY4m() const {
        const std::string& p = rec_.videoPath;
        return p.size() > 4 && p.compare(p.size() - 4, 4, ".y4m") == 0;
    }
    void start() {
        if (isY4m()) {
            y4m_.open(rec_.videoPath);
        } else {
            const std::string ffmpeg = ffmpegProgram();
            if (ffmpeg.empty())
                throw ReplayError(rec_.videoPath, 0, "the ffmpeg program is not installed");
            decoder_.open(ffmpeg, rec_.videoPath);
        }
    }
    bool nextFrame() { return isY4m() ? y4m_.read(yuv_) : decoder_.read(yuv_); }
    void toNv21(Nv21Image& out) {
        std::copy(yuv_.y(), yuv_.y() + yuv_.lumaSize(), out.y());
        const int cw = yuv_.width / 2;
        for (int y = 0; y < yuv_.height / 2; ++y) {
            uint8_t* vu = out.vu() + static_cast<size_t>(y) * yuv_.width;
            const uint8_t* u = yuv_.u() + static_cast<size_t>(y) * cw;
            const uint8_t* v = yuv_.v() + static_cast<size_t>(y) * cw;
            for (int x = 0; x < cw; ++x) {
                vu[2 * x] = v[x];
                vu[2 * x + 1] = u[x];
            }
        }
    }

    Y4mReader y4m_;
    VideoDecoder decoder_;
    I420Image yuv_;
    int next_ = 0;
};

}  // namespace

Recording loadRecording(const std::string& dir, bool checkImages) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw ReplayError(dir, 0, "no such recording folder");
    }
    Recording rec;
    rec.dir = dir;
    loadFrames(dir, checkImages, rec);
    loadGyro(dir, rec);
    loadConfig(dir, rec);
    return rec;
}

std::unique_ptr<FrameSource> openRecordingFrames(const Recording& recording) {
    if (!recording.videoPath.empty())
        return std::make_unique<VideoFrames>(recording);
    return std::make_unique<ImageFrames>(recording);
}

void saveRecording(const std::string& dir, FrameSource& frames, const std::vector<GyroSample>& gyro,
                   const std::string& configText, int jpegQuality) {
    mkdir(dir.c_str(), 0755);
    const std::string framesDir = joinPath(dir, "frames");
    if (mkdir(framesDir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw ReplayError(framesDir, 0, "cannot create folder");
    }
    std::string csv = "timestamp_ns,file,exposure_us\n";
    Nv21Image nv21;
    nv21.resize(frames.width(), frames.height());
    RgbImage rgb;
    rgb.resize(frames.width(), frames.height());
    char name[64];
    for (int i = 0; i < frames.count(); ++i) {
        frames.read(i, nv21);
        nv21ToRgb(nv21, rgb);
        std::snprintf(name, sizeof name, "frames/%06d.%s", i, jpegQuality > 0 ? "jpg" : "png");
        if (jpegQuality > 0) {
            writeJpeg(joinPath(dir, name), rgb, jpegQuality);
        } else {
            writePng(joinPath(dir, name), rgb);
        }
        csv += std::to_string(frames.timestampNs(i)) + "," + name + "," +
               std::to_string(frames.exposureUs(i)) + "\n";
    }
    writeFile(joinPath(dir, "frames.csv"), csv.data(), csv.size());
    std::string g = "timestamp_ns,x,y,z\n";
    char line[128];
    for (const GyroSample& s : gyro) {
        std::snprintf(line, sizeof line, "%" PRId64 ",%.9g,%.9g,%.9g\n", s.timestampNs, s.x, s.y,
                      s.z);
        g += line;
    }
    writeFile(joinPath(dir, "gyro.csv"), g.data(), g.size());
    writeFile(joinPath(dir, "config.txt"), configText.data(), configText.size());
}

}  // namespace qlmr::replay
