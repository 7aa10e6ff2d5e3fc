// Directory search and the Windows wildcard rules.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "temp_tree.h"
#include "platform/dirsearch.h"

namespace zvxfer::plat {
namespace {

TEST(WildcardMatch, WindowsRules) {
    struct Case {
        const char *pattern, *name;
        bool match;
    } cases[] = {
        {"*", "anything.txt", true},
        {"*.*", "noext", true},
        {"*.*", ".hidden", true},
        {"*.txt", "a.txt", true},
        {"*.txt", "a.txt.bak", false},
        {"*.txt", "a.TXT", false},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"a*b*c", "axxbyyc", true},
        {"a*b*c", "axxbyy", false},
        {"report.*", "report", true},
        {"report.*", "report.doc", true},
        {"report.*", "reports", false},
        {"**", "", true},
        {"", "", true},
        {"", "a", false},
        {"y*.txt", "y.txt", true},
        {"x", "x", true},
    };
    for (const Case &c : cases)
        EXPECT_EQ(WildcardMatch(c.pattern, c.name), c.match) << c.pattern << " vs " << c.name;
}

std::set<std::string> All(const std::string &pattern, bool *folderSeen = nullptr) {
    std::set<std::string> names;
    FindData entry;
    FindHandle search = FindFirst(pattern.c_str(), entry);
    for (bool more = search != nullptr; more; more = FindNext(search, entry)) {
        names.insert(entry.name);
        if (folderSeen && entry.attributes == kAttrDirectory && entry.name[0] != '.')
            *folderSeen = true;
    }
    FindClose(search);
    return names;
}

TEST(DirSearch, FindsMatchesWithAttributes) {
    test::TempTree tree;
    tree.File("a.txt");
    tree.File("b.txt");
    tree.File("c.bin");
    tree.Dir("sub.txt");
    bool folder = false;
    EXPECT_EQ(All(tree.Folder() + "*.txt", &folder),
              (std::set<std::string>{"a.txt", "b.txt", "sub.txt"}));
    EXPECT_TRUE(folder);
    EXPECT_EQ(All(tree.Folder() + "*.*"),
              (std::set<std::string>{".", "..", "a.txt", "b.txt", "c.bin", "sub.txt"}));
    // A name without wildcards finds that one entry, or nothing.
    EXPECT_EQ(All(tree.Folder() + "c.bin"), std::set<std::string>{"c.bin"});
    EXPECT_TRUE(All(tree.Folder() + "missing").empty());
    EXPECT_TRUE(All(tree.Folder() + "*.zip").empty());
    EXPECT_TRUE(All(tree.Path("nofolder/*.*")).empty());
    EXPECT_TRUE(All(tree.Folder()).empty()) << "empty name part";
    FindClose(nullptr);
}

} // namespace
} // namespace zvxfer::plat
