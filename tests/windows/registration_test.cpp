// Registration through the system registry: the component key names the
// DLL with a Windows path (backslashes), the catalogue beside it is loaded
// in the language the locale key chooses, and the notices come back in the
// ANSI code page.  Each test gets registry roots of its own
// (RegOverridePredefKey onto a scratch key), so the machine's own keys are
// neither read nor changed.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>

#include "locale/locale.h"
#include "locale/messages.h"
#include "temp_tree.h"
#include "zvxfer.h"

// After the library's headers: <windows.h> makes macros of names they use
// (LoadString, FreeModule).
#include <windows.h>

namespace zvxfer {
namespace {

// A path as Windows writes it: full, with backslashes.
std::string WindowsPath(const std::string &path) {
    char full[MAX_PATH] = "";
    if (GetFullPathNameA(path.c_str(), sizeof full, full, nullptr) == 0) return {};
    std::string windows = full;
    for (char &c : windows)
        if (c == '/') c = '\\';
    return windows;
}

// The build's bin folder: the test program's own, beside the DLL and the
// catalogues.
std::string BinFolder() {
    char path[MAX_PATH] = "";
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    if (length == 0 || length >= sizeof path) return {};
    std::string folder = WindowsPath(path);
    const auto cut = folder.find_last_of('\\');
    return cut == std::string::npos ? std::string() : folder.substr(0, cut);
}

class Registration : public ::testing::Test {
  protected:
    void SetUp() override {
        bin_ = BinFolder();
        ASSERT_FALSE(bin_.empty()) << "error " << GetLastError();
        scratch_ = "Software\\zvxfer-tests\\" + std::to_string(GetCurrentProcessId());
        const struct {
            HKEY root;
            const char *name;
        } roots[] = {{HKEY_CLASSES_ROOT, "classes"},
                     {HKEY_LOCAL_MACHINE, "machine"},
                     {HKEY_CURRENT_USER, "user"}}; // the user's last: the others live in it
        for (const auto &r : roots) {
            HKEY key = nullptr;
            ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, (scratch_ + "\\" + r.name).c_str(), 0,
                                      nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
                      ERROR_SUCCESS);
            ASSERT_EQ(RegOverridePredefKey(r.root, key), ERROR_SUCCESS);
            RegCloseKey(key);
        }
        overridden_ = true;
        Restart();
    }
    void TearDown() override {
        Restart();
        if (!overridden_) return;
        for (HKEY root : {HKEY_CLASSES_ROOT, HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
            RegOverridePredefKey(root, nullptr);
        RegDeleteTreeA(HKEY_CURRENT_USER, scratch_.c_str());
    }
    static void Restart() {
        UnregisterXferDLL();
        ResetMessageCache();
    }
    static void Set(HKEY root, const std::string &key, const char *name, const std::string &data) {
        HKEY k = nullptr;
        ASSERT_EQ(
            RegCreateKeyExA(root, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr),
            ERROR_SUCCESS);
        ASSERT_EQ(RegSetValueExA(k, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(data.c_str()),
                                 static_cast<DWORD>(data.size() + 1)),
                  ERROR_SUCCESS);
        RegCloseKey(k);
    }
    // The product's registration: the component names `file` in `folder`;
    // the languages eng, deu and fra exist, English by default.
    void Register(const std::string &folder, const char *file = "zvxfer.dll") {
        Set(HKEY_CLASSES_ROOT, kComponentKey, nullptr, folder + "\\" + file);
        Set(HKEY_LOCAL_MACHINE, kLocaleKey, "Available UI Languages", "eng deu fra");
        Set(HKEY_LOCAL_MACHINE, kLocaleKey, "Global Default UI Language", "eng");
    }
    // The user's choice of language (search method 1).
    void Choose(const char *code) {
        Set(HKEY_CURRENT_USER, kLocaleKey, "Language Search Method", "1");
        Set(HKEY_CURRENT_USER, kLocaleKey, "Default UI Language", code);
    }
    std::string scratch_, bin_;
    bool overridden_ = false;
};

TEST_F(Registration, TheChosenLanguageIsFoundBesideTheRegisteredDll) {
    if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page " << GetACP();
    Register(bin_);
    EXPECT_EQ(bin_.find('/'), std::string::npos) << bin_;
    const struct {
        const char *code;
        const char *checksum, *cancelled;
    } cases[] = {
        {"deu",
         "Pr\xFC"
         "fsummenfehler in einem empfangenen Paket",
         "\xDC"
         "bertragung abgebrochen"},
        {"fra",
         "Erreur de somme de contr\xF4"
         "le dans un paquet re\xE7"
         "u",
         "Transfert annul\xE9"},
        {"eng", "Checksum error in a received packet", "Transfer cancelled"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        Choose(c.code);
        Restart();
        ASSERT_EQ(RegisterXferDLL(), 0);
        EXPECT_EQ(RegisterXferDLL(), 0) << "a second registration loads nothing";
        EXPECT_STREQ(MessageText(MsgBPlusChecksumError), c.checksum);
        EXPECT_STREQ(MessageText(MsgTransferCancelled), c.cancelled);
    }
}

TEST_F(Registration, TheCataloguesComeFromTheRegisteredFolder) {
    // A folder of its own (a blank in its name) whose "German" catalogue
    // holds the French texts: what is read shows which folder was used.
    // The library's own folder has the real catalogues of every language.
    if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page " << GetACP();
    test::TempTree tree;
    const std::string folder = WindowsPath(tree.Dir("Zv Lib")) + "\\";
    ASSERT_GT(folder.size(), 1u);
    ASSERT_TRUE(
        CopyFileA((bin_ + "\\zvui32.fra.nls").c_str(), (folder + "zvui32.deu.nls").c_str(), TRUE));
    ASSERT_TRUE(
        CopyFileA((bin_ + "\\zvui32.eng.nls").c_str(), (folder + "ZVUI32.nls").c_str(), TRUE));
    Register(folder.substr(0, folder.size() - 1), "ZvXfer.dll");
    const struct {
        const char *code, *cancelled;
    } cases[] = {
        {"deu", "Transfert annul\xE9"}, // the folder's zvui32.deu.nls
        {"fra", "Transfer cancelled"},  // none in the folder: its ZVUI32.nls
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.code);
        Choose(c.code);
        Restart();
        ASSERT_EQ(RegisterXferDLL(), 0);
        EXPECT_STREQ(MessageText(MsgTransferCancelled), c.cancelled);
    }
    Restart(); // lets the folder go
}

TEST_F(Registration, AComponentPathInCapitalsStillFindsTheCatalogues) {
    // The localised name is the lower-cased path; the file system ignores case.
    if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page " << GetACP();
    std::string upper = bin_;
    for (char &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    Register(upper, "ZVXFER.DLL");
    Choose("deu");
    ASSERT_EQ(RegisterXferDLL(), 0);
    EXPECT_EQ(std::string(MessageText(MsgTransferCancelled)).find("bertragung abgebrochen"), 1u);
}

TEST_F(Registration, AFolderWithoutCataloguesOrNoKeyLoadsNothing) {
    Register(bin_ + "\\no such folder");
    Choose("deu");
    EXPECT_EQ(RegisterXferDLL(), 1);
    EXPECT_STREQ(MessageText(MsgTransferCancelled), "Unable to find string 28263. Internal Error!");

    Restart();
    RegDeleteTreeA(HKEY_CLASSES_ROOT, "CLSID");
    EXPECT_EQ(RegisterXferDLL(), 0) << "no component key: nothing to load, no failure";
    EXPECT_STREQ(MessageText(MsgTransferCancelled), "Unable to find string 28263. Internal Error!");
}

} // namespace
} // namespace zvxfer
