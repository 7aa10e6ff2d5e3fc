// Directory search with the Windows wildcard rules, and send-file lists over
// temporary folders: splitting the name list, wildcards, subfolders and
// their depth limit, unmatched and overlong names.  A list's file facts and
// its end are exercised by the XMODEM and ZMODEM sender tests.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "filelist/filelist.h"
#include "platform/dirsearch.h"
#include "status_log.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

using test::StatusLines;
using Names = std::vector<std::string>;
using Set = std::set<std::string>;

TEST(DirSearch, WildcardsFollowWindowsRules) {
    // Pattern, name, then '1' when it matches.
    const char *cases[][3] = {
        // clang-format off
        {"*.*", "noext", "1"}, {"*.*", ".hidden", "1"}, {"*.txt", "a.txt.bak", ""},
        {"*.txt", "a.TXT", ""}, {"a?c", "ac", ""}, {"a?c", "abc", "1"},
        {"a*b*c", "axxbyyc", "1"}, {"a*b*c", "axxbyy", ""}, {"report.*", "report", "1"},
        {"**", "", "1"},
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(plat::WildcardMatch(c[0], c[1]), c[2][0] == '1') << c[0] << " vs " << c[1];
}

struct SendList : ::testing::Test {
    SendList() {
        StatusLines().clear();
        record.Sending = 1;
        record.StatusCallback = &test::CollectStatus;
    }
    // Every path the list yields, relative to the tree's root.
    Names Run(std::string names, bool subfolders = false) {
        names_ = std::move(names);
        list.reset(SendFileListCreate(names_.data(), subfolders));
        Names out;
        for (const std::string root = tree.Folder();
             list && list->Next(&record, list.get()) == 1;) {
            const std::string path = list->Path;
            out.push_back(path.rfind(root, 0) == 0 ? path.substr(root.size()) : path);
        }
        return out;
    }
    std::string Q(const std::string &relative) const { return "\"" + tree.Path(relative) + "\""; }

    test::TempTree tree;
    XferRecord record{};
    std::string names_;
    std::unique_ptr<SendFileList, void (*)(SendFileList *)> list{
        nullptr, [](SendFileList *l) { l->Destroy(l); }};
};

TEST_F(SendList, QuotedNamesWildcardsAndUnmatchedNames) {
    tree.File("a b/x,1.txt");
    for (const char *name : {"d/y1.txt", "d/y2.txt", "d/y.dir/z"}) tree.File(name);
    const Names files = Run(Q("a b/x,1.txt") + ",\"\"" + Q("d/*") + "," + Q("gone.txt"));
    EXPECT_EQ(files.at(0), "a b/x,1.txt");
    EXPECT_EQ(Set(files.begin() + 1, files.end()), (Set{"d/y1.txt", "d/y2.txt"}))
        << "folders and dot names never come out";
    EXPECT_EQ(StatusLines(), Names{"1 gone.txt : No file matches " + tree.Path("gone.txt")});
    EXPECT_TRUE(list->SearchError == 2 && record.FileName == list->Path)
        << "the unmatched name is the current name";

    // Unquoted, a comma list is one name; overlong names match nothing.
    EXPECT_TRUE(Run(tree.Path("d/y1.txt,d/y2.txt")).empty() && list->SearchError == 2);
    EXPECT_EQ(Run(Q(std::string(300, 'x') + "/a.txt") + Q(std::string(300, 'p')) + Q("d/y1.txt")),
              Names{"d/y1.txt"});
    EXPECT_EQ(StatusLines().size(), 4u);
}

TEST_F(SendList, SubfoldersFollowTheFoldersOwnMatchesNineLevelsDeep) {
    std::string chain = "top/";
    for (int level = 1; level <= 12; ++level) {
        tree.File(chain + "f.txt");
        chain += "l" + std::to_string(level) + "/";
    }
    tree.File("top/2.txt");
    tree.Dir("top/empty");
    EXPECT_EQ(Run(Q("top/*.txt")).size(), 2u) << "no subfolders without the flag";
    const Names files = Run(Q("top/*.txt"), true);
    ASSERT_EQ(files.size(), 11u) << "the named folder and nine below it";
    EXPECT_EQ(Set(files.begin(), files.begin() + 2), (Set{"top/f.txt", "top/2.txt"}));
    EXPECT_EQ(files[2], "top/l1/f.txt");
    EXPECT_EQ(files.back(), "top/l1/l2/l3/l4/l5/l6/l7/l8/l9/f.txt");
    EXPECT_TRUE(StatusLines().empty() && list->SearchError == 0)
        << "a subfolder without matches is no unmatched name";
    // A name without a folder searches the current one.
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(tree.Path("top/l1/l2/l3/l4/l5/l6/l7/l8/l9/l10"));
    EXPECT_EQ(Run("\"f*.txt\"", true), (Names{"f.txt", "l11/f.txt"}));
    std::filesystem::current_path(previous);
}

// '\' separates folders as '/' does: the folder part ends at either, and
// subfolders join with the separator the name uses.
TEST_F(SendList, BackslashesSeparateFoldersAsSlashesDo) {
    for (const char *name : {"w/a.txt", "w/s/b.txt", "w/s/t/c.txt", "w/s/t/skip.bin", "w/s2/d.txt"})
        tree.File(name);
    const std::string root = tree.Folder();
    const Names all = Run("\"" + root + "w\\*.txt\"", true);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all[0], "w\\a.txt");
    EXPECT_EQ(Set(all.begin(), all.end()),
              (Set{"w\\a.txt", "w\\s\\b.txt", "w\\s\\t\\c.txt", "w\\s2\\d.txt"}))
        << "back from a deeper folder, the next subfolder is its sibling";
    EXPECT_EQ(Run("\"" + root + "w/s\\*.txt\""), (Names{"w/s\\b.txt"}));
    EXPECT_EQ(Run("\"" + root + "w\\s/*.txt\"", true), (Names{"w\\s/b.txt", "w\\s/t/c.txt"}));
    EXPECT_TRUE(StatusLines().empty());
}

