// Helpers of the fuzz targets that read folders: one fuzz input holds several files, split at a
// separator line, written into a private scratch folder that each run reuses.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace qlmr_fuzz {

// Separator between the files of one input: a line of four '%' (binary sections such as
// images may hold any other bytes; a chance occurrence only splits the input differently).
constexpr char kSeparator[] = "\n%%%%\n";

// The input split at every separator; missing trailing sections are empty.
inline std::vector<std::string> splitSections(const uint8_t* data, size_t size, size_t count) {
    const std::string all(reinterpret_cast<const char*>(data), size);
    const std::string sep = kSeparator;
    std::vector<std::string> out;
    size_t pos = 0;
    while (out.size() + 1 < count) {
        const size_t at = all.find(sep, pos);
        if (at == std::string::npos)
            break;
        out.push_back(all.substr(pos, at - pos));
        pos = at + sep.size();
    }
    out.push_back(all.substr(pos));
    out.resize(count);
    return out;
}

// A scratch folder for this process (under TMPDIR, else /tmp), emptied by clear().
class ScratchDir {
  public:
    ScratchDir() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                              "/qlmr-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        path_ = pattern;
    }
    ~ScratchDir() {
        clear(path_);
        rmdir(path_.c_str());
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    // Removes every file (and empty sub-folder) under the folder.
    void clear() { clear(path_); }

    // Writes `bytes` to the relative path `name` (its folder must exist).
    void write(const std::string& name, const std::string& bytes) const {
        FILE* f = std::fopen(file(name).c_str(), "wb");
        if (f == nullptr) {
            std::perror(name.c_str());
            std::abort();
        }
        if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size())
            std::abort();
        std::fclose(f);
    }

  private:
    static void clear(const std::string& dir) {
        DIR* d = opendir(dir.c_str());
        if (d == nullptr)
            return;
        std::vector<std::string> names;
        while (const dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..")
                names.push_back(name);
        }
        closedir(d);
        for (const std::string& name : names) {
            const std::string path = dir + "/" + name;
            if (unlink(path.c_str()) != 0) {
                clear(path);
                rmdir(path.c_str());
            }
        }
    }
    std::string path_;
};

}  // namespace qlmr_fuzz
