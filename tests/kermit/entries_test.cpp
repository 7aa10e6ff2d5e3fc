// The Kermit entries: which option codes each accepts and what they set in
// the record, the send list split from the host's string (names in order, unreadable ones passed
// over but counted, no limit on their number), and the result, which is 0 once the exchange has
// run, also when the peer ends it with an error.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "link_files.h"
#include "platform/file.h"
#include "temp_tree.h"
#include "test_host.h"
#include "turns.h"
#include "wire.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

namespace fs = std::filesystem;

std::string Packet(char type, int seq, const std::string &data) {
    return wire::Frame(type, seq, data);
}
// A peer's parameters: longest packet 94, 10 s, no padding, CR, '#',
// no eighth-bit prefix, one-character checks, nothing more.
const std::string kPeerInit = "~* @-#N1";

using wire::Types;

// What the progress callback saw of the record, last call.
struct Seen {
    int calls = 0;
    std::string fields; // the entry's fields and options, written out
    int32_t fileCount = 0;
};
std::mutex gSeenMutex;
Seen gSeen;
int32_t Watch(XferRecord *r) {
    std::lock_guard lock(gSeenMutex);
    ++gSeen.calls;
    char text[160];
    const uint8_t *bytes = r->ProtocolBytes.Bytes;
    std::snprintf(text, sizeof text, "p%d s%d text%d strip%d f%d key%d %d,%d,%d name%d",
                  r->Protocol, r->Sending, r->ProtocolFlag, r->StripPath, r->Option1006Flag,
                  r->AbortKey, bytes[6], bytes[7], bytes[9], r->FileName != nullptr);
    gSeen.fields = text;
    gSeen.fileCount = std::max(gSeen.fileCount, r->FileCount);
    return 0;
}

class KermitEntry : public ::testing::Test {
  protected:
    void SetUp() override {
        gSeen = {};
        fs::create_directories(tree_.Path("in"));
        folder_ = tree_.Path("in/");
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

    test::FakeClock clock_{test::FakeClock::kSleepless};
    test::TestHost host_;
    test::TempTree tree_;
    std::string folder_;
    XferPort *port_ = nullptr;
};

TEST_F(KermitEntry, RefusedCodesEndTheCallBeforeAnythingHappens) {
    const struct {
        bool send;
        std::vector<int32_t> words;
    } cases[] = {
        {true, {XferOptChecksum, 0}},
        {true, {XferOptKermitTextMode, XferOptChecksum, 0}}, // after an accepted one
        {true, {XferOptReceiveTimeout, 500, 0}},
        {true, {XferOptZmResume, 0}},
        {true, {4242, 0}},
        {false, {XferOptKermitQuote8Bit, 0}},
        {false, {XferOptSubfolders, 0}},
        {false, {XferOptSendTimeout, 100, 0}},
    };
    const std::string file = tree_.File("f", "data");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.words[0]);
        std::vector<int32_t> w = c.words;
        w.resize(4, 0);
        std::string names = "\"" + file + "\"";
        const int32_t result =
            c.send ? KermitSendWithOptions(port_, names.data(), nullptr, &Watch, w[0], w[1], w[2],
                                           w[3])
                   : KermitReceiveWithOptions(port_, nullptr, &Watch, w[0], w[1], w[2], w[3]);
        EXPECT_EQ(result, -7);
        EXPECT_EQ(host_.WriteRequests(), 0);
        EXPECT_EQ(host_.ReadRequests(), 0);
        EXPECT_EQ(gSeen.calls, 0) << "no callback";
        EXPECT_EQ(names, "\"" + file + "\"") << "the list is not touched";
    }
}