// Files of 2^31 bytes and more (sparse: they take no disk) cannot be carried
// in 32-bit sizes: each is passed over with its notice and the list goes on;
// one exactly at the limit still goes.  When the list ends on one, the
// search error says why.
TEST_F(SendList, FilesTooLargeToCarryArePassedOverAndTheListGoesOn) {
    auto sparse = [&](const std::string &name, uintmax_t size) {
        const std::string path = tree.File(name, "");
        std::error_code error;
        std::filesystem::resize_file(path, size, error);
        EXPECT_FALSE(error) << name << ": " << error.message();
    };
    sparse("d/a-3gib.bin", 3LL << 30);
    sparse("d/b-limit.bin", INT32_MAX);
    sparse("d/c-2gib.bin", 1LL << 31);
    tree.File("small.txt", "12345");
    sparse("z-5gib.bin", 5LL << 30);
    const Names files = Run(Q("d/*") + Q("small.txt") + Q("z-5gib.bin"));
    EXPECT_EQ(files, (Names{"d/b-limit.bin", "small.txt"}));
    EXPECT_EQ(Set(StatusLines().begin(), StatusLines().end()),
              (Set{"1 a-3gib.bin : File too large to send: " + tree.Path("d/a-3gib.bin"),
                   "1 c-2gib.bin : File too large to send: " + tree.Path("d/c-2gib.bin"),
                   "1 z-5gib.bin : File too large to send: " + tree.Path("z-5gib.bin")}));
    EXPECT_EQ(list->SearchError, 27);

    // A receiving record (which reads only the first name) gets no notice.
    record.Sending = 0;
    StatusLines().clear();
    EXPECT_TRUE(Run(Q("z-5gib.bin")).empty());
    EXPECT_TRUE(StatusLines().empty());
}

} // namespace
} // namespace zvxfer
