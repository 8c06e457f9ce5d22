// Replays the stabilization library's fuzz corpus (fuzz/stabilizer/corpus) through the fuzz
// target, so that every input that once found a fault keeps being checked by ctest.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

TEST(VStabFuzzCorpus, EveryInputRunsCleanly) {
    DIR* dir = opendir(VSTAB_FUZZ_CORPUS);
    ASSERT_NE(dir, nullptr) << VSTAB_FUZZ_CORPUS;
    int files = 0;
    while (const dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        std::ifstream in(std::string(VSTAB_FUZZ_CORPUS) + "/" + name, std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(in), {});
        SCOPED_TRACE(name);
        EXPECT_EQ(
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()),
            0);
        ++files;
    }
    closedir(dir);
    EXPECT_GE(files, 8);
}

}  // namespace
