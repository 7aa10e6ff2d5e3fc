// Send-file lists over temporary folders: splitting the name list,
// wildcards, subfolders and their depth limit, unmatched names, and the
// one-name rule of a record that does not send.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "filelist/filelist.h"
#include "platform/heap.h"
#include "status_log.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

using test::StatusLines;

class SendList : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        record.Sending = 1;
        record.StatusCallback = &test::CollectStatus;
    }
    void TearDown() override {
        if (list != nullptr) list->Destroy(list);
    }

    // Every path the list yields, relative to the tree's root.
    std::vector<std::string> Run(std::string names, bool subfolders = false) {
        names_ = std::move(names);
        list = SendFileListCreate(names_.data(), subfolders);
        std::vector<std::string> out;
        const std::string root = tree.Folder();
        while (list != nullptr && list->Next(&record, list) == 1) {
            std::string path = list->Path;
            out.push_back(path.rfind(root, 0) == 0 ? path.substr(root.size()) : path);
        }
        return out;
    }
    std::string Quoted(const std::string &relative) const {
        return "\"" + tree.Path(relative) + "\"";
    }

    test::TempTree tree;
    XferRecord record{};
    SendFileList *list = nullptr;
    std::string names_;
};

TEST_F(SendList, QuotedNamesHoldBlanksAndCommas) {
    tree.File("a b/x,1.txt", "12345");
    tree.File("d/y1.txt");
    tree.File("d/y2.txt");
    tree.File("d/z.txt");
    const auto files = Run(Quoted("a b/x,1.txt") + ",\"\"" + Quoted("d/y*.txt"));
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0], "a b/x,1.txt");
    EXPECT_EQ(std::set<std::string>(files.begin() + 1, files.end()),
              (std::set<std::string>{"d/y1.txt", "d/y2.txt"}));
    EXPECT_EQ(list->SearchError, 0);
    EXPECT_TRUE(StatusLines().empty());
}

TEST_F(SendList, FileFactsComeFromTheFileSystem) {
    const std::string path = tree.File("facts.bin", std::string(1234, 'q'));
    struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    names_ = Quoted("facts.bin");
    list = SendFileListCreate(names_.data(), false);
    ASSERT_EQ(list->Next(&record, list), 1);
    EXPECT_STREQ(list->Path, path.c_str());
    EXPECT_EQ(list->Size, 1234);
    EXPECT_EQ(list->ModTime, 1000000000);
    EXPECT_EQ(list->Next(&record, list), 0);
    EXPECT_EQ(list->Next(&record, list), 0) << "stays exhausted";
}

TEST_F(SendList, UnquotedCommaListIsOneName) {
    tree.File("a.txt");
    tree.File("b.txt");
    EXPECT_TRUE(Run(tree.Path("a.txt,b.txt")).empty());
    EXPECT_NE(list->SearchError, 0);
    ASSERT_EQ(StatusLines().size(), 1u);
    EXPECT_EQ(StatusLines()[0][0], '1');
    EXPECT_EQ(record.FileName, list->Path) << "the unmatched name is the current name";
    EXPECT_STREQ(list->Path, tree.Path("a.txt,b.txt").c_str());
}

TEST_F(SendList, WildcardsNeverYieldDotsOrFolders) {
    tree.File("one.txt");
    tree.File("two");
    tree.Dir("folder.d");
    const auto files = Run(Quoted("*.*"));
    EXPECT_EQ(std::set<std::string>(files.begin(), files.end()),
              (std::set<std::string>{"one.txt", "two"}));
    EXPECT_EQ(files.size(), 2u);
}

