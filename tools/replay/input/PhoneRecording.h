// The real phone recording's own layout (frames/frame-N.jpg, framestamp.txt with one
// start-of-frame time in seconds per line, gyro.txt with "x,y,z,t" lines) and its conversion
// into a replay recording folder.
#pragma once

#include "input/Recording.h"
#include "measure/GyroAlignment.h"

#include <string>
#include <vector>

namespace qlmr::replay {

struct PhoneRecording {
    std::string dir;
    std::vector<int> frameNumbers;  // N of frame-N.jpg, ascending
    std::vector<std::string> framePaths;
    std::vector<int64_t> frameTimestampsNs;  // from framestamp.txt line N
    std::vector<GyroSample> gyro;            // raw axes, as in gyro.txt
    int width = 0;
    int height = 0;
};

// Camera facts published with the recording (for 800x600 frames).
struct PhoneCamera {
    double fx = 573.8534;
    double fy = 575.0448;
    double cx = 406.0101;
    double cy = 309.0112;
    double readoutMs = 33.312;
    int exposureUs = 5250;
};

// The --camera-axes text as an axis map. Throws ReplayError with a sentence to show the user
// when it is not a signed permutation or when it is a mirror image (determinant -1), which no
// camera's gyroscope can be.
AxisMap parseCameraAxes(const std::string& text);

// Reads and checks the folder (file:line errors).
PhoneRecording loadPhoneRecording(const std::string& dir);

// Writes a replay recording: frames.csv pointing at the original JPEG files (absolute paths),
// gyro.csv with the samples as the phone recorded them (raw axes, raw timestamps) from 1 s
// before the first frame to 1 s after the last, and config.txt from the camera facts, the
// gyro axes `map` (camera-axis rates as signed raw axes) and the time offset. `offsetMs` is
// what the alignment search measures: gyro time minus frame time of the same instant, frame
// time of row r being timestamp + r/height * readout; the configuration's offset (gyro time of
// the first row's exposure start minus the timestamp) is that minus half the exposure. A map
// that is not a rotation is refused (ReplayError) before anything is written.
void writePhoneRecording(const PhoneRecording& phone, const PhoneCamera& camera, const AxisMap& map,
                         double offsetMs, const std::string& outDir);

}  // namespace qlmr::replay
