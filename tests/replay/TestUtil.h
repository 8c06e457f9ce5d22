// Helpers shared by the replay tool's tests: scratch folders and small pictures.
#pragma once

#include "media/Image.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

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

}  // namespace replay_test
