// Opening and closing files: the existing-file policies, skip counting,
// the ZMODEM skip code, open failures and file times.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/core.h"
#include "host_record.h"
#include "platform/heap.h"
#include "port/port.h"
#include "temp_tree.h"

namespace zvxfer {
namespace {

using test::CountStatus;

std::string Content(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class OpenFile : public ::testing::Test, public test::HostRecord {
  protected:
    OpenFile() : HostRecord(100) {} // clean-ups settle in a few rounds
    void SetUp() override { ASSERT_TRUE(Fresh(Xmodem)); }
    void TearDown() override { XferCleanupName(); }

    // Point FileName at a buffer with room for the free-name counter.
    void Receive(const std::string &name, int32_t policy) {
        port->ExistingFilePolicy = policy;
        XferCleanupName();
        name_ = name;
        name_.resize(name.size() + kFreeNameRoom + 1, '\0');
        record.FileName = name_.data();
        if (record.Protocol == Zmodem && !record.Sending) {
            // The ZMODEM receiver's name is the clean-up's to release.
            record.FileName = static_cast<char *>(plat::HeapAllocZero(name_.size()));
            std::memcpy(record.FileName, name_.data(), name_.size());
        }
    }
    void XferCleanupName() {
        if (record.Protocol == Zmodem && !record.Sending && record.FileName != name_.data())
            plat::HeapFreeBlock(record.FileName);
        record.FileName = nullptr;
    }
    // Write something and close, so the file on disk shows which name won.
    void WriteAndClose(const char *text) {
        ASSERT_NE(record.File, XFER_INVALID_FILE);
        ASSERT_TRUE(::write(static_cast<int>(record.File), text, std::strlen(text)) >= 0);
        XferCloseFile(&record);
    }

    test::TempTree tree;
    std::string name_;
};

TEST_F(OpenFile, OverwritePolicyTruncatesTheExistingFile) {
    const std::string path = tree.File("report.txt", "old contents");
    Receive(path, XFER_EXISTING_OVERWRITE);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.FilePos, 0);
    EXPECT_EQ(record.FileCount, 1);
    EXPECT_EQ(CountStatus("report.txt : Opening file " + path), 1);
    WriteAndClose("new");
    EXPECT_EQ(Content(path), "new");
}

TEST_F(OpenFile, RenamePolicyFindsFreeNames) {
    const std::string d = tree.Folder();
    tree.File("report.txt", "original");
    Receive(d + "report.txt", XFER_EXISTING_RENAME);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_STREQ(record.FileName, (d + "report(1).txt").c_str());
    WriteAndClose("first copy");

    EXPECT_EQ(Content(d + "report.txt"), "original");
    EXPECT_EQ(Content(d + "report(1).txt"), "first copy");
    EXPECT_EQ(record.FileCount, 1);
}

TEST_F(OpenFile, SkipPolicyCountsOrAsksZmodemToSkip) {
    const std::string path = tree.File("have.txt", "keep");
    Receive(path, XFER_EXISTING_SKIP);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.SkipFile, 1);
    EXPECT_EQ(record.File, XFER_INVALID_FILE);
    EXPECT_EQ(record.FileCount, 1) << "a skipped file counts as handled";
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(CountStatus("", 1), 1);

    ASSERT_TRUE(Fresh(Zmodem));
    Receive(path, XFER_EXISTING_SKIP);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.Result, -620);
    EXPECT_EQ(record.FileCount, 0);
    EXPECT_NE(record.Buffer, nullptr) << "no clean-up for a skip";
    // The next file clears the skip code before it opens.
    Receive(tree.Path("new.txt"), XFER_EXISTING_SKIP);
    EXPECT_EQ(XferOpenFile(&record), 1);
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(record.SkipFile, 0);
    EXPECT_EQ(record.FileCount, 1);
    EXPECT_EQ(Content(path), "keep");
}

TEST_F(OpenFile, FailureEndsTheTransferWithMinus602) {
    Receive(tree.Path("no/such/folder/x.txt"), XFER_EXISTING_OVERWRITE);
    EXPECT_EQ(XferOpenFile(&record), 0);
    EXPECT_EQ(record.Result, -602);
    EXPECT_EQ(CountStatus("", 1), 1);
    EXPECT_EQ(record.Buffer, nullptr) << "cleaned up";
    EXPECT_EQ(host.WrittenString(), test::kCancelString) << "XMODEM failure cancels";
}

TEST_F(OpenFile, RenamePastNineFailsLikeAnyOpen) {
    const std::string d = tree.Folder();
    tree.File("n.txt");
    for (char c = '1'; c <= '9'; ++c) tree.File(std::string("n(") + c + ").txt");
    Receive(d + "n.txt", XFER_EXISTING_RENAME);
    EXPECT_EQ(XferOpenFile(&record), 0);
    EXPECT_EQ(record.Result, -602);
}

int32_t DestroyCount = 0;
int32_t NoMore(XferRecord *, SendFileList *) {
    return 0;
}
int32_t CountDestroy(SendFileList *) {
    return ++DestroyCount;
}

TEST_F(OpenFile, SenderTakesNameAndSizeFromItsList) {
    const std::string path = tree.File("send.bin", "0123456789");
    SendFileList list{};
    list.Next = &NoMore;
    list.Destroy = &CountDestroy;
    std::snprintf(list.Path, sizeof list.Path, "%s", path.c_str());
    list.Size = 10;
    DestroyCount = 0;

    for (int8_t protocol : {Ymodem, Zmodem}) {
        ASSERT_TRUE(Fresh(protocol, true));
        record.SendList = &list;
        EXPECT_EQ(XferOpenFile(&record), 1);
        EXPECT_EQ(record.FileName, list.Path);
        EXPECT_EQ(record.FileSize, 10);
        // The ZMODEM sender counts its own files.
        EXPECT_EQ(record.FileCount, protocol == Zmodem ? 0 : 1);
        XferCleanup(&record);
        EXPECT_EQ(record.SendList, nullptr);
    }
    EXPECT_EQ(DestroyCount, 2);
}

int64_t ModTime(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mtime : -12345;
}

TEST_F(OpenFile, CloseStampsTheFileTime) {
    const std::string epoch = tree.Path("epoch.txt");
    Receive(epoch, XFER_EXISTING_OVERWRITE);
    ASSERT_EQ(XferOpenFile(&record), 1);
    record.FileTime = 0;
    WriteAndClose("e");
    EXPECT_EQ(ModTime(epoch), 0);
    EXPECT_EQ(record.File, XFER_INVALID_FILE);
    XferCloseFile(&record); // nothing open: nothing happens

    const std::string old = tree.Path("old.txt");
    Receive(old, XFER_EXISTING_OVERWRITE);
    ASSERT_EQ(XferOpenFile(&record), 1);
    record.FileTime = -86400; // one day before 1970: still a time
    WriteAndClose("o");
    EXPECT_EQ(ModTime(old), -86400);

    const std::string now = tree.Path("now.txt");
    Receive(now, XFER_EXISTING_OVERWRITE);
    ASSERT_EQ(XferOpenFile(&record), 1);
    record.FileTime = -1;
    WriteAndClose("n");
    EXPECT_GT(ModTime(now), 1600000000) << "unknown time: the system's stays";
}

} // namespace
} // namespace zvxfer