// With nobody answering, each entry runs its exchange to the retry limit
// and still returns 0; the record shows the entry's fields and options.
TEST_F(KermitEntry, AcceptedCodesSetTheRecordAndTheExchangeRunsToItsEnd) {
    const std::string file = tree_.File("f", "data");
    // Protocol bytes 6, 7 and 9: 'N' (78) or '&' (38) or 'Y' (89); 1, 0 or
    // 255; '~' (126).
    const struct {
        bool send;
        std::vector<int32_t> words;
        std::string fields;
        char systemFlags; // in the init packet: 'B' binary, '@' text
    } cases[] = {
        {true, {}, "p2 s1 text0 strip1 f0 key27 78,1,126 name1", 'B'},
        {true,
         {XferOptNone, XferOptKermitQuote8Bit, XferOptKermitTextMode, XferOptKermitNoRepeat,
          XferOptFullPath, XferOptFlag1006, XferOptAbortKey, 3, XferOptSubfolders,
          XferOptReleaseHookBuffer, 0},
         "p2 s1 text1 strip0 f1 key3 38,0,126 name1",
         '@'},
        {false, {}, "p2 s0 text0 strip1 f0 key27 89,255,0 name1", 'B'},
        {false,
         {XferOptKermitTextMode, XferOptKermitNoRepeat, XferOptFullPath, XferOptFlag1006,
          XferOptAbortKey, 5, XferOptReleaseHookBuffer, 0},
         "p2 s0 text1 strip0 f1 key5 89,0,0 name1",
         '@'},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        gSeen = {};
        host_.ClearWritten();
        std::vector<int32_t> w = c.words;
        w.resize(12, 0);
        std::string names = "\"" + file + "\"";
        const int32_t result =
            c.send ? KermitSendWithOptions(port_, names.data(), nullptr, &Watch, w[0], w[1], w[2],
                                           w[3], w[4], w[5], w[6], w[7], w[8], w[9], w[10], w[11])
                   : KermitReceiveWithOptions(port_, nullptr, &Watch, w[0], w[1], w[2], w[3], w[4],
                                              w[5], w[6], w[7], w[8], w[9], w[10], w[11]);
        EXPECT_EQ(result, 0);
        ASSERT_GT(gSeen.calls, 0);
        EXPECT_EQ(gSeen.fields, c.fields);
        const std::string written = host_.WrittenString();
        // A sender's parameters go out in its S packet (system flags at
        // data position 18); a receiver with nobody sending only NAKs.
        if (c.send) {
            ASSERT_GT(written.size(), 4u + 18u);
            EXPECT_EQ(written.substr(0, 4), std::string("\x01") + written[1] + " S");
            EXPECT_EQ(written[4 + 17], c.systemFlags);
        }
        EXPECT_EQ(Types(written).back(), 'E') << "the retry limit ends the exchange";
    }
}

// The peer stops the exchange with an E packet: the entries still return 0,
// nothing more is sent, and what was open is closed; a file being received
// is removed.
TEST_F(KermitEntry, AnErrorFromThePeerEndsTheExchangeWithFilesClosed) {
    const std::string file = tree_.File("out/f", std::string(5000, 'f'));
    std::string names = "\"" + file + "\"";
    // The sender has opened its file and sent F when the error comes.
    host_.Receive(Packet('Y', 0, kPeerInit) + Packet('E', 1, "disk full"));
    EXPECT_EQ(KermitSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 0);
    EXPECT_EQ(Types(host_.WrittenString()), "SF");
    const XferFile again =
        plat::FileOpen(file.c_str(), plat::FileAccess::Read, plat::FileDisposition::OpenExisting);
    EXPECT_NE(again, XFER_INVALID_FILE) << "the sender's file was closed";
    if (again != XFER_INVALID_FILE) plat::FileClose(again);

    // The receiver has written part of a file.
    host_.ClearWritten();
    host_.Receive(Packet('S', 0, kPeerInit) + Packet('F', 1, "part.bin") + Packet('D', 2, "hello") +
                  Packet('E', 3, "stopped"));
    EXPECT_EQ(KermitReceiveWithOptions(port_, nullptr, nullptr, 0), 0);
    EXPECT_EQ(Types(host_.WrittenString()), "YYY");
    EXPECT_FALSE(fs::exists(tree_.Path("in/part.bin"))) << "an incomplete file is removed";

    // The same file completed is kept.
    host_.ClearWritten();
    host_.Receive(Packet('S', 0, kPeerInit) + Packet('F', 1, "whole.bin") +
                  Packet('D', 2, "hello") + Packet('Z', 3, "") + Packet('B', 4, ""));
    EXPECT_EQ(KermitReceiveWithOptions(port_, nullptr, &Watch, 0), 0);
    EXPECT_EQ(Types(host_.WrittenString()), "YYYYY");
    EXPECT_EQ(test::FileText(tree_.Path("in/whole.bin")), "hello");
    EXPECT_EQ(gSeen.fileCount, 1);
}

