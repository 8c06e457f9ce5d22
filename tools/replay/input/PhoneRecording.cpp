#include "input/PhoneRecording.h"

#include "common/ReplayError.h"
#include "input/Csv.h"
#include "media/ImageIo.h"
#include "synthetic/Synthetic.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

namespace qlmr::replay {

AxisMap parseCameraAxes(const std::string& text) {
    const AxisMap map = AxisMap::parse(text);
    if (!map.isRotation()) {
        AxisMap flipped = map;
        flipped.sign[2] = -flipped.sign[2];
        throw ReplayError("--camera-axes " + text +
                          " is a mirror image, not a rotation: flip the sign of one axis (for "
                          "example " +
                          flipped.text() + ")");
    }
    return map;
}

PhoneRecording loadPhoneRecording(const std::string& dir) {
    PhoneRecording p;
    p.dir = dir;
    const std::string framesDir = dir + "/frames";
    DIR* d = opendir(framesDir.c_str());
    if (d == nullptr)
        throw ReplayError(framesDir, 0, std::string("cannot open folder: ") + std::strerror(errno));
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        int n = 0;
        char tail[8] = {0};
        if (std::sscanf(name.c_str(), "frame-%d.%4s", &n, tail) == 2 &&
            std::strcmp(tail, "jpg") == 0 && name == "frame-" + std::to_string(n) + ".jpg") {
            p.frameNumbers.push_back(n);
        }
    }
    closedir(d);
    if (p.frameNumbers.empty())
        throw ReplayError(framesDir, 0, "no frame-N.jpg files");
    std::sort(p.frameNumbers.begin(), p.frameNumbers.end());
    for (size_t i = 1; i < p.frameNumbers.size(); ++i) {
        if (p.frameNumbers[i] != p.frameNumbers[i - 1] + 1) {
            throw ReplayError(
                framesDir, 0,
                "frames are not consecutive: frame-" + std::to_string(p.frameNumbers[i - 1]) +
                    ".jpg is followed by frame-" + std::to_string(p.frameNumbers[i]) + ".jpg");
        }
    }

    // framestamp.txt: line N holds the time of frame N.
    {
        const std::string path = dir + "/framestamp.txt";
        CsvReader csv(path);
        std::vector<std::string> f;
        std::vector<int64_t> stamps;  // by line number - 1
        while (csv.next(f)) {
            if (f.size() != 1)
                csv.fail("expected one time in seconds per line");
            const double s = csv.toDouble(f[0], "frame time");
            if (s < 0 || s > 9.2e9)
                csv.fail("frame time out of range");
            while (static_cast<int>(stamps.size()) < csv.line() - 1)
                stamps.push_back(INT64_MIN);
            stamps.push_back(std::llround(s * 1e9));
        }
        for (int n : p.frameNumbers) {
            if (n < 1 || n > static_cast<int>(stamps.size()) ||
                stamps[static_cast<size_t>(n - 1)] == INT64_MIN) {
                throw ReplayError(path, 0,
                                  "has no line " + std::to_string(n) + " for frame-" +
                                      std::to_string(n) + ".jpg");
            }
            const int64_t t = stamps[static_cast<size_t>(n - 1)];
            if (!p.frameTimestampsNs.empty() && t <= p.frameTimestampsNs.back()) {
                throw ReplayError(path, n, "frame time is not after the previous frame's");
            }
            p.frameTimestampsNs.push_back(t);
            p.framePaths.push_back(framesDir + "/frame-" + std::to_string(n) + ".jpg");
        }
    }
    // gyro.txt: x,y,z,t.
    {
        const std::string path = dir + "/gyro.txt";
        CsvReader csv(path);
        std::vector<std::string> f;
        while (csv.next(f)) {
            if (f.size() != 4)
                csv.fail("expected 4 fields x,y,z,t, got " + std::to_string(f.size()));
            GyroSample s;
            s.x = readGyroRate(csv, f[0], "x");
            s.y = readGyroRate(csv, f[1], "y");
            s.z = readGyroRate(csv, f[2], "z");
            s.timestampNs = std::llround(csv.toDouble(f[3], "t") * 1e9);
            if (!p.gyro.empty() && s.timestampNs < p.gyro.back().timestampNs)
                csv.fail("time goes backwards");
            p.gyro.push_back(s);
        }
        if (p.gyro.empty())
            throw ReplayError(path, 0, "no gyro samples");
    }
    // Every frame's header is read now, so that a damaged or odd-sized picture stops the
    // conversion instead of the replay of its output.
    for (size_t i = 0; i < p.framePaths.size(); ++i) {
        const ImageSize size = readImageSize(p.framePaths[i]);
        if (i == 0) {
            if (size.width % 2 != 0 || size.height % 2 != 0) {
                throw ReplayError(p.framePaths[i], 0,
                                  "is " + std::to_string(size.width) + "x" +
                                      std::to_string(size.height) +
                                      "; frames need an even width and height");
            }
            p.width = size.width;
            p.height = size.height;
        } else if (size.width != p.width || size.height != p.height) {
            throw ReplayError(p.framePaths[i], 0,
                              "is " + std::to_string(size.width) + "x" +
                                  std::to_string(size.height) + ", the first frame is " +
                                  std::to_string(p.width) + "x" + std::to_string(p.height));
        }
    }
    return p;
}

