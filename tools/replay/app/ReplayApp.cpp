#include "app/ReplayApp.h"

#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "input/Configuration.h"
#include "input/PrefetchFrames.h"
#include "measure/Calibration.h"
#include "media/Ffmpeg.h"
#include "media/ImageIo.h"
#include "output/OutputRecorder.h"
#include "output/Progress.h"
#include "report/Report.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <numeric>
#include <ostream>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace qlmr::replay {

namespace {

// Gyro gaps longer than this get a warning (the stabilization library's default bridge).
constexpr int64_t kGyroGapNs = 100000000;

void makeDirs(const std::string& path) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty())
            continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
            throw ReplayError(partial, 0,
                              std::string("cannot create folder: ") + std::strerror(errno));
        }
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw ReplayError(path, 0, "not a folder");
}

// Frames decoded ahead of the one the camera asks for: enough to cover a slow decode while the
// engine draws, few enough to keep memory low (3 x 12 MB at 4K).
constexpr int kPrefetchDepth = 4;

// The first `limit` frames of another source.
class LimitedFrames : public FrameSource {
  public:
    LimitedFrames(FrameSource& inner, int limit)
        : inner_(inner), limit_(std::min(limit, inner.count())) {}
    int width() const override { return inner_.width(); }
    int height() const override { return inner_.height(); }
    int count() const override { return limit_; }
    int64_t timestampNs(int i) const override { return inner_.timestampNs(i); }
    int exposureUs(int i) const override { return inner_.exposureUs(i); }
    void read(int i, Nv21Image& out) override { inner_.read(i, out); }
    std::string describe() const override {
        return inner_.describe() + ", first " + std::to_string(limit_) + " frames";
    }
    std::unique_ptr<FrameSource> clone() const override {
        std::unique_ptr<FrameSource> inner = inner_.clone();
        if (!inner)
            return nullptr;
        auto c = std::make_unique<LimitedFrames>(*inner, limit_);
        c->owned_ = std::move(inner);
        return c;
    }

  private:
    FrameSource& inner_;
    int limit_;
    std::unique_ptr<FrameSource> owned_;  // inner_ when this is a clone
};

// Another source read frame by frame on the calling thread, stopping at a requested
// interruption (the calibration pre-pass and --save-recording read every frame).
class InterruptibleFrames : public FrameSource {
  public:
    explicit InterruptibleFrames(FrameSource& inner) : inner_(inner) {}
    int width() const override { return inner_.width(); }
    int height() const override { return inner_.height(); }
    int count() const override { return inner_.count(); }
    int64_t timestampNs(int i) const override { return inner_.timestampNs(i); }
    int exposureUs(int i) const override { return inner_.exposureUs(i); }
    void read(int i, Nv21Image& out) override {
        throwIfInterrupted();
        inner_.read(i, out);
    }
    std::string describe() const override { return inner_.describe(); }
    std::unique_ptr<FrameSource> clone() const override { return nullptr; }

  private:
    FrameSource& inner_;
};

// Refuses a --save-recording folder that replacing would lose something in: an existing file,
// or a folder that holds files but no recording.
void checkReplaceable(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return;
    if (!S_ISDIR(st.st_mode))
        throw ReplayError(path, 0, "exists and is not a folder");
    std::error_code ec;
    if (access((path + "/frames.csv").c_str(), F_OK) == 0 || std::filesystem::is_empty(path, ec))
        return;
    throw ReplayError(path, 0, "exists and holds no recording (no frames.csv): not replaced");
}

// Frame rate from the median frame interval, as a rational for the Y4M header.
void frameRate(const FrameSource& frames, double& fps, int& num, int& den) {
    std::vector<int64_t> d;
    for (int i = 1; i < frames.count(); ++i)
        d.push_back(frames.timestampNs(i) - frames.timestampNs(i - 1));
    fps = 30;
    if (!d.empty()) {
        std::nth_element(d.begin(), d.begin() + static_cast<long>(d.size() / 2), d.end());
        const int64_t median = d[d.size() / 2];
        if (median > 0)
            fps = 1e9 / static_cast<double>(median);
    }
    num = static_cast<int>(std::lround(fps * 1000));
    den = 1000;
    const int g = std::gcd(num, den);
    num /= g;
    den /= g;
}

}  // namespace