TEST_F(SendList, SubfoldersComeAfterTheFoldersOwnMatches) {
    tree.File("d/1.txt");
    tree.File("d/2.txt");
    tree.File("d/sub/n.txt");
    tree.File("d/sub/deeper/m.txt");
    tree.File("d/sub/skip.bin");
    tree.Dir("d/empty");
    EXPECT_EQ(Run(Quoted("d/*.txt")).size(), 2u) << "no subfolders without the flag";
    list->Destroy(list);
    list = nullptr;
    StatusLines().clear();

    const auto files = Run(Quoted("d/*.txt"), true);
    ASSERT_EQ(files.size(), 4u);
    EXPECT_EQ(std::set<std::string>(files.begin(), files.begin() + 2),
              (std::set<std::string>{"d/1.txt", "d/2.txt"}));
    EXPECT_EQ(files[2], "d/sub/n.txt");
    EXPECT_EQ(files[3], "d/sub/deeper/m.txt");
    EXPECT_TRUE(StatusLines().empty()) << "a subfolder without matches is no unmatched name";
    EXPECT_EQ(list->SearchError, 0);
}

TEST_F(SendList, SearchesAtMostNineLevelsBelowTheNamedFolder) {
    std::string chain = "top/";
    for (int level = 0; level <= 11; ++level) {
        tree.File(chain + "f.txt");
        chain += "l" + std::to_string(level + 1) + "/";
    }
    const auto files = Run(Quoted("top/f.txt"), true);
    ASSERT_EQ(files.size(), 10u) << "the named folder and nine below it";
    EXPECT_EQ(files.back(), "top/l1/l2/l3/l4/l5/l6/l7/l8/l9/f.txt");
}

TEST_F(SendList, EachUnmatchedNameIsReportedOnce) {
    tree.File("d/sub/other.bin");
    tree.File("real.txt");
    const auto files =
        Run(Quoted("d/none*.txt") + "," + Quoted("real.txt") + "," + Quoted("gone.txt"), true);
    EXPECT_EQ(files, std::vector<std::string>{"real.txt"});
    EXPECT_EQ(StatusLines().size(), 2u);
    EXPECT_NE(list->SearchError, 0) << "the last name matched nothing";
}

TEST_F(SendList, ReceivingRecordReadsOnlyTheFirstNameQuietly) {
    tree.File("a.txt");
    tree.File("b.txt");
    record.Sending = 0;
    EXPECT_EQ(Run(Quoted("a.txt") + Quoted("b.txt")), std::vector<std::string>{"a.txt"});
    list->Destroy(list);
    list = nullptr;
    EXPECT_TRUE(Run(Quoted("missing") + Quoted("a.txt")).empty());
    EXPECT_TRUE(StatusLines().empty()) << "only a sending record reports unmatched names";
}

TEST_F(SendList, OverlongNamesMatchNothing) {
    tree.File("ok.txt");
    const std::string longFolder = tree.Folder() + std::string(300, 'x') + "/";
    const std::string longPattern(300, 'p');
    EXPECT_EQ(Run("\"" + longFolder + "a.txt\",\"" + tree.Folder() + longPattern + "\"," +
                  Quoted("ok.txt")),
              std::vector<std::string>{"ok.txt"});
    EXPECT_EQ(StatusLines().size(), 2u);
}

TEST_F(SendList, NameWithoutFolderSearchesTheCurrentFolder) {
    tree.File("here1.txt");
    tree.File("sub/here2.txt");
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(tree.Folder());
    const auto files = Run("\"here*.txt\"", true);
    std::filesystem::current_path(previous);
    EXPECT_EQ(files, (std::vector<std::string>{"here1.txt", "sub/here2.txt"}));
}

TEST_F(SendList, OutOfMemory) {
    plat::SetAllocFailAfter(0);
    char names[] = "\"x\"";
    EXPECT_EQ(SendFileListCreate(names, false), nullptr);
    plat::SetAllocFailAfter(-1);

    tree.File("a.txt");
    names_ = Quoted("a.txt");
    list = SendFileListCreate(names_.data(), false);
    ASSERT_NE(list, nullptr);
    plat::SetAllocFailAfter(0);
    EXPECT_EQ(list->Next(&record, list), 0);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(list->SearchError, -601);
    EXPECT_EQ(list->Next(&record, list), 1) << "the next call finds the file";
}

} // namespace
} // namespace zvxfer
