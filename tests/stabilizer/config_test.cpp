// Configuration text of the stabilization library: keys, defaults, refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <vector>
#include <fstream>
#include <sstream>
#include <string>

#include "Config.h"

namespace vstab {
namespace {

bool parse(const std::string& text, StabConfig& out, std::string* error = nullptr) {
    char buf[256];
    const bool ok = parseConfig(text.data(), text.size(), out, buf, sizeof buf);
    if (error != nullptr) {
        *error = buf;
    }
    return ok;
}

TEST(StabConfig, ReadsEveryKeyAndIgnoresEverythingElse) {
    const std::string text =
        "# comment vstab.gridColumns=5\r\n"
        "native.cameraHeight=1080\r\n"
        "  vstab.gridColumns = 17 \r\n"
        "vstab.gridRows=9\n"
        "vstab.windowNs=1000000000\n"
        "vstab.latencyNs=700000000\n"
        "vstab.debugFrameIndex=1\n"
        "vstab.clockIdGyro=1\n"
        "vstab.clockIdFrame=0\n"
        "vstab.fovHorizontalDeg=70.5\n"
        "vstab.fovVerticalDeg=+45\n"
        "vstab.principalPointX=0.45\n"
        "vstab.principalPointY=0.55\n"
        "vstab.readoutNs=33000000\n"
        "vstab.gyroTimeOffsetNs=-5000000\n"
        "vstab.gyroAxes= y , -x ,z\n"
        "vstab.overscan=1.5\n"
        "vstab.gyroRateMaxHz=500\n"
        "vstab.gyroGapMaxNs=50000000\n"
        "some.other.key=whatever\n"
        "vstab.unknownKey=not a number";
    StabConfig c;
    std::string error;
    ASSERT_TRUE(parse(text, c, &error)) << error;
    EXPECT_EQ(c.gridColumns, 17u);
    EXPECT_EQ(c.gridRows, 9u);
    EXPECT_EQ(c.windowNs, 1000000000);
    EXPECT_EQ(c.latencyNs, 700000000);
    EXPECT_EQ(c.debugFrameIndex, 1);
    EXPECT_EQ(c.clockIdGyro, 1);
    EXPECT_EQ(c.clockIdFrame, 0);
    EXPECT_DOUBLE_EQ(c.fovHorizontalDeg, 70.5);
    EXPECT_DOUBLE_EQ(c.fovVerticalDeg, 45.0);
    EXPECT_DOUBLE_EQ(c.principalPointX, 0.45);
    EXPECT_DOUBLE_EQ(c.principalPointY, 0.55);
    EXPECT_EQ(c.readoutNs, 33000000);
    EXPECT_EQ(c.gyroTimeOffsetNs, -5000000);
    EXPECT_EQ(std::vector<int>(c.gyroAxes.axis, c.gyroAxes.axis + 3), (std::vector<int>{1, 0, 2}));
    EXPECT_EQ(std::vector<int>(c.gyroAxes.sign, c.gyroAxes.sign + 3), (std::vector<int>{1, -1, 1}));
    EXPECT_DOUBLE_EQ(c.overscan, 1.5);
    EXPECT_DOUBLE_EQ(c.gyroRateMaxHz, 500.0);
    EXPECT_EQ(c.gyroGapMaxNs, 50000000);
    // Empty text gives the defaults; text after a NUL is not read.
    ASSERT_TRUE(parse("", c));
    EXPECT_EQ(c.gridColumns, StabConfig{}.gridColumns);
    const std::string withNul = std::string("vstab.gridRows=7\n") + '\0' + "vstab.gridColumns=zz\n";
    ASSERT_TRUE(parse(withNul, c));
    EXPECT_EQ(c.gridRows, 7u);
    EXPECT_EQ(c.gridColumns, StabConfig{}.gridColumns);
}

TEST(StabConfig, RefusesBadValuesWithASentenceNamingTheKey) {
    const struct {
        const char* text;
        const char* mention;
    } cases[] = {
        {"vstab.gridColumns=abc", "vstab.gridColumns"},
        {"vstab.gridColumns=1", "vstab.gridColumns"},
        {"vstab.gridRows=12.5", "vstab.gridRows"},
        {"vstab.gridRows=", "vstab.gridRows"},
        {"vstab.latencyNs=99999999999999999999999", "vstab.latencyNs"},
        {"vstab.fovHorizontalDeg=nan", "vstab.fovHorizontalDeg"},
        {"vstab.fovVerticalDeg=inf", "vstab.fovVerticalDeg"},
        {"vstab.overscan=0.9", "vstab.overscan"},
        {"vstab.cropZoomMax=0.5", "vstab.cropZoomMax"},
        {"vstab.clockIdGyro=2", "vstab.clockIdGyro"},
        {"vstab.clockIdFrame=-1", "vstab.clockIdFrame"},
        {"vstab.gyroAxes=x,y", "vstab.gyroAxes"},
        {"vstab.gyroAxes=x,x,z", "twice"},
        {"vstab.gyroAxes=y,x,z", "mirror"},
        {"vstab.readoutNs=5\nvstab.readoutNs=6", "given twice"},
        {"vstab.gridColumns 12", "key=value"},
        {"vstab.gridColumns=300\nvstab.gridRows=300", "65536"},
        {"vstab.windowNs=2000000000\nvstab.latencyNs=600000000", "look-ahead"},
    };
    for (const auto& c : cases) {
        StabConfig cfg;
        const StabConfig before = cfg;
        std::string error;
        EXPECT_FALSE(parse(c.text, cfg, &error)) << c.text;
        EXPECT_NE(error.find(c.mention), std::string::npos) << c.text << " -> " << error;
        EXPECT_EQ(error.back(), '.') << error;
        EXPECT_EQ(cfg.gridColumns, before.gridColumns)
            << "a refused text must not change the output";
    }
}

TEST(StabConfig, WarnsAboutEveryKeyNobodyReadsAndEveryClampedValue) {
    const std::string text =
        "native.cameraHeight=1080\n"  // the engine's: no warning
        "gyro.axes=y,x,-z\n"          // read by nobody
        "vstab.gyroAxis=-y,-x,-z\n"   // misspelt
        "vstab.readoutNs=30000000\n"
        "vstab.cropZoomMin=1.5\n";  // beyond the overscan: clamped
    StabConfig c;
    char error[256];
    ConfigWarnings w;
    ASSERT_TRUE(parseConfig(text.data(), text.size(), c, error, sizeof error, &w)) << error;
    EXPECT_EQ(w.count, 3);
    const std::string all = w.text;
    for (const char* line :
         {"Line 2: unknown key gyro.axes is ignored; did you mean vstab.gyroAxes?",
          "Line 3: unknown key vstab.gyroAxis is ignored; did you mean vstab.gyroAxes?",
          "vstab.cropZoomMin=1.5 is larger than the largest zoom 1.25; using 1.25."}) {
        EXPECT_NE(all.find(line), std::string::npos) << all;
    }
    EXPECT_EQ(all.find("native"), std::string::npos) << all;
    EXPECT_DOUBLE_EQ(c.cropZoomMin, 1.25);
    EXPECT_EQ(c.readoutNs, 30000000);
    // Warnings beyond their capacity are counted, not written.
    std::string many;
    for (int i = 0; i < 200; ++i) {
        many += "unknown.key" + std::to_string(i) + "=1\n";
    }
    ConfigWarnings full;
    ASSERT_TRUE(parseConfig(many.data(), many.size(), c, error, sizeof error, &full));
    EXPECT_EQ(full.count, 200);
    EXPECT_LT(full.length, ConfigWarnings::kCapacity);
    EXPECT_EQ(std::strlen(full.text), full.length);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The docs' `cfg` blocks and the shipped example parse without a warning; every key named exists.
TEST(StabConfigDocs, ExamplesParseWithoutWarningsAndEveryLibraryKeyTheDocsNameExists) {
    size_t n = 0;
    const ConfigKey* keys = configKeys(&n);
    const char* engineKeys[] = {"native.cameraUvOffset", "native.cameraHeight",
                                "native.bufferFrameCount"};
    ASSERT_GE(n, 15u);
    for (size_t i = 0; i < n; ++i) {  // no key name inside another or inside one of the engine's
        for (const char* e : engineKeys) {
            EXPECT_EQ(std::strstr(keys[i].name, e), nullptr) << keys[i].name;
            EXPECT_EQ(std::strstr(e, keys[i].name), nullptr) << keys[i].name;
        }
        for (size_t j = 0; j < n; ++j) {
            EXPECT_TRUE(i == j || std::strstr(keys[j].name, keys[i].name) == nullptr)
                << keys[i].name << " inside " << keys[j].name;
        }
    }
    std::vector<std::string> files = {std::string(QLMR_SOURCE_DIR) + "/README.md",
                                      STAB_EXAMPLE_CONFIG};
    for (const auto& e :
         std::filesystem::directory_iterator(std::string(QLMR_SOURCE_DIR) + "/docs")) {
        if (e.path().extension() == ".md") {
            files.push_back(e.path().string());
        }
    }
    std::vector<std::pair<std::string, std::string>> blocks = {
        {STAB_EXAMPLE_CONFIG, readFile(STAB_EXAMPLE_CONFIG)}};
    const std::regex key(R"((^|[^A-Za-z0-9_])(vstab\.[A-Za-z][A-Za-z0-9]*))");
    int named = 0;
    for (const std::string& path : files) {
        const std::string text = readFile(path);
        for (size_t at = text.find("```cfg\n"); at != std::string::npos;
             at = text.find("```cfg\n", at + 1)) {
            const size_t end = text.find("```", at + 7);
            ASSERT_NE(end, std::string::npos) << path;
            blocks.emplace_back(path, text.substr(at + 7, end - at - 7));
        }
        for (std::sregex_iterator it(text.begin(), text.end(), key), end; it != end; ++it) {
            const std::string name = (*it)[2];
            bool known = false;
            for (size_t k = 0; k < n; ++k) {
                known = known || name == keys[k].name;
            }
            EXPECT_TRUE(known) << path << " names " << name;
            ++named;
        }
    }
    EXPECT_GT(named, 20);
    ASSERT_GE(blocks.size(), 2u) << "the docs show no cfg example";
    for (const auto& [path, block] : blocks) {
        StabConfig c;
        char error[256];
        ConfigWarnings w;
        EXPECT_TRUE(parseConfig(block.data(), block.size(), c, error, sizeof error, &w))
            << path << ": " << error;
        EXPECT_EQ(w.count, 0) << path << ": " << w.text;
    }
}

}  // namespace
}  // namespace vstab
