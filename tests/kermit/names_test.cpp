// Kermit names: the name a local file is sent under, the local name for a
// received one, and the numbered backups that move an older file aside in
// the receive folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <unistd.h>

#include "kermit/engine.h"
#include "link_files.h"
#include "temp_tree.h"

namespace zvxfer::kermit {
namespace {

namespace fs = std::filesystem;

// An engine whose record leads to a port with the given receive folder.
struct Bench {
    explicit Bench(std::string folder) : folderText(std::move(folder)) {
        port.ReceiveFolder = folderText.c_str();
        record.Port = &port;
        record.Protocol = Kermit;
        engine->record = &record;
    }
    std::string folderText;
    XferPort port{};
    XferRecord record{};
    std::unique_ptr<KermitEngine> engine = std::make_unique<KermitEngine>();
};

std::string Zltor(const std::string &name, int max = 260) {
    Bench b("");
    char out[kNameSize] = "unchanged";
    b.engine->zltor(name.c_str(), out, max);
    return out;
}

TEST(KermitNames, SentNamesHaveNoFolderOnlyTheirLastDotAndPortableCharactersAndFit) {
    const std::string longName(300, 'a');
    const struct {
        std::string local, sent;
        int max = 260; // the output buffer with its terminator
    } cases[] = {
        {"C:\\data\\my file.tar.gz", "my_file_tar.gz"},
        {"/home/u/src/main.c", "main.c"},
        {".profile", "X.profile"},
        {"a~b#c", "a-bXc"},
        {"a*b?c", "aXbXc"},
        {"tab\there\x7f", "tabXhere\x7f"},
        {"\xc3\xa9t\xc3\xa9.txt", "XXtXX.txt"},
        {"a.b.c", "a_b.c"},
        {"noext", "noext"},
        {".", "X."},
        {"C:\\dir\\", "C:\\dir\\"}, // ends with a separator: taken whole
        {"", ""},
        // Long names are cut to the buffer, the leading X counted.
        {longName, std::string(259, 'a')},
        {"x/" + longName + ".txt", std::string(259, 'a')},
        {"." + longName, "X." + std::string(257, 'a')},
        {"abcdef.g", "abcd", 5},
    };
    for (const auto &c : cases) EXPECT_EQ(Zltor(c.local, c.max), c.sent) << c.local;
}

std::string Zlocal(const std::string &received, int max = 260) {
    Bench b("");
    char out[kNameSize] = "unchanged";
    EXPECT_EQ(b.engine->zlocal(received.c_str(), out, 0, max), 0);
    return out;
}

TEST(KermitNames, ReceivedNamesAreTrimmedAndLoweredWhenAllCapitals) {
    const struct {
        std::string received, local;
    } cases[] = {
        {"  README.TXT ", "readme.txt"},
        {"ReadMe.TXT", "ReadMe.TXT"},
        {"ABC123.TXT", "abc123.txt"},
        {"123", "123"},
        {"   ", "NONAME"},
        {"", "NONAME"},
        // Controls and bytes of 128 and above are trimmed from both ends,
        // kept inside.
        {"\x01\x1f"
         "name\x1b\r\n",
         "name"},
        {"\xc3\xa9"
         "file\xff",
         "file"},
        {"a\x01"
         "b",
         "a\x01"
         "b"},
        {"\xc3\xa9"
         "T\xc3\xa9",
         "t"},
        {"\x7f", "\x7f"},
    };
    for (const auto &c : cases) EXPECT_EQ(Zlocal(c.received), c.local) << c.received;
    EXPECT_EQ(Zlocal(std::string(400, 'x')), std::string(259, 'x'));
    EXPECT_EQ(Zlocal("  abcdefgh", 5), "abcd");

    // The name may be converted in place.
    Bench b("");
    char name[kNameSize] = "  HELLO.C  ";
    EXPECT_EQ(b.engine->zlocal(name, name, 0, sizeof name), 0);
    EXPECT_STREQ(name, "hello.c");
}

// Names in the folder, sorted.
std::set<std::string> Listing(const std::string &folder) {
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder))
        names.insert(entry.path().filename().string());
    return names;
}