void writePhoneRecording(const PhoneRecording& phone, const PhoneCamera& camera, const AxisMap& map,
                         double offsetMs, const std::string& outDir) {
    if (!map.isRotation()) {
        throw ReplayError("camera axes " + map.text() +
                          " are a mirror image, not a rotation: no recording is written");
    }
    if (mkdir(outDir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw ReplayError(outDir, 0, std::string("cannot create folder: ") + std::strerror(errno));
    }
    char* real = realpath(phone.dir.c_str(), nullptr);
    const std::string absDir = real != nullptr ? real : phone.dir;
    std::free(real);
    std::string frames = "timestamp_ns,file,exposure_us\n";
    for (size_t i = 0; i < phone.framePaths.size(); ++i) {
        frames += std::to_string(phone.frameTimestampsNs[i]) + "," + absDir + "/frames/frame-" +
                  std::to_string(phone.frameNumbers[i]) + ".jpg," +
                  std::to_string(camera.exposureUs) + "\n";
    }
    writeFile(outDir + "/frames.csv", frames.data(), frames.size());

    const int64_t from = phone.frameTimestampsNs.front() - 1000000000LL;
    const int64_t to = phone.frameTimestampsNs.back() + 1000000000LL;
    std::string gyro = "timestamp_ns,x,y,z\n";
    char line[128];
    int kept = 0;
    for (const GyroSample& s : phone.gyro) {
        if (s.timestampNs < from || s.timestampNs > to)
            continue;
        std::snprintf(line, sizeof line, "%" PRId64 ",%.9g,%.9g,%.9g\n", s.timestampNs, s.x, s.y,
                      s.z);
        gyro += line;
        ++kept;
    }
    if (kept == 0)
        throw ReplayError(phone.dir + "/gyro.txt", 0, "no gyro samples around the frames");
    writeFile(outDir + "/gyro.csv", gyro.data(), gyro.size());

    CameraFacts facts;
    facts.width = phone.width;
    facts.height = phone.height;
    facts.focalPx = camera.fx;
    facts.focalYPx = camera.fy;
    facts.cx = camera.cx;
    facts.cy = camera.cy;
    facts.readoutMs = camera.readoutMs;
    facts.gyroAxes = map.text();
    facts.gyroOffsetMs = offsetMs - camera.exposureUs * 0.5e-3;
    char desc[256];
    std::snprintf(
        desc, sizeof desc,
        "Phone hand-held recording from %s; gyro axes and offset measured against the image "
        "motion (%.2f ms at the textured rows).",
        absDir.c_str(), offsetMs);
    facts.description = desc;
    const std::string config = configTextFor(facts);
    writeFile(outDir + "/config.txt", config.data(), config.size());
}

}  // namespace qlmr::replay
