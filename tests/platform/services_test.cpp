// The small platform services: files, heap, formatting and the tick.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "platform/file.h"
#include "platform/format.h"
#include "platform/heap.h"
#include "platform/tick.h"

namespace zvxfer::plat {
namespace {

struct TempPath {
    std::string path = "/tmp/zvxfer_platform_" + std::to_string(getpid());
    ~TempPath() { std::remove(path.c_str()); }
};

TEST(Files, ReadWriteSeekTimesAndStat) {
    TempPath t;
    EXPECT_EQ(FileOpen(t.path.c_str(), FileAccess::Read, FileDisposition::OpenExisting),
              XFER_INVALID_FILE);
    EXPECT_EQ(LastError(), ENOENT);
    EXPECT_FALSE(FileStat(t.path.c_str()).exists);

    XferFile f = FileOpen(t.path.c_str(), FileAccess::ReadWrite, FileDisposition::OpenAlways);
    ASSERT_NE(f, XFER_INVALID_FILE);
    EXPECT_EQ(FileWrite(f, "hello world", 11), 11);
    EXPECT_EQ(FileSeek(f, 6, 0), 6);
    char buf[16] = {};
    EXPECT_EQ(FileRead(f, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "world");
    EXPECT_EQ(FileRead(f, buf, sizeof buf), 0); // end of file
    EXPECT_EQ(FileSeek(f, -5, 2), 6);
    EXPECT_EQ(FileSeek(f, 0, 7), -1);
    EXPECT_TRUE(FileFlush(f));
    EXPECT_TRUE(FileSetTimes(f, 946684800)); // 2000-01-01
    EXPECT_TRUE(FileClose(f));
    EXPECT_FALSE(FileClose(XFER_INVALID_FILE));

    const FileFacts facts = FileStat(t.path.c_str());
    EXPECT_TRUE(facts.exists);
    EXPECT_FALSE(facts.isDirectory);
    EXPECT_EQ(facts.size, 11);
    EXPECT_EQ(facts.modTime, 946684800);
    EXPECT_TRUE(FileStat("/tmp").isDirectory);

    // OpenAlways keeps the contents; CreateAlways empties them.
    f = FileOpen(t.path.c_str(), FileAccess::Write, FileDisposition::OpenAlways);
    EXPECT_EQ(FileStat(t.path.c_str()).size, 11);
    FileClose(f);
    f = FileOpen(t.path.c_str(), FileAccess::Write, FileDisposition::CreateAlways);
    EXPECT_EQ(FileStat(t.path.c_str()).size, 0);
    FileClose(f);
}

TEST(Heap, ZeroFilledAndFailingOnRequest) {
    auto *block = static_cast<unsigned char *>(GlobalAllocZero(64));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(block[i], 0);
    EXPECT_TRUE(GlobalFreeBlock(block));
    EXPECT_FALSE(GlobalFreeBlock(nullptr));

    SetAllocFailAfter(2);
    void *a = HeapAllocZero(8);
    void *b = GlobalAllocZero(8);
    void *c = HeapAllocZero(8);
    SetAllocFailAfter(-1);
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(c, nullptr);
    void *d = HeapAllocZero(0); // a zero-size block is still a block
    EXPECT_NE(d, nullptr);
    HeapFreeBlock(a);
    GlobalFreeBlock(b);
    HeapFreeBlock(d);
}

TEST(Format, BoundedAndTerminated) {
    char buf[8];
    EXPECT_EQ(Format(buf, sizeof buf, "%s=%d", "n", 42), 4);
    EXPECT_STREQ(buf, "n=42");
    EXPECT_EQ(Format(buf, sizeof buf, "%s", "longer than eight"), 7);
    EXPECT_STREQ(buf, "longer ");
    buf[0] = 'x';
    EXPECT_EQ(Format(buf, 0, "%s", "abc"), 0);
    EXPECT_EQ(buf[0], 'x'); // size 0 writes nothing
}

uint32_t gFixedTick = 0;
uint32_t FixedTick() {
    return gFixedTick;
}

TEST(Tick, ReplaceableAndWrapSafe) {
    const uint32_t before = GetTickCount();
    gFixedTick = 12345;
    SetTickSource(FixedTick);
    EXPECT_EQ(GetTickCount(), 12345u);
    SetTickSource(nullptr);
    EXPECT_LT(GetTickCount() - before, 60000u); // the monotonic clock is back

    EXPECT_TRUE(TickReached(100, 100));
    EXPECT_FALSE(TickReached(99, 100));
    EXPECT_FALSE(TickReached(0xFFFFFFF0u, 0x10u)); // deadline past the wrap
    EXPECT_TRUE(TickReached(0x20u, 0x10u));
    EXPECT_TRUE(TickReached(0x10u, 0xFFFFFFF0u));
}

} // namespace
} // namespace zvxfer::plat