TEST(KermitNames, BackupsTakeTheFirstFreeNumberOnTheBaseName) {
    using Set = std::set<std::string>;
    const struct {
        Set present;
        std::string name;
        Set after;
        std::string movedTo; // the old file's new name, "" when nothing moved
    } cases[] = {
        {{"log", "log.~1~"}, "log", {"log.~1~", "log.~2~"}, "log.~2~"},
        {{"log"}, "log", {"log.~1~"}, "log.~1~"},
        {{"log.~2~"}, "log.~2~", {"log.~1~"}, "log.~1~"},
        {{"log.~1~", "log.~2~"}, "log.~2~", {"log.~1~", "log.~3~"}, "log.~3~"},
        {{"a.~x~"}, "a.~x~", {"a.~x~.~1~"}, "a.~x~.~1~"},
        {{".~1~"}, ".~1~", {".~1~.~1~"}, ".~1~.~1~"}, // the first character is never the dot
        {{"other"}, "log", {"other"}, ""},            // nothing to move
    };
    for (const auto &c : cases) {
        test::TempTree tree;
        for (const std::string &name : c.present) tree.File("in/" + name, "old " + name);
        Bench b(tree.Path("in/"));
        EXPECT_EQ(b.engine->zbackup(c.name.c_str()), 0) << c.name;
        EXPECT_EQ(Listing(tree.Path("in")), c.after) << c.name;
        if (!c.movedTo.empty()) {
            EXPECT_EQ(test::FileText(tree.Path("in/" + c.movedTo)), "old " + c.name);
        }
    }
}

TEST(KermitNames, BackupFailsWhenEveryNumberIsTaken) {
    test::TempTree tree;
    tree.File("in/log", "current");
    for (int n = 1; n <= 999; ++n) tree.File("in/log.~" + std::to_string(n) + "~", "");
    Bench b(tree.Path("in/"));
    EXPECT_EQ(b.engine->zbackup("log"), -1);
    EXPECT_EQ(test::FileText(tree.Path("in/log")), "current");
    char out[kNameSize];
    EXPECT_EQ(b.engine->zlocal("LOG", out, 1, sizeof out), -1) << "zlocal reports the failure";

    fs::remove(tree.Path("in/log.~500~"));
    EXPECT_EQ(b.engine->zbackup("log"), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/log.~500~")), "current");
}

TEST(KermitNames, BackupsStayInTheReceiveFolderAndNeverMoveFoldersOrFollowLinks) {
    test::TempTree tree;
    tree.File("in/sub/keep", "folder content");
    tree.File("target", "outside");
    fs::create_symlink(tree.Path("target"), tree.Path("in/link"));
    tree.File("log", "beside the folder");
    Bench b(tree.Path("in/"));

    EXPECT_EQ(b.engine->zbackup("sub"), 0);
    EXPECT_TRUE(fs::is_directory(tree.Path("in/sub"))) << "a folder is never moved";
    EXPECT_EQ(b.engine->zbackup("log"), 0);
    EXPECT_FALSE(fs::exists(tree.Path("log.~1~"))) << "only the receive folder is looked at";

    // A link is moved as a link; what it points at is left alone.
    EXPECT_EQ(b.engine->zbackup("link"), 0);
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/link.~1~")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(tree.Path("in/link"))));
    EXPECT_EQ(test::FileText(tree.Path("target")), "outside");
    EXPECT_FALSE(fs::exists(tree.Path("target.~1~")));

    // A dangling link is in the way like any other entry.
    fs::create_symlink(tree.Path("nowhere"), tree.Path("in/dangling"));
    EXPECT_EQ(b.engine->zbackup("dangling"), 0);
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/dangling.~1~")));
}

TEST(KermitNames, BackupOfALongNameIsCutToFitThePath) {
    test::TempTree tree;
    // The longest name the folder takes within a 259-character path.
    const std::size_t longest = std::min<std::size_t>(255, 259 - tree.Path("in/").size());
    tree.File("in/" + std::string(longest, 'n'), "old");
    Bench b(tree.Path("in/"));
    ASSERT_EQ(b.engine->zbackup(std::string(300, 'n').c_str()), 0);
    EXPECT_EQ(Listing(tree.Path("in")),
              std::set<std::string>{std::string(longest - 4, 'n') + ".~1~"});
}

} // namespace
} // namespace zvxfer::kermit
