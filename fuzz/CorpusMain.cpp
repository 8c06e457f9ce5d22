// Replays a fuzz target's corpus: runs LLVMFuzzerTestOneInput once on every file of the folders
// given on the command line (and on plain files given directly). A fault aborts the program
// (the target traps, a sanitizer reports), so ctest fails it; a folder without any input fails
// too, since a missing corpus would otherwise pass silently.
#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

namespace {

int runFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return -1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    std::fprintf(stderr, "%s (%zu bytes)\n", path.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR_OR_FILE...\n", argv[0]);
        return 2;
    }
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        struct stat st {};
        if (stat(arg.c_str(), &st) != 0) {
            std::fprintf(stderr, "%s does not exist\n", arg.c_str());
            return 1;
        }
        if (!S_ISDIR(st.st_mode)) {
            if (runFile(arg) < 0)
                return 1;
            ++inputs;
            continue;
        }
        DIR* dir = opendir(arg.c_str());
        if (dir == nullptr) {
            std::fprintf(stderr, "cannot open %s\n", arg.c_str());
            return 1;
        }
        std::vector<std::string> names;
        errno = 0;
        while (const dirent* e = readdir(dir)) {
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        }
        const int readError = errno;
        closedir(dir);
        if (readError != 0) {
            std::fprintf(stderr, "cannot list %s: %s\n", arg.c_str(), std::strerror(readError));
            return 1;
        }
        for (const std::string& name : names) {
            if (runFile(arg + "/" + name) < 0)
                return 1;
            ++inputs;
        }
    }
    std::fprintf(stderr, "%d inputs ran cleanly\n", inputs);
    return inputs > 0 ? 0 : 1;
}
