// Names and files: bare, free and received names; opening under the
// existing-file policies and from a send list; closing with gathered data
// written and the file time stamped.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "core/file_writer.h"
#include "host_record.h"
#include "platform/heap.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

using test::CountStatus;

TEST(Names, BareNameCutsAtEitherSlashThenAtColon) {
    // clang-format off
    const char *cases[] = {"A:FILE.TXT", "FILE.TXT", "a\\b:c", "b:c", "a/b:c", "b:c",
                           "../../etc/passwd", "passwd", "..\\..\\evil", "evil",
                           "dir/sub\\mixed", "mixed", "dir\\sub/mixed2", "mixed2",
                           "plain", "plain", "trailing/", "", "", ""}; // name, bare name
    // clang-format on
    for (std::size_t i = 0; i < std::size(cases); i += 2)
        EXPECT_STREQ(BareName(cases[i]), cases[i + 1]) << cases[i];
}

std::string FreeName(const std::string &name, std::size_t extra = kFreeNameRoom + 1) {
    std::string buffer = name;
    buffer.resize(name.size() + extra, '\0');
    return XferFreeName(buffer.data(), buffer.size()) ? buffer.c_str() : "<none>";
}

TEST(Names, ExistenceAndFreeNames) {
    test::TempTree tree;
    const std::string d = tree.Folder();
    tree.File("report.txt");
    tree.Dir("v1.2");
    EXPECT_TRUE(XferFileExists((d + "report.txt").c_str()));
    EXPECT_FALSE(XferFileExists((d + "v1.2").c_str())) << "files only, not folders";
    EXPECT_FALSE(XferFileExists((d + "missing").c_str()));
    EXPECT_FALSE(XferFileExists(nullptr));

    // Trailing dots go (no extension then); a folder's dot is no extension.
    const char *cases[] = {"report.txt", "report(1).txt", "notes...",    "notes(1)",
                           "a.tar.gz",   "a.tar(1).gz",   "v1.2/readme", "v1.2/readme(1)"};
    for (std::size_t i = 0; i < std::size(cases); i += 2)
        EXPECT_EQ(FreeName(d + cases[i]), d + cases[i + 1]);
    tree.File("report(1).txt");
    EXPECT_EQ(FreeName(d + "report.txt"), d + "report(2).txt");
    EXPECT_EQ(FreeName(d + "report(1).txt"), d + "report(2).txt") << "counts on from its counter";
    for (char c = '2'; c <= '8'; ++c) tree.File(std::string("report(") + c + ").txt");
    EXPECT_EQ(FreeName(d + "report.txt"), d + "report(9).txt");
    tree.File("report(9).txt");
    EXPECT_EQ(FreeName(d + "report.txt"), "<none>") << "no counter past 9";
    EXPECT_EQ(FreeName(d + "other.txt", 3), "<none>") << "no room for (1) and the terminator";
    EXPECT_EQ(FreeName(d + "other.txt", 4), d + "other(1).txt");
}

TEST(Names, ReceivedNameStaysInTheReceiveFolderUnlessFullPathsAreKept) {
    test::HostRecord r(100);
    char out[256];
    r.record.StripPath = 1;
    XferReceivedName(&r.record, "../../etc/passwd", out, "Stripped ");
    EXPECT_STREQ(out, "/tmp/passwd");
    EXPECT_EQ(CountStatus("Stripped passwd") + CountStatus("Complete Path /tmp/passwd"), 2);
    r.port->ReceiveFolder = "/nonexistent-folder/";
    XferReceivedName(&r.record, "x/y.txt", out, "");
    EXPECT_STREQ(out, "/nonexistent-folder/") << "no folder: the folder text itself";
    r.record.StripPath = 0;
    XferReceivedName(&r.record, "../up.txt", out, "");
    EXPECT_STREQ(out, "../up.txt");
}

