// libzef_gyro_vstab.so's ELF dynamic symbols and needed libraries (64-bit host, 32-bit ARM).
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

struct Elf {
    std::vector<char> bytes;
    std::set<std::string> definedGlobals;
    std::vector<std::string> needed;
};

// Reads the dynamic symbols and needed libraries of a shared object of this ABI's class.
bool readElf(const char* path, Elf& e) {
    std::ifstream in(path, std::ios::binary);
    e.bytes.assign(std::istreambuf_iterator<char>(in), {});
    const auto* h = reinterpret_cast<const ElfW(Ehdr)*>(e.bytes.data());
    if (e.bytes.size() < sizeof *h || std::memcmp(h->e_ident, ELFMAG, SELFMAG) != 0 ||
        h->e_ident[EI_CLASS] != (__ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32) ||
        h->e_shoff + h->e_shnum * sizeof(ElfW(Shdr)) > e.bytes.size()) {
        return false;
    }
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(e.bytes.data() + h->e_shoff);
    for (size_t i = 0; i < h->e_shnum; ++i) {
        const ElfW(Shdr)& s = sections[i];
        const char* strings = e.bytes.data() + sections[s.sh_link].sh_offset;
        const char* data = e.bytes.data() + s.sh_offset;
        if (s.sh_type == SHT_DYNSYM) {
            for (size_t o = 0; o + sizeof(ElfW(Sym)) <= s.sh_size; o += sizeof(ElfW(Sym))) {
                const auto* sym = reinterpret_cast<const ElfW(Sym)*>(data + o);
                const int bind = ELF32_ST_BIND(sym->st_info);
                if (sym->st_shndx != SHN_UNDEF && (bind == STB_GLOBAL || bind == STB_WEAK) &&
                    ELF32_ST_VISIBILITY(sym->st_other) == STV_DEFAULT) {
                    e.definedGlobals.insert(strings + sym->st_name);
                }
            }
        } else if (s.sh_type == SHT_DYNAMIC) {
            for (size_t o = 0; o + sizeof(ElfW(Dyn)) <= s.sh_size; o += sizeof(ElfW(Dyn))) {
                const auto* d = reinterpret_cast<const ElfW(Dyn)*>(data + o);
                if (d->d_tag == DT_NEEDED) {
                    e.needed.push_back(strings + d->d_un.d_val);
                }
            }
        }
    }
    return true;
}

TEST(VStabLibrary, ExportsExactlyTheFiveFunctionsAndNeedsNeitherGlNorTheEngine) {
    Elf e;
    ASSERT_TRUE(readElf(VSTAB_LIBRARY_PATH, e)) << VSTAB_LIBRARY_PATH;
    const std::set<std::string> expected = {"vStabCreateUseCharCnfgBuff", "vStabConfig",
                                            "vStabAddAngularVelocity", "vStabWarpGrid",
                                            "vStabDestroy"};
    EXPECT_EQ(e.definedGlobals, expected);
    ASSERT_FALSE(e.needed.empty());
    for (const std::string& n : e.needed) {
        for (const char* banned : {"GL", "EGL", "qlmr", "android", "log", "utils"}) {
            EXPECT_EQ(n.find(banned), std::string::npos) << n;
        }
    }
}

}  // namespace
