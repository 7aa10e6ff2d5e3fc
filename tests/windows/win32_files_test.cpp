// The files, folders, registry and memory of the Windows back end: names
// Windows would take for something else are refused beneath a folder,
// replacements reach the old name only when committed, the exclusive lock
// leaves the content readable, times and status come back as set, the
// directory search takes either separator and ignores case, registry
// strings are read with their size rules, and the memory probe tells
// read-only pages.
#include <gtest/gtest.h>

#include "platform/win32/win.h" // <windows.h> without the renaming macros

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/dirsearch.h"
#include "platform/file.h"
#include "platform/heap.h"
#include "platform/probe.h"
#include "platform/registry.h"
#include "temp_tree.h"

namespace {

namespace fs = std::filesystem;
namespace plat = zvxfer::plat;
using zvxfer::test::TempTree;

std::string Content(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::size_t Entries(const std::string &folder) {
    std::size_t n = 0;
    for (auto it = fs::recursive_directory_iterator(folder); it != fs::end(it); ++it) ++n;
    return n;
}

void WriteAll(XferFile file, const std::string &text) {
    ASSERT_EQ(plat::FileWrite(file, text.data(), text.size()), static_cast<long>(text.size()));
}

// Names that are one plain file name on POSIX but something else here: a
// device, a stream, another folder, a name the system shortens.
TEST(Win32Files, NamesWindowsWouldReinterpretAreRefused) {
    const char *const kRefused[] = {
        "con", "CON",  "nul.txt", "Aux.log", "prn", "com1", "LPT9.dat", "conin$", "a:b",
        "C:x", "a\\b", "name.",   "name ",   "...", "..",   "sub/nul",  "sub/..", "a*b",
        "a?b", "a<b",  "a|b",     "a\"b",    "",    "sub/", "/abs",     "sub//x", "x\ty",
    };
    TempTree tree;
    for (const char *name : kRefused) {
        const XferFile file = plat::FileCreateBeneath(tree.Folder().c_str(), name);
        EXPECT_EQ(file, XFER_INVALID_FILE) << name;
        if (file != XFER_INVALID_FILE) plat::FileClose(file);
        EXPECT_EQ(plat::FileAppendBeneath(tree.Folder().c_str(), name), XFER_INVALID_FILE) << name;
    }
    // Nothing was made for any of them, not even a folder on the way.
    EXPECT_EQ(Entries(tree.Folder()), 0u);
}

// Names that merely look like the refused ones stay acceptable.
TEST(Win32Files, LookAlikeNamesAreCreated) {
    const char *const kAccepted[] = {"console", "nul1.txt",         "com10", "lpt", "a.b.c",
                                     ".hidden", "sub/con1/deep.txt"};
    TempTree tree;
    for (const char *name : kAccepted) {
        const XferFile file = plat::FileCreateBeneath(tree.Folder().c_str(), name);
        ASSERT_NE(file, XFER_INVALID_FILE) << name;
        WriteAll(file, name);
        EXPECT_TRUE(plat::FileCommit(file));
        EXPECT_TRUE(plat::FileClose(file));
        EXPECT_EQ(Content(tree.Path(name)), name);
    }
}

TEST(Win32Files, ReplacementTakesTheNameOnlyWhenCommitted) {
    TempTree tree;
    const std::string old = tree.File("dl/a.txt", "old content");
    for (const bool commit : {false, true}) {
        const XferFile file = plat::FileCreateBeneath(tree.Folder().c_str(), "dl/a.txt");
        ASSERT_NE(file, XFER_INVALID_FILE);
        WriteAll(file, "new");
        // Until the end the old file is there, whole, and readable.
        EXPECT_EQ(Content(old), "old content");
        // And nobody else gets it exclusively meanwhile.
        EXPECT_EQ(plat::FileOpen(old.c_str(), plat::FileAccess::Read,
                                 plat::FileDisposition::OpenExisting),
                  XFER_INVALID_FILE);
        if (commit) {
            EXPECT_TRUE(plat::FileCommit(file));
        }
        EXPECT_TRUE(plat::FileClose(file));
        EXPECT_EQ(Content(old), commit ? "new" : "old content");
        // No temporary file is left beside it.
        EXPECT_EQ(Entries(tree.Path("dl")), 1u);
    }
}

TEST(Win32Files, AppendContinuesAtTheEnd) {
    TempTree tree;
    const std::string path = tree.File("part.bin", "abc");
    const XferFile file = plat::FileAppendBeneath(tree.Folder().c_str(), "part.bin");
    ASSERT_NE(file, XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileSeek(file, 0, 1), 3);
    WriteAll(file, "def");
    EXPECT_TRUE(plat::FileClose(file));
    EXPECT_EQ(Content(path), "abcdef");
}

// The exclusive open is a lock on a byte past any end: a second exclusive
// open fails, shared readers still read everything, and a refused
// create-always leaves the content alone.
TEST(Win32Files, ExclusiveOpenLeavesTheContentReadable) {
    TempTree tree;
    const std::string path = tree.File("held.txt", "0123456789");
    const XferFile held = plat::FileOpen(path.c_str(), plat::FileAccess::ReadWrite,
                                         plat::FileDisposition::OpenAlways);
    ASSERT_NE(held, XFER_INVALID_FILE);
    for (const auto disposition :
         {plat::FileDisposition::OpenExisting, plat::FileDisposition::CreateAlways}) {
        EXPECT_EQ(plat::FileOpen(path.c_str(), plat::FileAccess::Write, disposition),
                  XFER_INVALID_FILE);
    }
    EXPECT_NE(plat::LastError(), 0);
    const XferFile reader = plat::FileOpenShared(path.c_str());
    ASSERT_NE(reader, XFER_INVALID_FILE);
    char buffer[32] = {};
    EXPECT_EQ(plat::FileRead(reader, buffer, sizeof buffer), 10);
    EXPECT_EQ(std::string(buffer), "0123456789");
    EXPECT_EQ(plat::FileRead(reader, buffer, sizeof buffer), 0); // end of file
    EXPECT_TRUE(plat::FileClose(reader));
    EXPECT_TRUE(plat::FileClose(held));

    // Free again: create-always now empties it.
    const XferFile again =
        plat::FileOpen(path.c_str(), plat::FileAccess::Write, plat::FileDisposition::CreateAlways);
    ASSERT_NE(again, XFER_INVALID_FILE);
    EXPECT_TRUE(plat::FileClose(again));
    EXPECT_EQ(Content(path), "");
}

TEST(Win32Files, TimesAndStatusComeBackAsSet) {
    TempTree tree;
    const std::string path = tree.File("t.txt", "12345");
    const XferFile file =
        plat::FileOpen(path.c_str(), plat::FileAccess::Write, plat::FileDisposition::OpenExisting);
    ASSERT_NE(file, XFER_INVALID_FILE);
    for (const int64_t when :
         {int64_t{-86400}, int64_t{0}, int64_t{1700000000}, int64_t{4102444800}}) {
        EXPECT_TRUE(plat::FileSetTimes(file, when));
        EXPECT_EQ(plat::FileStat(path.c_str()).modTime, when);
    }
    EXPECT_TRUE(plat::FileClose(file));
    EXPECT_FALSE(plat::FileClose(XFER_INVALID_FILE));

    const plat::FileFacts facts = plat::FileStat(path.c_str());
    EXPECT_TRUE(facts.exists);
    EXPECT_TRUE(facts.isRegular);
    EXPECT_FALSE(facts.isDirectory);
    EXPECT_EQ(facts.size, 5);
    const plat::FileFacts folder = plat::FileStat(tree.Folder().c_str());
    EXPECT_TRUE(folder.exists && folder.isDirectory && !folder.isRegular);
    EXPECT_FALSE(plat::FileStat(tree.Path("missing").c_str()).exists);
    EXPECT_FALSE(plat::FileStat("NUL").isRegular);

    EXPECT_EQ(plat::FileEntryKind(tree.Folder().c_str()), plat::EntryKind::Directory);
    EXPECT_EQ(plat::FileEntryKind(path.c_str()), plat::EntryKind::Other);
    EXPECT_EQ(plat::FileEntryKind(tree.Path("missing").c_str()), plat::EntryKind::Missing);
}

TEST(Win32Files, RenameReplacesAndRemoveDeletes) {
    TempTree tree;
    const std::string a = tree.File("a", "A"), b = tree.File("b", "B");
    EXPECT_TRUE(plat::FileRename(a.c_str(), b.c_str()));
    EXPECT_EQ(Content(b), "A");
    EXPECT_TRUE(plat::FileRemove(b.c_str()));
    EXPECT_FALSE(fs::exists(b));
    EXPECT_FALSE(plat::FileRemove(b.c_str()));
    // A real folder is never removed as a file.
    tree.Dir("folder");
    EXPECT_FALSE(plat::FileRemove(tree.Path("folder").c_str()));
    EXPECT_TRUE(fs::is_directory(tree.Path("folder")));
}

TEST(Win32Search, EitherSeparatorAndAnyCase) {
    TempTree tree;
    tree.File("Data.TXT");
    tree.File("other.bin");
    tree.Dir("Sub.txt");
    std::string windowsFolder = tree.Folder();
    for (char &c : windowsFolder) {
        if (c == '/') c = '\\';
    }
    for (const std::string &folder : {tree.Folder(), windowsFolder}) {
        plat::FindData found;
        plat::FindHandle search = plat::FindFirst((folder + "*.txt").c_str(), found);
        ASSERT_NE(search, nullptr) << folder;
        std::vector<std::string> names{found.name};
        while (plat::FindNext(search, found)) names.push_back(found.name);
        plat::FindClose(search);
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names, (std::vector<std::string>{"Data.TXT", "Sub.txt"})) << folder;
    }
    // One named entry, looked up directly.
    plat::FindData one;
    plat::FindHandle search = plat::FindFirst((windowsFolder + "Sub.txt").c_str(), one);
    ASSERT_NE(search, nullptr);
    EXPECT_EQ(one.attributes, plat::kAttrDirectory);
    EXPECT_FALSE(plat::FindNext(search, one));
    plat::FindClose(search);
    EXPECT_EQ(plat::FindFirst((windowsFolder + "*.none").c_str(), one), nullptr);
}

// A key of its own under HKCU, removed at the end.
class Win32Registry : public ::testing::Test {
  protected:
    static constexpr const char *kKey = "Software\\ZvxferTests\\Registry";
    void SetUp() override {
        ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                                  &key_, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override {
        RegCloseKey(key_);
        RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\ZvxferTests");
    }
    void Set(const char *name, DWORD type, const char *text) {
        ASSERT_EQ(RegSetValueExA(key_, name, 0, type, reinterpret_cast<const BYTE *>(text),
                                 static_cast<DWORD>(std::strlen(text) + 1)),
                  ERROR_SUCCESS);
    }
    HKEY key_ = nullptr;
};

TEST_F(Win32Registry, StringsAreReadWithTheirSizeRules) {
    Set("", REG_SZ, "C:\\Program Files\\zvxfer\\zvui32.nls");
    Set("Short", REG_SZ, "eng");
    Set("Number", REG_DWORD, "abcd");
    plat::RegKeyHandle key = nullptr;
    // Key paths are matched without regard to case, as the system does.
    ASSERT_EQ(plat::RegOpenKey(plat::RegRoot::CurrentUser, "software\\zvxfertests\\REGISTRY", key),
              plat::kErrorSuccess);
    char buffer[64];
    EXPECT_EQ(plat::RegQueryString(key, "", buffer, sizeof buffer), plat::kErrorSuccess);
    EXPECT_STREQ(buffer, "C:\\Program Files\\zvxfer\\zvui32.nls");
    EXPECT_EQ(plat::RegQueryString(key, "short", buffer, 4), plat::kErrorSuccess);
    EXPECT_STREQ(buffer, "eng");
    // One byte short of the NUL: refused, and the buffer left empty.
    EXPECT_EQ(plat::RegQueryString(key, "Short", buffer, 3), plat::kErrorMoreData);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(plat::RegQueryString(key, "Missing", buffer, sizeof buffer),
              plat::kErrorFileNotFound);
    EXPECT_EQ(plat::RegQueryString(key, "Number", buffer, sizeof buffer), plat::kErrorFileNotFound);
    plat::RegCloseKey(key);

    EXPECT_EQ(plat::RegOpenKey(plat::RegRoot::CurrentUser, "Software\\ZvxferTests\\None", key),
              plat::kErrorFileNotFound);
    EXPECT_EQ(key, nullptr);
}

TEST(Win32Memory, GlobalBlocksAreZeroedAndBudgeted) {
    auto *block = static_cast<unsigned char *>(plat::GlobalAllocZero(4096));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 4096; ++i) ASSERT_EQ(block[i], 0) << i;
    EXPECT_TRUE(plat::GlobalFreeBlock(block));
    EXPECT_FALSE(plat::GlobalFreeBlock(nullptr));

    plat::SetAllocFailAfter(1);
    void *first = plat::HeapAllocZero(16);
    void *second = plat::GlobalAllocZero(16);
    plat::SetAllocFailAfter(-1);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    plat::HeapFreeBlock(first);
}

TEST(Win32Memory, ProbeTellsReadOnlyPages) {
    static const char kConstant[] = "read only";
    char onStack[] = "writable";
    EXPECT_FALSE(plat::ByteWritable(const_cast<char *>(kConstant)));
    EXPECT_FALSE(plat::ByteWritable(const_cast<char *>("literal")));
    EXPECT_TRUE(plat::ByteWritable(onStack));
    EXPECT_STREQ(onStack, "writable");
}

} // namespace