// --- the send list, over the link pair ---------------------------------

std::mutex gNamesMutex;
std::vector<std::string> gReceivedNames; // the receiver's FileName, each time it changes
int32_t gSentCount = 0;
int32_t WatchReceiver(XferRecord *r) {
    std::lock_guard lock(gNamesMutex);
    if (r->FileName != nullptr && r->FileName[0] != '\0' &&
        (gReceivedNames.empty() || gReceivedNames.back() != r->FileName))
        gReceivedNames.emplace_back(r->FileName);
    return 0;
}
int32_t WatchSender(XferRecord *r) {
    std::lock_guard lock(gNamesMutex);
    gSentCount = std::max(gSentCount, r->FileCount);
    return 0;
}

struct ListRun {
    host::LinkResult result;
    std::vector<std::string> received; // names in the order they arrived
    int32_t counted = 0;               // the sender's FileCount
};

ListRun SendList(std::string list, const std::string &receiveFolder) {
    {
        std::lock_guard lock(gNamesMutex);
        gReceivedNames.clear();
        gSentCount = 0;
    }
    host::LinkConfig config;
    config.deadlineMs = 60000;
    config.b.receiveFolder = receiveFolder;
    test::Turns turns(config);
    ListRun run;
    run.result = turns.Run(
        [&](XferPort *port) {
            return KermitSendWithOptions(port, list.data(), nullptr, &WatchSender, 0);
        },
        [&](XferPort *port) { return KermitReceiveWithOptions(port, nullptr, &WatchReceiver, 0); });
    std::lock_guard lock(gNamesMutex);
    run.received = gReceivedNames;
    run.counted = gSentCount;
    return run;
}

// Names go in order, however many there are; unreadable ones are counted
// but passed over.
TEST(KermitSendList, EveryReadableNameIsSentInOrder) {
    test::TempTree tree;
    const std::string a = tree.File("out/a.txt", "first"), b = tree.File("out/b.bin", "second"),
                      c = tree.File("out/c.dat", "third");
    fs::create_directories(tree.Path("out/folder"));
    std::string many;
    std::vector<std::string> manyNames;
    for (int i = 0; i < 70; ++i) {
        manyNames.push_back("f" + std::to_string(i));
        many += "\"" + tree.File("out/" + manyNames.back(), "content " + manyNames.back()) + "\"";
    }
    const struct {
        std::string list;
        std::vector<std::string> received;
        int32_t counted;
    } cases[] = {
        {"\"" + c + "\"\"" + a + "\" \"" + b + "\"", {"c.dat", "a.txt", "b.bin"}, 3},
        {"junk \"" + a + "\" more junk \"" + b, {"a.txt", "b.bin"}, 2}, // last quote missing
        {"\"" + a + "\"\"" + tree.Path("out/missing") + "\"\"" + b + "\"", {"a.txt", "b.bin"}, 3},
        {"\"" + a + "\"\"" + tree.Path("out/folder") + "\"\"" + c + "\"", {"a.txt", "c.dat"}, 3},
        {"\"\"\"" + a + "\"", {"a.txt"}, 2}, // an empty name counts too
        {a, {}, 0},                          // no quote: no file
        {"", {}, 0},
        {many, manyNames, 70},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.list.substr(0, 80));
        fs::remove_all(tree.Path("in"));
        fs::create_directories(tree.Path("in"));
        const ListRun run = SendList(k.list, tree.Path("in/"));
        EXPECT_FALSE(run.result.timedOut);
        EXPECT_EQ(run.result.a, 0);
        EXPECT_EQ(run.result.b, 0);
        EXPECT_EQ(run.received, k.received);
        EXPECT_EQ(run.counted, k.counted);
        for (const std::string &name : k.received)
            EXPECT_EQ(test::FileText(tree.Path("in/" + name)),
                      test::FileText(tree.Path("out/" + name)));
    }
}

} // namespace
} // namespace zvxfer
