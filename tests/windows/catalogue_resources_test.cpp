// The message catalogues as Windows resource-only libraries: every text of
// each text catalogue comes back from LoadStringA in the process's ANSI code
// page, no other number has a text, and all of them load side by side.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const char *const kCatalogues[] = {"zvui32.nls", "zvui32.eng.nls", "zvui32.deu.nls",
                                   "zvui32.fra.nls"};

fs::path FromEnvironment(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? fs::path(value) : fs::path();
}

// The numbered lines of a text catalogue; the first line of a number wins.
std::map<UINT, std::string> ReadCatalogue(const fs::path &path) {
    std::map<UINT, std::string> texts;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        const auto tab = line.find('\t');
        if (tab == 0 || tab == std::string::npos) continue;
        texts.emplace(static_cast<UINT>(std::stoul(line.substr(0, tab))), line.substr(tab + 1));
    }
    return texts;
}

// UTF-8 text in the process's ANSI code page, as the A calls return it.
std::string ToAnsi(const std::string &utf8) {
    if (utf8.empty()) return {};
    const int wide = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(),
                                         static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring w(static_cast<std::size_t>(wide), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), static_cast<int>(utf8.size()),
                        w.data(), wide);
    const int narrow = WideCharToMultiByte(CP_ACP, 0, w.data(), wide, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(narrow), '\0');
    WideCharToMultiByte(CP_ACP, 0, w.data(), wide, out.data(), narrow, nullptr, nullptr);
    return out;
}

class CatalogueResources : public ::testing::Test {
  protected:
    void SetUp() override {
        source_ = FromEnvironment("ZVXFER_SOURCE_DIR") / "catalogues";
        // The test program's own folder: bin/, beside the catalogues.
        char self[MAX_PATH] = "";
        GetModuleFileNameA(nullptr, self, sizeof self);
        bin_ = fs::path(self).parent_path();
        ASSERT_TRUE(fs::is_directory(source_)) << "run through ctest";
    }
    fs::path source_, bin_;
};

TEST_F(CatalogueResources, EveryTextComesBackInTheAnsiCodePage) {
    for (const char *name : kCatalogues) {
        SCOPED_TRACE(name);
        const auto texts = ReadCatalogue(source_ / name);
        ASSERT_GT(texts.size(), 40u);
        HMODULE module = LoadLibraryA((bin_ / name).string().c_str());
        ASSERT_NE(module, nullptr) << "error " << GetLastError();
        for (const auto &[number, text] : texts) {
            char buffer[512] = "";
            const int length = LoadStringA(module, number, buffer, sizeof buffer);
            EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), ToAnsi(text))
                << number;
        }
        // Numbers around and between the catalogue's have no text.
        int missing = 0;
        for (UINT number = texts.begin()->first - 20; number < texts.rbegin()->first + 20;
             ++number) {
            char buffer[16] = "x";
            if (texts.count(number) != 0) continue;
            ++missing;
            EXPECT_EQ(LoadStringA(module, number, buffer, sizeof buffer), 0) << number;
        }
        EXPECT_GT(missing, 40);
        FreeLibrary(module);
    }
}

TEST_F(CatalogueResources, WesternLettersAreSingleBytesOfWindows1252) {
    // The script runs the suite with the Western code page; under another the
    // comparison above still holds, but these bytes are those of 1252.
    if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page " << GetACP();
    HMODULE deu = LoadLibraryA((bin_ / "zvui32.deu.nls").string().c_str());
    HMODULE fra = LoadLibraryA((bin_ / "zvui32.fra.nls").string().c_str());
    ASSERT_NE(deu, nullptr);
    ASSERT_NE(fra, nullptr);
    struct {
        HMODULE module;
        UINT number;
        const char *text;
    } cases[] = {
        {deu, 28262,
         "Pr\xFC"
         "fsummenfehler in einem empfangenen Paket"},
        {deu, 28263,
         "\xDC"
         "bertragung abgebrochen"},
        {fra, 28308,
         "Fichier trop volumineux pour la r\xE9"
         "ception : %s"},
    };
    for (const auto &c : cases) {
        char buffer[256] = "";
        LoadStringA(c.module, c.number, buffer, sizeof buffer);
        EXPECT_STREQ(buffer, c.text) << c.number;
    }
    // A trailing blank is part of the text.
    char buffer[256] = "";
    EXPECT_EQ(LoadStringA(deu, 28267, buffer, sizeof buffer), 32);
    EXPECT_STREQ(buffer, "Der Dienst meldet einen Fehler: ");
    FreeLibrary(fra);
    FreeLibrary(deu);
}

TEST_F(CatalogueResources, AllLoadTogetherAndHoldNoCode) {
    std::vector<HMODULE> modules;
    for (const char *name : kCatalogues) {
        HMODULE module = LoadLibraryA((bin_ / name).string().c_str());
        EXPECT_NE(module, nullptr) << name << " error " << GetLastError();
        if (module == nullptr) continue;
        for (HMODULE other : modules) EXPECT_NE(module, other) << name;
        modules.push_back(module);
        // Resources only: no entry point, no imports, one resource section
        // and the relocation table that lets it load anywhere.
        const auto *base = reinterpret_cast<const unsigned char *>(module);
        const auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
        const auto *nt = reinterpret_cast<const IMAGE_NT_HEADERS *>(base + dos->e_lfanew);
        EXPECT_EQ(nt->OptionalHeader.AddressOfEntryPoint, 0u) << name;
        EXPECT_EQ(nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].Size, 0u) << name;
        EXPECT_EQ(nt->FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED, 0) << name;
        const IMAGE_SECTION_HEADER *section = IMAGE_FIRST_SECTION(nt);
        for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i) {
            const std::string section_name(
                reinterpret_cast<const char *>(section[i].Name),
                strnlen(reinterpret_cast<const char *>(section[i].Name), IMAGE_SIZEOF_SHORT_NAME));
            EXPECT_TRUE(section_name == ".rsrc" || section_name == ".reloc")
                << name << " " << section_name;
            EXPECT_EQ(section[i].Characteristics & IMAGE_SCN_MEM_EXECUTE, 0u) << section_name;
        }
    }
    EXPECT_EQ(modules.size(), std::size(kCatalogues));
    for (HMODULE module : modules) FreeLibrary(module);
}

} // namespace
