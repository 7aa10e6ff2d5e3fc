// The Kermit engine's files against POSIX pipes and symbolic links: only
// readable regular files are sent, output is created without following a
// link, and backups move a link as a link.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include "files_bench.h"
#include "link_files.h"
#include "temp_tree.h"

namespace zvxfer::kermit {
namespace {

namespace fs = std::filesystem;
TEST(KermitFiles, OnlyReadableRegularFilesAreOpenedForSending) {
    test::TempTree tree;
    const std::string file = tree.File("f", "12345");
    const std::string folder = tree.Path("sub");
    fs::create_directories(folder);
    const std::string fifo = tree.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Bench b("");
    EXPECT_EQ(b->zchki(file.c_str()), 5);
    EXPECT_EQ(b->zchki(folder.c_str()), -2);
    EXPECT_EQ(b->zchki(fifo.c_str()), -2);
    EXPECT_EQ(b->zchki(tree.Path("missing").c_str()), -1);

    // A folder given as a file to send is refused without opening anything
    // (a pipe the same way, so nothing waits for a writer).
    EXPECT_EQ(b->zopeni(folder.c_str()), -2);
    EXPECT_EQ(b->zopeni(fifo.c_str()), -2);
    EXPECT_EQ(b->inputFile, XFER_INVALID_FILE);
}

TEST(KermitFiles, OutputNeverFollowsALinkNorLeavesTheFolder) {
    test::TempTree tree;
    fs::create_directories(tree.Path("in"));
    tree.File("target", "outside");
    fs::create_symlink(tree.Path("target"), tree.Path("in/link"));
    Bench b(tree.Path("in/"));

    EXPECT_EQ(b->zopeno("link"), -1);
    EXPECT_EQ(test::FileText(tree.Path("target")), "outside");
    for (const char *escape : {"../escaped", "sub/../../escaped", ".", ".."})
        EXPECT_EQ(b->zopeno(escape), -1) << escape;
    EXPECT_FALSE(fs::exists(tree.Path("escaped")));
}

TEST(KermitNames, BackupsStayInTheReceiveFolderAndNeverMoveFoldersOrFollowLinks) {
    test::TempTree tree;
    tree.File("in/sub/keep", "folder content");
    tree.File("target", "outside");
    fs::create_symlink(tree.Path("target"), tree.Path("in/link"));
    tree.File("log", "beside the folder");
    Bench b(tree.Path("in/"));

    EXPECT_EQ(b->zbackup("sub"), 0);
    EXPECT_TRUE(fs::is_directory(tree.Path("in/sub"))) << "a folder is never moved";
    EXPECT_EQ(b->zbackup("log"), 0);
    EXPECT_FALSE(fs::exists(tree.Path("log.~1~"))) << "only the receive folder is looked at";

    // A link is moved as a link; what it points at is left alone.
    EXPECT_EQ(b->zbackup("link"), 0);
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/link.~1~")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(tree.Path("in/link"))));
    EXPECT_EQ(test::FileText(tree.Path("target")), "outside");
    EXPECT_FALSE(fs::exists(tree.Path("target.~1~")));

    // A dangling link is in the way like any other entry.
    fs::create_symlink(tree.Path("nowhere"), tree.Path("in/dangling"));
    EXPECT_EQ(b->zbackup("dangling"), 0);
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/dangling.~1~")));
}

} // namespace
} // namespace zvxfer::kermit
