// The JVM resolves the Java entry points by name: libqlmr.so exports them and nothing else.
#include <elf.h>
#include <link.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

struct DynamicSymbol {
    std::string name;
    unsigned char binding;
    unsigned char type;
};

// The symbols the file's .dynsym defines (`nm -D --defined-only`), in the build's ELF class.
std::vector<DynamicSymbol> definedDynamicSymbols(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    EXPECT_GT(bytes.size(), sizeof(ElfW(Ehdr))) << path;
    if (bytes.size() <= sizeof(ElfW(Ehdr)))
        return {};
    ElfW(Ehdr) header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    EXPECT_EQ(std::memcmp(header.e_ident, ELFMAG, SELFMAG), 0);
    EXPECT_EQ(header.e_ident[EI_CLASS], __ELF_NATIVE_CLASS == 64 ? ELFCLASS64 : ELFCLASS32);

    auto section = [&](size_t index) {
        ElfW(Shdr) s;
        std::memcpy(&s, bytes.data() + header.e_shoff + index * header.e_shentsize, sizeof(s));
        return s;
    };
    std::vector<DynamicSymbol> symbols;
    for (size_t i = 0; i < header.e_shnum; ++i) {
        ElfW(Shdr) dynsym = section(i);
        if (dynsym.sh_type != SHT_DYNSYM)
            continue;
        ElfW(Shdr) strings = section(dynsym.sh_link);
        for (size_t k = 1; k < dynsym.sh_size / sizeof(ElfW(Sym)); ++k) {
            ElfW(Sym) symbol;
            std::memcpy(&symbol, bytes.data() + dynsym.sh_offset + k * sizeof(ElfW(Sym)),
                        sizeof(symbol));
            // Section symbols (nameless; the ARM linker keeps one) are not listed by nm either.
            if (symbol.st_shndx == SHN_UNDEF || ELF64_ST_TYPE(symbol.st_info) == STT_SECTION)
                continue;
            symbols.push_back({bytes.data() + strings.sh_offset + symbol.st_name,
                               static_cast<unsigned char>(ELF64_ST_BIND(symbol.st_info)),
                               static_cast<unsigned char>(ELF64_ST_TYPE(symbol.st_info))});
        }
    }
    return symbols;
}

TEST(LibraryExports, ExactlyTheJavaEntryPoints) {
    const std::set<std::string> expected = {
        "Java_com_zandry_mediatek_Native_onResume",
        "Java_com_zandry_mediatek_Native_onPause",
        "Java_com_zandry_mediatek_Native_setCamera",
        "Java_com_zandry_mediatek_Native_remCamera",
        "Java_com_zandry_mediatek_Native_getCameraConfig",
        "Java_com_zandry_mediatek_Native_getCameraTextureId",
        "Java_com_zandry_mediatek_Native_render",
        "Java_com_zandry_mediatek_Native_glLock",
        "Java_com_zandry_mediatek_Native_glUnlock",
        "Java_com_zandry_mediatek_Native_surfaceAdd",
        "Java_com_zandry_mediatek_Native_surfaceRemove",
        "Java_com_zandry_mediatek_Native_isHyperlapse",
    };
    std::set<std::string> exported;
    for (const DynamicSymbol& symbol : definedDynamicSymbols(QLMR_LIBRARY_FILE)) {
        exported.insert(symbol.name);
        if (expected.count(symbol.name) != 0) {
            EXPECT_EQ(symbol.binding, STB_GLOBAL) << symbol.name;
            EXPECT_EQ(symbol.type, STT_FUNC) << symbol.name;
        }
    }
    EXPECT_EQ(exported, expected);
}

}  // namespace