void parseSize(const std::string& text, int& width, int& height) {
    const size_t x = text.find('x');
    char* end = nullptr;
    bool ok = x != std::string::npos && x > 0 && x + 1 < text.size();
    long w = 0, h = 0;
    if (ok) {
        // The parts live as long as `end` points into them.
        const std::string first = text.substr(0, x);
        const std::string second = text.substr(x + 1);
        w = std::strtol(first.c_str(), &end, 10);
        ok = *end == '\0';
        h = std::strtol(second.c_str(), &end, 10);
        ok = ok && *end == '\0';
    }
    if (!ok || w < 16 || h < 16 || w > 8192 || h > 8192 || w % 2 != 0 || h % 2 != 0) {
        throw ReplayError("size '" + text + "' must be WIDTHxHEIGHT, even numbers from 16 to 8192");
    }
    width = static_cast<int>(w);
    height = static_cast<int>(h);
}

ReplayFailure describeFailure(const std::exception& error, const std::string& outDir) {
    std::string dir = outDir;
    if (dir.empty() || dir.back() != '/')
        dir += '/';
    const std::string unchanged = "; the outputs in " + dir + " are unchanged";
    ReplayFailure f;
    // An error raised by the interruption itself (a read cut short) counts as the interruption.
    if (dynamic_cast<const Interrupted*>(&error) != nullptr || interruptRequested()) {
        f.message = "interrupted" + unchanged;
        f.exitStatus = 128 + (interruptSignal() != 0 ? interruptSignal() : SIGINT);
    } else {
        f.message = std::string("error: ") + error.what() + unchanged;
        f.exitStatus = 1;
    }
    return f;
}

