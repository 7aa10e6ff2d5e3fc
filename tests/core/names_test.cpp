// Names: the bare name of local and remote names, existence by directory
// search, and the free-name rule for policy 1.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/core.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

TEST(BareName, CutsAtEitherSlashThenAtColon) {
    struct Case {
        const char *name, *bare;
    } cases[] = {
        {"A:FILE.TXT", "FILE.TXT"},
        {"a\\b:c", "b:c"}, // a colon counts only when there is no separator
        {"a/b:c", "b:c"},
        {"/tmp/dl/report.txt", "report.txt"},
        {"C:\\dl\\report.txt", "report.txt"},
        {"../../etc/passwd", "passwd"},
        {"..\\..\\evil", "evil"},
        {"dir/sub\\mixed", "mixed"},
        {"dir\\sub/mixed2", "mixed2"},
        {"plain", "plain"},
        {"trailing/", ""},
        {"", ""},
    };
    for (const Case &c : cases) EXPECT_STREQ(BareName(c.name), c.bare) << c.name;
    char writable[] = "x/y";
    EXPECT_EQ(BareName(writable), writable + 2);
}

TEST(FileExists, FilesOnlyNotFolders) {
    test::TempTree tree;
    const std::string file = tree.File("a.txt");
    tree.Dir("sub");
    EXPECT_TRUE(XferFileExists(file.c_str()));
    EXPECT_FALSE(XferFileExists(tree.Path("sub").c_str()));
    EXPECT_FALSE(XferFileExists(tree.Path("missing.txt").c_str()));
    EXPECT_FALSE(XferFileExists(""));
    EXPECT_FALSE(XferFileExists(nullptr));
}

std::string FreeName(const std::string &name, std::size_t extra = kFreeNameRoom + 1) {
    std::string buffer = name;
    buffer.resize(name.size() + extra, '\0');
    if (!XferFreeName(buffer.data(), buffer.size())) return "<none>";
    return buffer.c_str();
}

TEST(FreeName, CounterInParentheses) {
    test::TempTree tree;
    const std::string d = tree.Folder();
    tree.File("report.txt");
    EXPECT_EQ(FreeName(d + "report.txt"), d + "report(1).txt");
    tree.File("report(1).txt");
    EXPECT_EQ(FreeName(d + "report.txt"), d + "report(2).txt");
    // A name that already carries a counter counts on from it.
    EXPECT_EQ(FreeName(d + "report(1).txt"), d + "report(2).txt");
    // Trailing dots go before the counter is placed; no extension then.
    EXPECT_EQ(FreeName(d + "notes."), d + "notes(1)");
    EXPECT_EQ(FreeName(d + "notes..."), d + "notes(1)");
    // Only the last dot starts the extension; a folder's dot is no extension.
    tree.Dir("v1.2");
    EXPECT_EQ(FreeName(d + "a.tar.gz"), d + "a.tar(1).gz");
    EXPECT_EQ(FreeName(d + "v1.2/readme"), d + "v1.2/readme(1)");
}

TEST(FreeName, GivesUpPastNineAndNeverOverflows) {
    test::TempTree tree;
    const std::string d = tree.Folder();
    tree.File("log.txt");
    for (char c = '1'; c <= '8'; ++c) tree.File(std::string("log(") + c + ").txt");
    EXPECT_EQ(FreeName(d + "log.txt"), d + "log(9).txt");
    tree.File("log(9).txt");
    EXPECT_EQ(FreeName(d + "log.txt"), "<none>") << "no counter past 9";
    // Without room for "(1)" the name is left alone.
    EXPECT_EQ(FreeName(d + "other.txt", 1), "<none>");
    EXPECT_EQ(FreeName(d + "other.txt", 4), d + "other(1).txt");
}

} // namespace
} // namespace zvxfer