std::string Content(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class OpenFile : public ::testing::Test, public test::HostRecord {
  protected:
    OpenFile() : HostRecord(100) {} // clean-ups settle in a few rounds
    void TearDown() override { ForgetName(); }

    // Point FileName at a buffer with room for the free-name counter; a
    // ZMODEM receiver's name is the clean-up's to release, so the heap's.
    void Receive(int8_t protocol, const std::string &name, int32_t policy) {
        ForgetName();
        ASSERT_TRUE(Fresh(protocol));
        test::StatusLines().clear();
        host.ClearWritten();
        port->ExistingFilePolicy = policy;
        name_ = name;
        name_.resize(name.size() + kFreeNameRoom + 1, '\0');
        record.FileName = name_.data();
        if (protocol == Zmodem) {
            record.FileName = static_cast<char *>(plat::HeapAllocZero(name_.size()));
            std::memcpy(record.FileName, name_.data(), name_.size());
        }
    }
    void ForgetName() {
        if (record.Protocol == Zmodem && !record.Sending && record.FileName != name_.data())
            plat::HeapFreeBlock(record.FileName);
        record.FileName = nullptr;
    }

    test::TempTree tree;
    std::string name_;
};

TEST_F(OpenFile, ExistingFilePoliciesLoseNothing) {
    const int32_t policies[] = {XFER_EXISTING_OVERWRITE, XFER_EXISTING_RENAME, XFER_EXISTING_SKIP};
    const char *opened[] = {"a.txt", "a(1).txt", nullptr}; // null: skipped
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const std::string path = tree.File("a.txt", "old");
        std::remove(tree.Path("a(1).txt").c_str());
        Receive(Xmodem, path, policies[i]);
        EXPECT_EQ(XferOpenFile(&record), 1);
        EXPECT_EQ(record.FileCount, 1) << "a skipped file counts as handled";
        EXPECT_EQ(record.FilePos, 0);
        EXPECT_EQ(record.Result, 0);
        EXPECT_EQ(CountStatus("a.txt : Opening file " + path), 1);
        EXPECT_EQ(record.SkipFile, opened[i] ? 0 : 1);
        EXPECT_EQ(CountStatus("", 1), opened[i] ? 0 : 1) << "the skip notice";
        if (opened[i]) {
            EXPECT_STREQ(record.FileName, tree.Path(opened[i]).c_str());
            ASSERT_EQ(::write(int(record.File), "new", 3), 3);
            XferCloseFile(&record);
            EXPECT_EQ(Content(tree.Path(opened[i])), "new");
        }
        EXPECT_EQ(record.File, XFER_INVALID_FILE);
        EXPECT_EQ(Content(path), i == 0 ? "new" : "old");
    }
    // ZMODEM skips with -620 and no clean-up; the next file clears it.
    Receive(Zmodem, tree.Path("a.txt"), XFER_EXISTING_SKIP);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.Result, -620);
    EXPECT_EQ(record.FileCount, 0);
    EXPECT_NE(record.Buffer, nullptr);
    std::memcpy(record.FileName, tree.Path("b.txt").c_str(), tree.Path("b.txt").size() + 1);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(record.SkipFile, 0);
    EXPECT_EQ(record.FileCount, 1);
}

TEST_F(OpenFile, FailureEndsTheTransferWithMinus602AndTheCancelString) {
    tree.File("n.txt");
    for (char c = '1'; c <= '9'; ++c) tree.File(std::string("n(") + c + ").txt");
    for (const char *name : {"no/such/folder/x.txt", "n.txt"}) { // rename past nine fails too
        SCOPED_TRACE(name);
        Receive(Xmodem, tree.Path(name), XFER_EXISTING_RENAME);
        EXPECT_EQ(XferOpenFile(&record), 0);
        EXPECT_EQ(record.Result, -602);
        EXPECT_EQ(CountStatus("", 1), 1);
        EXPECT_EQ(record.Buffer, nullptr) << "cleaned up";
        EXPECT_EQ(host.WrittenString(), test::kCancelString);
    }
}

TEST_F(OpenFile, CloseWritesGatheredDataAndStampsTheFileTime) {
    std::string data(70000, 0);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = char(i * 31 + i / 251);
    for (int64_t time : {int64_t{0}, int64_t{-86400}, int64_t{-1}}) { // -1: unknown
        SCOPED_TRACE(time);
        const std::string path = tree.Path("t" + std::to_string(time));
        Receive(Xmodem, path, XFER_EXISTING_OVERWRITE);
        ASSERT_EQ(XferOpenFile(&record), 1);
        record.FileTime = time;
        FileWriter writer(&record);
        ASSERT_TRUE(writer.Append(reinterpret_cast<const uint8_t *>(data.data()), data.size()));
        EXPECT_EQ(Content(path).size(), 65536u) << "one full piece written so far";
        XferCloseFile(&record);
        EXPECT_EQ(Content(path), data);
        struct stat st {};
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        EXPECT_TRUE(time == -1 ? st.st_mtime > 1600000000 : st.st_mtime == time) << st.st_mtime;
    }
}

} // namespace
} // namespace zvxfer