ReplayOutcome runReplay(const ReplayOptions& options, ReplaySession& session, std::ostream& log) {
    ReplayOutcome outcome;
    ReplayMetrics& m = outcome.metrics;
    // Every output goes through here; destroyed last, after the encoders and files are closed,
    // it removes the temporaries of a run that did not reach the end.
    StagedOutputs staged;

    // Input.
    std::unique_ptr<SyntheticRecording> synthetic;
    Recording recording;
    std::unique_ptr<FrameSource> recordingFrames;
    FrameSource* frames = nullptr;
    const std::vector<GyroSample>* gyro = nullptr;
    std::string configText;
    if (options.input.empty()) {
        log << "building the synthetic recording..." << std::endl;
        synthetic = std::make_unique<SyntheticRecording>(options.synthetic);
        frames = synthetic.get();
        gyro = &synthetic->gyro();
        configText = synthetic->configText();
    } else {
        recording = loadRecording(options.input);
        recordingFrames = openRecordingFrames(recording);
        frames = recordingFrames.get();
        gyro = &recording.gyro;
        configText = recording.configText;
    }
    {
        // The configuration in force: checked by the library's parser before anything runs, its
        // warnings shown with the rest.
        std::string origin = options.input.empty() ? "the synthetic recording's configuration"
                                                   : recording.dir + "/config.txt";
        if (!options.configFile.empty()) {
            std::vector<uint8_t> bytes;
            readFile(options.configFile, bytes);
            configText.assign(bytes.begin(), bytes.end());
            origin = options.configFile;
        }
        const ConfigurationText effective = applyOverrides(configText, origin, options.configSets);
        configText = effective.text;
        for (const std::string& w : checkConfiguration(effective)) {
            (options.warnings != nullptr ? *options.warnings : log)
                << "configuration: " << w << std::endl;
            m.warnings.push_back("configuration: " + w);
        }
    }
    std::unique_ptr<LimitedFrames> limited;
    if (options.maxFrames > 0 && options.maxFrames < frames->count()) {
        limited = std::make_unique<LimitedFrames>(*frames, options.maxFrames);
        frames = limited.get();
    }
    if (!gyro->empty()) {
        const int64_t first = frames->timestampNs(0),
                      last = frames->timestampNs(frames->count() - 1);
        if (gyro->front().timestampNs > first || gyro->back().timestampNs < last) {
            m.warnings.push_back("the gyro samples do not cover every frame (gyro " +
                                 std::to_string(gyro->front().timestampNs) + ".." +
                                 std::to_string(gyro->back().timestampNs) + " ns, frames " +
                                 std::to_string(first) + ".." + std::to_string(last) + " ns)");
        }
        // A gyroscope that stalled: the stabilization library bridges a gap as no rotation, so
        // the frames in it come out as if the camera had been still.
        int gaps = 0;
        int64_t longestNs = 0, longestAtNs = 0;
        for (size_t i = 1; i < gyro->size(); ++i) {
            const int64_t a = (*gyro)[i - 1].timestampNs, b = (*gyro)[i].timestampNs;
            if (b - a > kGyroGapNs && b > first && a < last) {
                ++gaps;
                if (b - a > longestNs) {
                    longestNs = b - a;
                    longestAtNs = a;
                }
            }
        }
        if (gaps > 0) {
            char text[200];
            std::snprintf(text, sizeof text,
                          "the gyro samples stop %s for more than %.0f ms while frames come (the "
                          "longest %.2f s, %.2f s after the first frame); frames there are "
                          "stabilized as if the camera had not turned",
                          gaps == 1 ? "once" : (std::to_string(gaps) + " times").c_str(),
                          kGyroGapNs * 1e-6, longestNs * 1e-9, (longestAtNs - first) * 1e-9);
            m.warnings.push_back(text);
        }
    }
    double fps = 30;
    int fpsNum = 30, fpsDen = 1;
    frameRate(*frames, fps, fpsNum, fpsDen);

    if (options.calibrate) {
        // A second reading of the same frames (a fresh source: sources are read once, in
        // order), reduced as the replay's own check reduces them (calibrationReduction), to
        // measure the image motion the gyro must explain: the check after the replay then
        // repeats this measurement exactly.
        log << "calibrating the gyro axes and time offset on the input frames..." << std::endl;
        std::unique_ptr<FrameSource> second;
        if (options.input.empty())
            second = std::make_unique<SyntheticRecording>(options.synthetic);
        else
            second = openRecordingFrames(recording);
        FrameSource* source = second.get();
        std::unique_ptr<LimitedFrames> limitedSecond;
        if (options.maxFrames > 0 && options.maxFrames < source->count()) {
            limitedSecond = std::make_unique<LimitedFrames>(*source, options.maxFrames);
            source = limitedSecond.get();
        }
        CalibrationInput ci;
        InterruptibleFrames polled(*source);
        ci.lumas = readLumas(polled, calibrationReduction(source->width()));
        for (int i = 0; i < source->count(); ++i) {
            ci.timestampsNs.push_back(source->timestampNs(i));
            ci.exposureUs.push_back(source->exposureUs(i));
        }
        ci.frameWidth = source->width();
        ci.gyro = gyro;
        ci.configText = configText;
        ci.threads = options.threads;
        const CalibrationStats c = calibrate(ci);
        throwIfInterrupted();
        if (!c.measured || c.bestAxes.empty()) {
            throw ReplayError("--calibrate: the image motion could not be measured on " +
                              std::to_string(c.pairs) + " frame pairs");
        }
        char note[1024];
        if (c.changed) {
            std::snprintf(note, sizeof note,
                          "calibrated: gyro axes %s, offset %.2f ms (the configuration stated %s, "
                          "%.2f ms; agreement %.3f -> %.3f)",
                          c.useAxes.c_str(), c.useOffsetMs, c.statedAxes.c_str(), c.statedOffsetMs,
                          c.agreement, c.useAgreement);
        } else {
            std::snprintf(note, sizeof note,
                          "calibration: replayed with the configured values (%s)",
                          c.verdict.c_str());
        }
        log << note << std::endl;
        m.calibratedFrom = note;
        if (c.changed)
            configText = withCalibration(configText, c.useAxes, c.useOffsetMs);
    }

    throwIfInterrupted();
    makeDirs(options.outDir);
    const std::string dir = options.outDir + "/";
    if (!options.saveRecording.empty()) {
        log << "saving the input recording to " << options.saveRecording << "..." << std::endl;
        checkReplaceable(options.saveRecording);
        const std::string temporary = staged.stage(options.saveRecording);
        makeDirs(temporary);
        InterruptibleFrames polled(*frames);
        saveRecording(temporary, polled, *gyro, configText, 95);
    }

    // Frames are decoded (or rendered) ahead of the camera on threads of their own (image
    // files on --threads decoders).
    PrefetchFrames prefetch(*frames, kPrefetchDepth, options.threads);
    frames = &prefetch;

    SessionConfig config;
    config.configText = configText;
    config.realtime = options.realtime;
    OutputSurfaceSpec surface;
    surface.width = options.outputWidth > 0 ? options.outputWidth : frames->width();
    surface.height = options.outputHeight > 0 ? options.outputHeight : frames->height();
    config.surfaces.push_back(surface);

    // MP4 is encoded while the engine runs, when ffmpeg is installed; Y4M when asked for, or
    // when there is no ffmpeg (a video is always written).
    const std::string ffmpeg = options.mp4 ? ffmpegProgram() : "";
    if (options.mp4 && ffmpeg.empty()) {
        m.warnings.push_back("ffmpeg is not installed: the videos are written as Y4M only");
    }
    const bool y4m = options.y4m || ffmpeg.empty();
    std::vector<std::string> videoFiles;
    RecorderOptions ro;
    ro.ffmpeg = ffmpeg;
    ro.h264Preset = options.h264Preset;
    // Each video is written under its temporary name; an earlier run's video of a kind this
    // run does not write goes when this one's are renamed into place.
    auto video = [&](bool wanted, const char* name, std::string& path) {
        if (!wanted) {
            staged.retire(dir + name);
            return;
        }
        path = staged.stage(dir + name);
        videoFiles.push_back(name);
    };
    video(y4m, "stabilized.y4m", ro.videoPath);
    video(!ffmpeg.empty(), "stabilized.mp4", ro.videoMp4Path);
    video(options.sideBySide && y4m, "side_by_side.y4m", ro.sideBySidePath);
    video(options.sideBySide && !ffmpeg.empty(), "side_by_side.mp4", ro.sideBySideMp4Path);
    ro.expectedFrames = frames->count();
    ro.inputWidth = frames->width();
    ro.inputHeight = frames->height();
    ro.outputWidth = surface.width;
    ro.outputHeight = surface.height;
    ro.fpsNum = fpsNum;
    ro.fpsDen = fpsDen;
    ro.pairCount = options.pairs;
    OutputRecorder recorder(ro);

    m.sessionName = session.name();
    m.inputDescription = frames->describe();
    m.inputWidth = frames->width();
    m.inputHeight = frames->height();
    m.fps = fps;
    m.gyroSamples = static_cast<int>(gyro->size());
    m.framesIn = frames->count();

    log << "replaying " << m.inputDescription << " through " << m.sessionName << std::endl;
    SessionResult result;
    {
        EngineLogTap tap(staged.stage(dir + "engine.log"));
        {
            ProgressBar bar(options.progress, frames->count(), [&recorder](int& done, int& out) {
                done = recorder.delivered();
                out = recorder.output();
            });
            result = session.run(*frames, *gyro, config, recorder);
        }
        m.engine = tap.stats();
    }
    throwIfInterrupted();
    recorder.finish();
    outcome.files = videoFiles;
    outcome.files.push_back("engine.log");
    m.framesDelivered = result.framesDelivered;
    m.framesLate = result.framesLate;
    m.engine.renderedUnstabilized += result.renderedUnstabilized;
    if (m.engine.renderedUnstabilized > 0) {
        std::string why = "the stabilization library had no warp for them; see engine.log";
        const int64_t lastFrameNs = frames->timestampNs(frames->count() - 1);
        if (gyro->empty()) {
            why = "there are no gyro samples";
        } else {
            const int64_t firstFrameNs = frames->timestampNs(0);
            char text[160] = "";
            if (gyro->front().timestampNs > firstFrameNs) {
                std::snprintf(text, sizeof text,
                              "the gyro samples start %.2f s after the first frame",
                              (gyro->front().timestampNs - firstFrameNs) * 1e-9);
            }
            if (gyro->back().timestampNs < lastFrameNs) {
                const size_t used = std::strlen(text);
                std::snprintf(text + used, sizeof text - used,
                              "%sthe gyro samples end %.2f s before the last frame",
                              used > 0 ? "; " : "",
                              (lastFrameNs - gyro->back().timestampNs) * 1e-9);
            }
            if (text[0] != '\0')
                why = text;
        }
        m.warnings.push_back(std::to_string(m.engine.renderedUnstabilized) + " of " +
                             std::to_string(m.framesIn) + " frames were rendered unstabilized (" +
                             why + ")");
    }
    m.wallSec = result.wallSec;
    for (const std::string& n : result.notes)
        m.notes.push_back(n);
    for (const std::string& w : result.warnings)
        m.warnings.push_back(w);
    if (recorder.sizeMismatches() > 0) {
        m.warnings.push_back(std::to_string(recorder.sizeMismatches()) +
                             " output frames had the wrong size and were not recorded");
    }
    if (recorder.outOfOrderOutputs() > 0) {
        m.warnings.push_back(std::to_string(recorder.outOfOrderOutputs()) +
                             " output frames came out of timestamp order");
    }

    log << "measuring..." << std::endl;
    MetricsContext mc;
    mc.recorder = &recorder;
    mc.synthetic = options.input.empty() ? synthetic.get() : nullptr;
    mc.fps = fps;
    mc.threads = options.threads;
    computeMetrics(mc, m);
    throwIfInterrupted();

    // Gyro against image motion, on every replay: the inputs the recorder kept.
    log << "measuring the gyro against the image motion..." << std::endl;
    {
        CalibrationInput ci;
        const std::vector<InputRecord>& inputs = recorder.inputs();
        const int delivered = std::min<int>(recorder.delivered(), static_cast<int>(inputs.size()));
        for (int i = 0; i < delivered; ++i) {
            ci.timestampsNs.push_back(inputs[static_cast<size_t>(i)].timestampNs);
            ci.exposureUs.push_back(frames->exposureUs(i));
            ci.pictures.push_back(&inputs[static_cast<size_t>(i)].luma);
        }
        // The pairs the pixel-motion measure registered, not registered again.
        ci.motion = std::move(m.inputPairMotion);
        ci.measuredWidth = m.lumaWidth;
        ci.frameWidth = frames->width();
        ci.gyro = gyro;
        ci.configText = configText;
        ci.threads = options.threads;
        m.calibration = calibrate(ci);
        for (const std::string& w : m.calibration.warnings)
            m.warnings.push_back(w);
    }
    throwIfInterrupted();
    // The MP4 encoders worked through their last queued frames while the measures ran.
    recorder.finishEncoding();
    log << "writing metrics.json and report.html..." << std::endl;

    const std::string json = metricsJson(m);
    writeFile(staged.stage(dir + "metrics.json"), json.data(), json.size());
    outcome.files.push_back("metrics.json");
    // Not named config.txt: an output folder may be a recording folder.
    writeFile(staged.stage(dir + "configuration.txt"), configText.data(), configText.size());
    outcome.files.push_back("configuration.txt");

    ReportContext rc;
    rc.commandLine = options.commandLine;
    rc.configText = configText;
    for (const std::string& f : outcome.files) {
        std::string what = "file";
        if (f == "stabilized.y4m")
            what = "output video (Y4M, 4:2:0)";
        if (f == "stabilized.mp4")
            what = "output video (H.264)";
        if (f == "side_by_side.y4m" || f == "side_by_side.mp4")
            what = "input | output";
        if (f == "engine.log")
            what = "every engine log line of the run";
        if (f == "metrics.json")
            what = "the figures of this report";
        if (f == "configuration.txt")
            what = "the configuration the engine ran with (after --config, --set, --calibrate)";
        rc.files.push_back({f, what});
    }
    const std::string html = reportHtml(m, recorder.pairs(), rc);
    writeFile(staged.stage(dir + "report.html"), html.data(), html.size());
    outcome.files.push_back("report.html");
    // Everything is written: the outputs replace the earlier ones together.
    throwIfInterrupted();
    staged.commit();
    return outcome;
}

}  // namespace qlmr::replay
