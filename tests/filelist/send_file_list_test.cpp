// Directory search with the Windows wildcard rules, and send-file lists over
// temporary folders: splitting the name list, wildcards, subfolders and
// their depth limit, unmatched and overlong names, the one-name rule of a
// record that does not send.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
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
using V = std::vector<int32_t>;

TEST(DirSearch, WildcardsFollowWindowsRules) {
    // Pattern, name, then '1' when it matches.
    const char *cases[][3] = {
        // clang-format off
        {"*", "anything.txt", "1"}, {"*.*", "noext", "1"}, {"*.*", ".hidden", "1"},
        {"*.txt", "a.txt.bak", ""}, {"*.txt", "a.TXT", ""}, {"a?c", "abc", "1"}, {"a?c", "ac", ""},
        {"a*b*c", "axxbyyc", "1"}, {"a*b*c", "axxbyy", ""}, {"report.*", "report", "1"},
        {"report.*", "reports", ""}, {"**", "", "1"}, {"", "a", ""}, {"y*.txt", "y.txt", "1"},
        // clang-format on
    };
    for (const auto &c : cases)
        EXPECT_EQ(plat::WildcardMatch(c[0], c[1]), c[2][0] == '1') << c[0] << " vs " << c[1];
}

class SendList : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        record.Sending = 1;
        record.StatusCallback = &test::CollectStatus;
    }
    void TearDown() override { Drop(); }
    void Drop() {
        if (list != nullptr) list->Destroy(list);
        list = nullptr;
    }

    // Every path the list yields, relative to the tree's root.
    Names Run(std::string names, bool subfolders = false) {
        Drop();
        names_ = std::move(names);
        list = SendFileListCreate(names_.data(), subfolders);
        Names out;
        for (std::string root = tree.Folder(); list && list->Next(&record, list) == 1;) {
            const std::string path = list->Path;
            out.push_back(path.rfind(root, 0) == 0 ? path.substr(root.size()) : path);
        }
        return out;
    }
    std::string Q(const std::string &relative) const { return "\"" + tree.Path(relative) + "\""; }

    test::TempTree tree;
    XferRecord record{};
    SendFileList *list = nullptr;
    std::string names_;
};

TEST_F(SendList, QuotedNamesWildcardsAndUnmatchedNames) {
    tree.File("a b/x,1.txt");
    for (const char *name : {"d/y1.txt", "d/y2.txt", "d/y.dir/z"}) tree.File(name);
    const Names files = Run(Q("a b/x,1.txt") + ",\"\"" + Q("d/*") + "," + Q("gone.txt"));
    EXPECT_EQ(files.at(0), "a b/x,1.txt");
    EXPECT_EQ(Set(files.begin() + 1, files.end()), (Set{"d/y1.txt", "d/y2.txt"}))
        << "folders and dot names never come out";
    EXPECT_EQ(StatusLines(), Names{"1 gone.txt : No file matches " + tree.Path("gone.txt")});
    EXPECT_EQ(list->SearchError, 2);
    EXPECT_EQ(record.FileName, list->Path) << "the unmatched name is the current name";

    // Unquoted, a comma list is one name; overlong names match nothing.
    EXPECT_EQ(Run(tree.Path("d/y1.txt,d/y2.txt")), Names{});
    EXPECT_EQ(list->SearchError, 2);
    const std::string longFolder = tree.Folder() + std::string(300, 'x') + "/a.txt";
    EXPECT_EQ(Run("\"" + longFolder + "\",\"" + tree.Folder() + std::string(300, 'p') + "\"," +
                  Q("d/y1.txt")),
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
    EXPECT_TRUE(StatusLines().empty()) << "a subfolder without matches is no unmatched name";
    EXPECT_EQ(list->SearchError, 0);

    // A name without a folder searches the current one.
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(tree.Path("top/l1/l2/l3/l4/l5/l6/l7/l8"));
    EXPECT_EQ(Run("\"f*.txt\"", true),
              (Names{"f.txt", "l9/f.txt", "l9/l10/f.txt", "l9/l10/l11/f.txt"}));
    std::filesystem::current_path(previous);
}

TEST_F(SendList, FactsExhaustionAndTheReceivingRecordsOneName) {
    const std::string path = tree.File("facts.bin", std::string(1234, 'q'));
    struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(Run(Q("facts.bin")), Names{"facts.bin"});
    EXPECT_EQ(V({list->Size, list->ModTime, list->Next(&record, list)}), V({1234, 1000000000, 0}))
        << "the facts stay with the last file, and the list stays exhausted";

    record.Sending = 0; // reads only the first name, and quietly
    EXPECT_EQ(Run(Q("facts.bin") + Q("b.txt")), Names{"facts.bin"});
    EXPECT_EQ(Run(Q("missing") + Q("facts.bin")), Names{});
    EXPECT_TRUE(StatusLines().empty());
}

} // namespace
} // namespace zvxfer
