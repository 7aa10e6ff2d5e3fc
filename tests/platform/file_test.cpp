// Files created beneath a folder: links below the folder never followed,
// subfolders made as needed, old files replaced only through a committed
// temporary file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "link_files.h"
#include "platform/file.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

namespace fs = std::filesystem;

using test::FileText;

// The names in a folder, sorted; hidden ones included.
std::vector<std::string> Names(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

bool Write(XferFile file, const std::string &text) {
    return plat::FileWrite(file, text.data(), text.size()) == static_cast<long>(text.size());
}

struct Beneath : ::testing::Test {
    Beneath() {
        outside.File("target.txt", "outside");
        tree.Dir("in");
        fs::create_symlink(outside.Folder(), tree.Path("in/linkdir"));
        fs::create_symlink(outside.Path("target.txt"), tree.Path("in/tofile"));
        fs::create_symlink(outside.Path("nothing.txt"), tree.Path("in/dangling"));
        tree.File("in/plain", "plain");
        tree.Dir("in/adir");
        mkfifo(tree.Path("in/fifo").c_str(), 0600);
        fs::create_symlink(tree.Path("in"), tree.Path("inlink"));
    }
    // Opens, writes "new", commits and closes; true when it all worked.
    bool Create(const std::string &base, const std::string &relative) {
        const XferFile f = plat::FileCreateBeneath(base.c_str(), relative.c_str());
        if (f == XFER_INVALID_FILE) return false;
        const bool ok = Write(f, "new") && plat::FileCommit(f);
        return plat::FileClose(f) && ok;
    }
    test::TempTree tree, outside;
};

TEST_F(Beneath, CreatesBelowTheFolderAndNeverThroughALinkOrIntoAnotherKindOfEntry) {
    const std::string in = tree.Path("in/");
    struct Case {
        const char *relative;
        bool opens;
    } cases[] = {
        {"a.txt", true},      {"sub/deeper/b.txt", true}, // folders made on the way
        {"linkdir/x", false},                             // a linked subfolder is not entered
        {"plain/x", false},                               // a file is no folder
        {"dangling", false}, // links in the way, whatever they point to
        {"tofile", false},    {"adir", false},
        {"fifo", false},      {"", false}, // no file, or a name that climbs or starts anew
        {"/abs", false},      {"../x", false},
        {"a/../x", false},    {"a//x", false},
        {"./x", false},       {"x/", false},
    };
    for (const Case &c : cases) EXPECT_EQ(Create(in, c.relative), c.opens) << c.relative;
    EXPECT_EQ(FileText(tree.Path("in/a.txt")), "new");
    EXPECT_EQ(FileText(tree.Path("in/sub/deeper/b.txt")), "new");
    EXPECT_EQ(FileText(tree.Path("in/plain")), "plain");
    EXPECT_EQ(Names(outside.Folder()), std::vector<std::string>{"target.txt"});
    EXPECT_EQ(FileText(outside.Path("target.txt")), "outside");
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/dangling")) && fs::is_symlink(tree.Path("in/tofile")));
    EXPECT_FALSE(fs::exists(tree.Path("in/a"))) << "nothing made for a refused name";

    // The folder itself may be a link (the user chose it); the empty base is
    // the current folder.
    EXPECT_TRUE(Create(tree.Path("inlink/"), "c.txt"));
    EXPECT_EQ(FileText(tree.Path("in/c.txt")), "new");
    const fs::path here = fs::current_path();
    fs::current_path(tree.Path("in"));
    const bool inCurrent = Create("", "d.txt");
    fs::current_path(here);
    EXPECT_TRUE(inCurrent && FileText(tree.Path("in/d.txt")) == "new");
}

// Continuing a file: the same folder rules; a regular file keeps its
// content and is written at its end (and can be read from its start), a
// missing one is made; links and other kinds of entries are refused.
TEST_F(Beneath, AppendContinuesARegularFileBelowTheFolderOnly) {
    const std::string in = tree.Path("in/");
    const struct {
        const char *relative;
        const char *after; // the file's content after appending "+", or null: refused
    } cases[] = {
        {"plain", "plain+"},
        {"sub/new.txt", "+"},
        {"tofile", nullptr},
        {"dangling", nullptr},
        {"linkdir/target.txt", nullptr},
        {"adir", nullptr},
        {"fifo", nullptr},
        {"../x", nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.relative);
        const XferFile f = plat::FileAppendBeneath(in.c_str(), c.relative);
        ASSERT_EQ(f != XFER_INVALID_FILE, c.after != nullptr);
        if (f == XFER_INVALID_FILE) continue;
        EXPECT_TRUE(Write(f, "+"));
        char head[2] = {};
        EXPECT_EQ(plat::FileSeek(f, 0, 0), 0);
        EXPECT_EQ(plat::FileRead(f, head, 1), 1);
        EXPECT_EQ(head[0], c.after[0]);
        EXPECT_TRUE(plat::FileClose(f));
        EXPECT_EQ(FileText(in + c.relative), c.after);
    }
    EXPECT_EQ(FileText(outside.Path("target.txt")), "outside");
    EXPECT_FALSE(fs::exists(outside.Path("nothing.txt")));
}

TEST_F(Beneath, AnOldFileIsReplacedOnlyByACommittedFileAndNeverWhileHeld) {
    const std::string in = tree.Path("in/"), old = tree.Path("in/plain");
    chmod(old.c_str(), 0640);
    const std::vector<std::string> before = Names(in);

    // Written but not committed: the old file stays, the temporary goes.
    XferFile f = plat::FileCreateBeneath(in.c_str(), "plain");
    ASSERT_NE(f, XFER_INVALID_FILE);
    ASSERT_TRUE(Write(f, "new content"));
    EXPECT_EQ(FileText(old), "plain");
    const std::vector<std::string> during = Names(in);
    ASSERT_EQ(during.size(), before.size() + 1);
    EXPECT_EQ(during[0].rfind(".plain.zvxfer-", 0), 0u) << during[0];
    EXPECT_TRUE(plat::FileClose(f));
    EXPECT_EQ(FileText(old), "plain");
    EXPECT_EQ(Names(in), before);

    // Committed: the new content under the old name with the old mode.
    f = plat::FileCreateBeneath(in.c_str(), "plain");
    ASSERT_TRUE(Write(f, "new content"));
    EXPECT_TRUE(plat::FileCommit(f));
    EXPECT_TRUE(plat::FileClose(f));
    struct stat st {};
    ASSERT_EQ(stat(old.c_str(), &st), 0);
    EXPECT_EQ(FileText(old), "new content");
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(Names(in), before);

    // A file held by another exclusive open is not replaced.
    const XferFile holder =
        plat::FileOpen(old.c_str(), plat::FileAccess::Read, plat::FileDisposition::OpenExisting);
    ASSERT_NE(holder, XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileCreateBeneath(in.c_str(), "plain"), XFER_INVALID_FILE);
    plat::FileClose(holder);
    EXPECT_EQ(Names(in), before);

    // A name as long as a name may be: the temporary name is cut to fit.
    const std::string longName(255, 'n');
    tree.File("in/" + longName, "old");
    f = plat::FileCreateBeneath(in.c_str(), longName.c_str());
    ASSERT_NE(f, XFER_INVALID_FILE);
    EXPECT_TRUE(Write(f, "new") && plat::FileCommit(f) && plat::FileClose(f));
    EXPECT_EQ(FileText(tree.Path("in/" + longName)), "new");
}

} // namespace
} // namespace zvxfer
