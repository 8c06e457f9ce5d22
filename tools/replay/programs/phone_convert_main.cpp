// qlmr_phone_convert: turns the real phone recording (frames/frame-N.jpg, framestamp.txt,
// gyro.txt) into a replay recording folder, and finds the gyro's axis signs and time offset
// from the image motion (--analyze).
#include "app/CommandLine.h"
#include "common/ReplayError.h"
#include "input/PhoneRecording.h"
#include "measure/GyroAlignment.h"
#include "media/ColorConvert.h"
#include "media/ImageIo.h"

#include <CLI/CLI.hpp>

#include <cstdio>

using namespace qlmr::replay;

int main(int argc, char** argv) {
    CLI::App app{"Converts the phone recording into a replay recording folder."};
    std::string data = QLMR_PHONE_DATA_DIR;
    std::string out;
    std::string axes = "-y,-x,-z";
    double offsetMs = 0.2;
    bool analyze = false;
    bool curve = false;
    int threads = 2;
    app.add_option("--data", data, "the phone recording's folder")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    app.add_option("--out", out, "recording folder to write");
    app.add_option(
           "--camera-axes", axes,
           "camera-axis rates from the raw gyro axes, e.g. -y,-x,-z = camera x from minus gyro y, "
           "camera y from minus gyro x, camera z from minus gyro z (found by --analyze)")
        ->capture_default_str();
    app.add_option("--offset-ms", offsetMs,
                   "gyro time minus frame time of the same instant (found by --analyze); removed "
                   "from the gyro timestamps")
        ->capture_default_str()
        ->check(CLI::Range(-1000.0, 1000.0));
    app.add_flag("--analyze", analyze,
                 "rank every axis sign/permutation and offset against the image motion");
    app.add_flag("--curve", curve,
                 "with --analyze: print the error against offset for the chosen axes");
    app.add_option("--threads", threads, "threads for the image motion")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    if (const int rc = parseCommandLine(app, argc, argv); rc >= 0)
        return rc;
    if (out.empty() && !analyze) {
        std::fprintf(stderr, "qlmr_phone_convert: error: give --out DIR and/or --analyze\n");
        return 2;
    }
    AxisMap map;
    try {
        map = parseCameraAxes(axes);
    } catch (const ReplayError& e) {
        std::fprintf(stderr, "qlmr_phone_convert: error: %s\n", e.what());
        return 2;  // a usage error, like CLI11's own
    }
    try {
        const PhoneRecording phone = loadPhoneRecording(data);
        const PhoneCamera camera;
        std::printf("%zu frames %dx%d, %zu gyro samples\n", phone.framePaths.size(), phone.width,
                    phone.height, phone.gyro.size());
        if (analyze) {
            std::vector<GrayImage> lumas(phone.framePaths.size());
            std::vector<double> times;
            ImageReader reader;
            RgbImage rgb;
            Nv21Image nv21;
            for (size_t i = 0; i < phone.framePaths.size(); ++i) {
                reader.read(phone.framePaths[i], rgb);
                nv21.resize(rgb.width & ~1, rgb.height & ~1);
                rgbToNv21(rgb, nv21);
                lumas[i].resize(nv21.width, nv21.height);
                downsampleLuma(nv21.y(), nv21.width, nv21.height, nv21.width, 1, lumas[i]);
                times.push_back(phone.frameTimestampsNs[i] * 1e-9);
            }
            const std::vector<FrameMotion> motion = measureFrameMotion(lumas, times, threads);
            int ok = 0;
            for (const FrameMotion& f : motion)
                ok += f.ok;
            std::printf("image motion measured on %d of %zu frame pairs\n", ok, motion.size());
            AlignmentSearch search;
            search.focalPx = camera.fx;
            search.readoutMs = camera.readoutMs;
            const std::vector<AlignmentScore> ranked = rankAlignments(motion, phone.gyro, search);
            std::printf("rank  camera-axes  rotation  offset_ms  rms_px\n");
            for (size_t i = 0; i < ranked.size() && i < 8; ++i) {
                std::printf("%4zu  %-11s  %-8s  %9.1f  %6.2f\n", i + 1,
                            ranked[i].map.text().c_str(),
                            ranked[i].map.isRotation() ? "yes" : "mirror", ranked[i].offsetMs,
                            ranked[i].rmsPx);
            }
            // The zero-rotation prediction, for scale.
            double still = 0;
            int n = 0;
            for (const FrameMotion& f : motion) {
                if (!f.ok)
                    continue;
                still += f.tx * f.tx + f.ty * f.ty +
                         (f.angle * search.radiusPx) * (f.angle * search.radiusPx);
                ++n;
            }
            std::printf("no-rotation prediction: rms %.2f px\n",
                        n > 0 ? std::sqrt(still / n) : 0.0);
            auto printFit = [&](const AxisMap& m, double offset) {
                const ComponentFit fit = fitComponents(motion, phone.gyro, m, offset, search);
                const char* names[3] = {"tx (yaw)", "ty (pitch)", "rotation (roll)"};
                std::printf("fit for camera axes %s, offset %.1f ms:\n", m.text().c_str(), offset);
                for (int k = 0; k < 3; ++k) {
                    std::printf(
                        "  %-16s correlation %+.3f  gain %+.3f  rms predicted %.4g measured %.4g\n",
                        names[k], fit.correlation[k], fit.gain[k], fit.predictedRms[k],
                        fit.measuredRms[k]);
                }
            };
            printFit(ranked.front().map, ranked.front().offsetMs);
            printFit(map, offsetMs);
            if (curve) {
                std::printf("offset_ms  rms_px  (camera axes %s)\n", map.text().c_str());
                for (const AlignmentScore& s : offsetCurve(motion, phone.gyro, map, search)) {
                    std::printf("%9.1f  %6.2f\n", s.offsetMs, s.rmsPx);
                }
            }
        }
        if (!out.empty()) {
            writePhoneRecording(phone, camera, map, offsetMs, out);
            std::printf("wrote %s (camera axes %s, offset %.1f ms)\n", out.c_str(),
                        map.text().c_str(), offsetMs);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qlmr_phone_convert: error: %s\n", e.what());
        return 1;
    }
    return 0;
}
