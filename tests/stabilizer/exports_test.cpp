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

template <typename T>
const T* at(const std::vector<char>& b, size_t offset) {
    return offset + sizeof(T) <= b.size() ? reinterpret_cast<const T*>(b.data() + offset) : nullptr;
}

bool readElf(const char* path, Elf& e) {
    std::ifstream in(path, std::ios::binary);
    e.bytes.assign(std::istreambuf_iterator<char>(in), {});
    const ElfW(Ehdr)* h = at<ElfW(Ehdr)>(e.bytes, 0);
    if (h == nullptr || std::memcmp(h->e_ident, ELFMAG, SELFMAG) != 0 ||
        h->e_ident[EI_CLASS] != (__ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32)) {
        return false;
    }
    std::vector<const ElfW(Shdr)*> sections;
    for (size_t i = 0; i < h->e_shnum; ++i) {
        const ElfW(Shdr)* s = at<ElfW(Shdr)>(e.bytes, h->e_shoff + i * h->e_shentsize);
        if (s == nullptr) {
            return false;
        }
        sections.push_back(s);
    }
    auto str = [&](const ElfW(Shdr) * table, size_t index) {
        const size_t o = table->sh_offset + index;
        return o < e.bytes.size() ? std::string(e.bytes.data() + o) : std::string();
    };
    for (const ElfW(Shdr) * s : sections) {
        if (s->sh_link >= sections.size()) {
            continue;
        }
        const ElfW(Shdr)* strings = sections[s->sh_link];
        if (s->sh_type == SHT_DYNSYM) {
            for (size_t o = s->sh_offset; o + sizeof(ElfW(Sym)) <= s->sh_offset + s->sh_size;
                 o += sizeof(ElfW(Sym))) {
                const ElfW(Sym)* sym = at<ElfW(Sym)>(e.bytes, o);
                const int bind = ELF32_ST_BIND(sym->st_info);
                if (sym->st_shndx != SHN_UNDEF && (bind == STB_GLOBAL || bind == STB_WEAK) &&
                    ELF32_ST_VISIBILITY(sym->st_other) == STV_DEFAULT) {
                    e.definedGlobals.insert(str(strings, sym->st_name));
                }
            }
        } else if (s->sh_type == SHT_DYNAMIC) {
            for (size_t o = s->sh_offset; o + sizeof(ElfW(Dyn)) <= s->sh_offset + s->sh_size;
                 o += sizeof(ElfW(Dyn))) {
                const ElfW(Dyn)* d = at<ElfW(Dyn)>(e.bytes, o);
                if (d->d_tag == DT_NEEDED) {
                    e.needed.push_back(str(strings, d->d_un.d_val));
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
