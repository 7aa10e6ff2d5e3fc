// The Kermit engine's local files and names: reading a file to send (text
// mode's line ends, the position count), the output file beneath the receive
// folder (removed when discarded), the name a file is sent under, the local
// name of a received one, and the numbered backups that move an older file
// aside.  Pipes and links: links_and_pipes_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "files_bench.h"
#include "kermit/engine.h"
#include "link_files.h"
#include "platform/file.h"
#include "system_files.h"
#include "temp_tree.h"

namespace zvxfer::kermit {
namespace {

namespace fs = std::filesystem;

// Every byte zgetc gives for the file, until its end.
std::string ReadAll(KermitEngine &e) {
    std::string bytes;
    for (int c; (c = e.zgetc()) >= 0;) bytes.push_back(static_cast<char>(c));
    return bytes;
}

TEST(KermitFiles, FilesAreReadWholeAndTextModeSendsCrLfWhileCrLocalIsSet) {
    const std::string lines = "a\nbb\r\n\nc";
    const std::string longLine(9000, 'L'); // longer than one fill
    const test::FileBytes random = test::RandomBytes(3 * 4080 + 17, 5);
    const std::string binary(random.begin(), random.end());
    const struct {
        std::string content;
        int textmode, crlocal;
        std::string sent;
    } cases[] = {
        {lines, 1, 1, "a\r\nbb\r\r\n\r\nc"},
        {lines, 1, 0, lines},
        {lines, 0, 1, lines},
        {"\n\n", 1, 1, "\r\n\r\n"},
        {"", 1, 1, ""},
        {longLine + "\n", 1, 1, longLine + "\r\n"},
        {binary, 0, 1, binary},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        test::TempTree tree;
        const std::string path = tree.File("f", c.content);
        Bench b("");
        b->textmode = c.textmode;
        b->crlocal = c.crlocal;
        ASSERT_EQ(b->zopeni(path.c_str()), 0);
        EXPECT_EQ(b.record.FileSize, static_cast<int32_t>(c.content.size()));
        EXPECT_EQ(ReadAll(*b), c.sent);
        EXPECT_EQ(b.record.FilePos, static_cast<int32_t>(c.sent.size())) << "CRs count";
        EXPECT_EQ(b->zgetc(), -1) << "stays at the end";
        EXPECT_EQ(b->zclosi(), 0);
        EXPECT_EQ(b->inputFile, XFER_INVALID_FILE);
    }
}

// A file that cannot be read to its end is not taken as complete: closing
// it reports the failure, so the exchange ends with an error and the other
// side removes what it has instead of keeping a short file.
TEST(KermitFiles, AReadErrorIsReportedWhenTheFileIsClosed) {
    test::TempTree tree;
    for (int textmode : {0, 1}) {
        Bench b("");
        b->textmode = textmode;
        // Reading a handle open for writing only fails as a failing disk would.
        b->inputFile = test::OpenNullDevice(true);
        ASSERT_NE(b->inputFile, XFER_INVALID_FILE);
        EXPECT_EQ(b->zgetc(), -1) << textmode;
        EXPECT_EQ(b->zclosi(), -1) << textmode;
        EXPECT_EQ(b->inputFile, XFER_INVALID_FILE);

        // The next file starts clean.
        const std::string next = tree.File("next", "ok");
        b.record.FilePos = 1000;
        ASSERT_EQ(b->zopeni(next.c_str()), 0);
        EXPECT_EQ(b.record.FilePos, 0) << "counted per file";
        EXPECT_EQ(ReadAll(*b), "ok");
        EXPECT_EQ(b.record.FilePos, 2);
        EXPECT_EQ(b->zclosi(), 0);
    }
}

// Opens `name` for receiving, writes `content` and closes it.
int Receive(KermitEngine &e, const char *name, const std::string &content, int discard) {
    if (e.zopeno(name) != 0) return -1;
    for (char c : content)
        if (e.zputc(static_cast<uint8_t>(c)) != 0) return -2;
    return e.zcloso(discard);
}

TEST(KermitFiles, OutputFilesAreKeptWhenCompleteAndRemovedWhenDiscarded) {
    test::TempTree tree;
    fs::create_directories(tree.Path("in"));
    Bench b(tree.Path("in/"));
    const std::string big(10000, 'b'); // more than the write buffer holds

    EXPECT_EQ(Receive(*b, "kept", big, 0), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/kept")), big);
    EXPECT_EQ(b.record.FilePos, 10000) << "one per byte written";

    EXPECT_EQ(Receive(*b, "dropped", "partial", 1), 0);
    EXPECT_FALSE(fs::exists(tree.Path("in/dropped")));

    // A file that would replace an older one leaves the old one when it is
    // discarded, and replaces it when kept.
    tree.File("in/old", "old content");
    EXPECT_EQ(Receive(*b, "old", "new", 1), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/old")), "old content");
    EXPECT_EQ(Receive(*b, "old", "new", 0), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/old")), "new");
    EXPECT_EQ(std::distance(fs::directory_iterator(tree.Path("in")), {}), 2)
        << "no temporary file left";

    // What the exchange leaves open is closed, the incomplete file removed.
    ASSERT_EQ(b->zopeno("cut"), 0);
    b->zputc('x');
    const std::string sent = tree.File("send", "s");
    ASSERT_EQ(b->zopeni(sent.c_str()), 0);
    b->closeLeftovers();
    EXPECT_EQ(b->outputFile, XFER_INVALID_FILE);
    EXPECT_EQ(b->inputFile, XFER_INVALID_FILE);
    EXPECT_FALSE(fs::exists(tree.Path("in/cut")));
    EXPECT_EQ(b->zputc('x'), -1) << "nothing open";
}

// ---- names ------------------------------------------------------------

std::string Zltor(const std::string &name, int max = 260) {
    Bench b("");
    char out[kNameSize] = "unchanged";
    b->zltor(name.c_str(), out, max);
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
        {"C:\\dir\\", "C:\\dir\\"}, // ends with a separator: taken whole
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
    EXPECT_EQ(b->zlocal(received.c_str(), out, 0, max), 0);
    return out;
}

TEST(KermitNames, ReceivedNamesAreTrimmedAndLoweredWhenAllCapitals) {
    const struct {
        std::string received, local;
    } cases[] = {
        {"  README.TXT ", "readme.txt"},
        {"ReadMe.TXT", "ReadMe.TXT"},
        {"ABC123.TXT", "abc123.txt"},
        {"", "NONAME"},
        // Controls and bytes of 128 and above are trimmed from both ends,
        // kept inside.
        {"\x01\x1fname\x1b\r\n", "name"},
        {"\303\251file\xff", "file"},
        {"a\001b", "a\001b"},
        {"\xc3\xa9T\xc3\xa9", "t"},
    };
    for (const auto &c : cases) EXPECT_EQ(Zlocal(c.received), c.local) << c.received;
    EXPECT_EQ(Zlocal(std::string(400, 'x')), std::string(259, 'x'));
    EXPECT_EQ(Zlocal("  abcdefgh", 5), "abcd");

    // The name may be converted in place.
    Bench b("");
    char name[kNameSize] = "  HELLO.C  ";
    EXPECT_EQ(b->zlocal(name, name, 0, sizeof name), 0);
    EXPECT_STREQ(name, "hello.c");
}

// Names in the folder, sorted.
std::set<std::string> Listing(const std::string &folder) {
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder))
        names.insert(entry.path().filename().string());
    return names;
}

// A received name joins the folder text after its last separator, '/' or
// '\': only the text after it shares the name's 255-character component.
// Here the 259-character path limit cuts first (11 + 248).
TEST(KermitNames, TheReceivePathCountsTheNameFromTheFoldersLastSeparator) {
    test::TempTree tree;
    tree.Dir("ten_chars_");
    const fs::path previous = fs::current_path();
    fs::current_path(tree.Folder());
    const std::string name(250, 'n');
    for (const char *separator : {"/", "\\"}) {
        Bench b(std::string("ten_chars_") + separator);
        char out[kPathSize];
        ASSERT_TRUE(b->receivePath(name.c_str(), out)) << separator;
        EXPECT_EQ(std::string(out), b.folderText + name.substr(0, 248)) << separator;
    }
    fs::current_path(previous);
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
    // The receive folder may end in '/' or '\': the name starts after either.
    for (const auto &c : cases)
        for (const char *separator : {"/", "\\"}) {
            test::TempTree tree;
            for (const std::string &name : c.present) tree.File("in/" + name, "old " + name);
            Bench b(tree.Path("in") + separator);
            EXPECT_EQ(b->zbackup(c.name.c_str()), 0) << c.name << separator;
            EXPECT_EQ(Listing(tree.Path("in")), c.after) << c.name << separator;
            if (!c.movedTo.empty()) {
                EXPECT_EQ(test::FileText(tree.Path("in/" + c.movedTo)), "old " + c.name);
            }
        }
}

} // namespace
} // namespace zvxfer::kermit
