// The Kermit engine's local files: reading a file to send (text mode's line
// ends, the position count), the checks before reading and writing, and
// the output file beneath the receive folder: created without following
// links, made permanent only when kept, removed when discarded.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "kermit/engine.h"
#include "link_files.h"
#include "platform/file.h"
#include "temp_tree.h"

namespace zvxfer::kermit {
namespace {

namespace fs = std::filesystem;

struct Bench {
    explicit Bench(std::string folder) : folderText(std::move(folder)) {
        port.ReceiveFolder = folderText.c_str();
        record.Port = &port;
        record.Protocol = Kermit;
        engine->record = &record;
    }
    KermitEngine &operator*() { return *engine; }
    KermitEngine *operator->() { return engine.get(); }
    std::string folderText;
    XferPort port{};
    XferRecord record{};
    std::unique_ptr<KermitEngine> engine = std::make_unique<KermitEngine>();
};

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
        // Reading a folder's handle fails as a failing disk would.
        b->inputFile = plat::FileOpen(tree.Path("").c_str(), plat::FileAccess::Read,
                                      plat::FileDisposition::OpenExisting);
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
    EXPECT_EQ(b->zchki(nullptr), -1);
    EXPECT_EQ(b->zchki(""), -1);

    // A folder given as a file to send is refused without opening anything
    // (a pipe the same way, so nothing waits for a writer).
    EXPECT_EQ(b->zopeni(folder.c_str()), -2);
    EXPECT_EQ(b->zopeni(fifo.c_str()), -2);
    EXPECT_EQ(b->zopeni(tree.Path("missing").c_str()), -1);
    EXPECT_EQ(b->inputFile, XFER_INVALID_FILE);
    EXPECT_EQ(b->zgetc(), -1);
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
    EXPECT_EQ(std::string(b->outputPath), tree.Path("in/kept"));

    EXPECT_EQ(Receive(*b, "dropped", "partial", 1), 0);
    EXPECT_FALSE(fs::exists(tree.Path("in/dropped")));

    // A file that would replace an older one leaves the old one when it is
    // discarded, and replaces it when kept.
    tree.File("in/old", "old content");
    EXPECT_EQ(Receive(*b, "old", "new", 1), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/old")), "old content");
    EXPECT_EQ(Receive(*b, "old", "new", 0), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/old")), "new");
    EXPECT_EQ(fs::directory_entry(tree.Path("in")).exists(), true);
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

TEST(KermitFiles, AFailedWriteIsReportedAndTheFileNotKept) {
    Bench b("");
    b->outputFile =
        plat::FileOpen("/dev/full", plat::FileAccess::Write, plat::FileDisposition::OpenExisting);
    ASSERT_NE(b->outputFile, XFER_INVALID_FILE);
    int result = 0;
    for (int i = 0; i <= 4096 && result == 0; ++i) result = b->zputc('d');
    EXPECT_EQ(result, -1) << "the disk is full once the buffer goes out";
    b->zputc('d');
    EXPECT_EQ(b->zcloso(0), -1);
    EXPECT_EQ(b->outputFile, XFER_INVALID_FILE);
}

TEST(KermitFiles, OutputPathIsTheFolderTextAndTheNameOrTheTextAlone) {
    test::TempTree tree;
    fs::create_directories(tree.Path("in"));
    // A path holds 259 characters; a long name is cut to what is left.
    const std::size_t room = std::min<std::size_t>(255, 259 - tree.Path("in/").size());
    const struct {
        std::string folder, name, written; // relative to the tree
    } cases[] = {
        {"in/", "a.txt", "in/a.txt"},
        {"in", "a.txt", "ina.txt"},        // no separator is added
        {"file.out", "a.txt", "file.out"}, // not a folder: the whole text names the file
        {"in/", std::string(300, 'n'), "in/" + std::string(room, 'n')},
        // The cut falls inside a two-byte character: the character goes.
        {"in/", std::string(room - 1, 'n') + "\xc3\xa9xyz", "in/" + std::string(room - 1, 'n')},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.folder);
        Bench b(tree.Path(c.folder));
        EXPECT_EQ(Receive(*b, c.name.c_str(), "data", 0), 0);
        EXPECT_EQ(test::FileText(tree.Path(c.written)), "data");
        fs::remove(tree.Path(c.written));
    }
}

TEST(KermitFiles, OutputNeverFollowsALinkNorLeavesTheFolder) {
    test::TempTree tree;
    fs::create_directories(tree.Path("in"));
    tree.File("target", "outside");
    fs::create_symlink(tree.Path("target"), tree.Path("in/link"));
    Bench b(tree.Path("in/"));

    // The check follows the link, but the open refuses it.
    EXPECT_EQ(b->zopeno("link"), -1);
    EXPECT_EQ(test::FileText(tree.Path("target")), "outside");
    for (const char *escape : {"../escaped", "sub/../../escaped", ".", ".."})
        EXPECT_EQ(b->zopeno(escape), -1) << escape;
    EXPECT_FALSE(fs::exists(tree.Path("escaped")));

    // Receiving under the link's name: the link is backed up as a link, and
    // the data land in a new file in the folder.
    char local[kNameSize];
    ASSERT_EQ(b->zlocal("LINK", local, 1, sizeof local), 0);
    ASSERT_EQ(b->zchko(local), 0);
    EXPECT_EQ(Receive(*b, local, "received", 0), 0);
    EXPECT_EQ(test::FileText(tree.Path("in/link")), "received");
    EXPECT_FALSE(fs::is_symlink(tree.Path("in/link")));
    EXPECT_TRUE(fs::is_symlink(tree.Path("in/link.~1~")));
    EXPECT_EQ(test::FileText(tree.Path("target")), "outside");
}

TEST(KermitFiles, WriteCheckLooksInTheReceiveFolder) {
    test::TempTree tree;
    fs::create_directories(tree.Path("in/sub"));
    tree.File("in/present", "x");
    Bench b(tree.Path("in/"));
    EXPECT_EQ(b->zchko("new"), 0) << "a missing file: the folder is checked";
    EXPECT_EQ(b->zchko("present"), 0);
    EXPECT_EQ(b->zchko("sub"), -1) << "a folder is never written";
    EXPECT_EQ(b->zchko(""), -1);
    EXPECT_EQ(b->zchko(nullptr), -1);

    // /dev/null is always writable, whatever the folder.
    Bench nowhere(tree.Path("missing/deeper/"));
    EXPECT_EQ(nowhere->zchko("/dev/null"), 0);
    EXPECT_EQ(nowhere->zchko("null"), -1);

    // Folders this process may not write.  Permission bits do not hold
    // back the super-user, so a folder of /proc stands in too.
    std::vector<std::string> locked = {"/proc/self/"};
    if (geteuid() != 0) {
        fs::create_directories(tree.Path("ro"));
        fs::permissions(tree.Path("ro"), fs::perms::owner_read | fs::perms::owner_exec);
        locked.push_back(tree.Path("ro/"));
    }
    for (const std::string &folder : locked) {
        Bench ro(folder);
        EXPECT_EQ(ro->zchko("new.txt"), -1) << folder;
        EXPECT_EQ(ro->zopeno("new.txt"), -1) << folder;
    }
    if (geteuid() != 0) fs::permissions(tree.Path("ro"), fs::perms::owner_all);
}

} // namespace
} // namespace zvxfer::kermit
