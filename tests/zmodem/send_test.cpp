// The ZMODEM sender against a simulated receiver: the frames it writes (with
// every CRC checked), the files rebuilt from its subpackets, how far it goes
// without confirmation, restarts, noise on the return channel, skips, the
// closing exchange, its failures and its option table.
#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fake_clock.h"
#include "sim_receiver.h"
#include "status_log.h"
#include "temp_tree.h"
#include "test_host.h"
#include "zmodem/entries.h"
#include "zmodem/zmodem.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using test::Bytes;
using test::FakeClock;
using test::ReceiverScript;
using test::SimReceiver;
using test::TempTree;
using test::TestHost;
using test::WireItem;

using test::StatusLines;
constexpr auto Status = &test::CollectStatus;
int g_progressCalls = 0;

int32_t Progress(XferRecord *) {
    ++g_progressCalls;
    return 0;
}

// Every byte value, and all the ones that must be escaped, many times.
Bytes Pattern(std::size_t n) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return data;
}

std::string TypeName(int type) {
    static const std::map<int, std::string> names = {{zm::ZRQINIT, "ZRQINIT"},
                                                     {zm::ZFILE, "ZFILE"},
                                                     {zm::ZFIN, "ZFIN"},
                                                     {zm::ZDATA, "ZDATA"},
                                                     {zm::ZEOF, "ZEOF"}};
    const auto it = names.find(type);
    return it != names.end() ? it->second : std::to_string(type);
}

// Each header with the subpackets that follow it, e.g. "C ZDATA 0: j1024 k784".
std::vector<std::string> Frames(const SimReceiver &peer) {
    std::vector<std::string> out;
    for (const WireItem &item : peer.items) {
        if (item.kind == WireItem::Header) {
            out.push_back(std::string(1, item.format) + " " + TypeName(item.type) + " " +
                          std::to_string(item.Pos()));
        } else if (item.kind == WireItem::Subpacket && !out.empty()) {
            out.back() += (out.back().find(':') == std::string::npos ? ": " : " ") +
                          std::string(1, static_cast<char>(item.end)) +
                          std::to_string(item.bytes.size());
        }
    }
    return out;
}

Bytes Noise(const SimReceiver &peer) {
    Bytes out;
    for (const WireItem &item : peer.items)
        if (item.kind == WireItem::Noise)
            out.insert(out.end(), item.bytes.begin(), item.bytes.end());
    return out;
}

bool AllChecksGood(const SimReceiver &peer) {
    for (const WireItem &item : peer.items)
        if (!item.checkOk) return false;
    return true;
}

// "C ZDATA 0: " followed by `count` subpackets "<end><size>" and a last one.
std::string DataFrame(char format, int32_t pos, char end, int count, char lastEnd, int lastSize) {
    std::string s = std::string(1, format) + " ZDATA " + std::to_string(pos) + ":";
    for (int i = 0; i < count; ++i) s += std::string(" ") + end + "1024";
    if (lastEnd) s += std::string(" ") + lastEnd + std::to_string(lastSize);
    return s;
}

class ZmodemSender : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        g_progressCalls = 0;
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

    std::string Make(const std::string &name, const Bytes &data, long mtime = 1700000000) {
        const std::string path = tree_.Path(name);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
        struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        return path;
    }

    int32_t Send(SimReceiver &peer, const std::vector<std::string> &paths,
                 std::vector<int32_t> options = {}) {
        std::string names;
        for (const auto &p : paths) names += "\"" + p + "\",";
        options.push_back(0);
        const int32_t r = ZmodemSendOptions(port_, names.data(), Status, Progress, options);
        peer.Finish();
        return r;
    }

    std::string ZfileText(const std::string &name, std::size_t size) {
        return name + '\0' + std::to_string(size) + " 14524770400 0";
    }

    FakeClock clock_{FakeClock::Scaled{10}};
    TempTree tree_;
    std::string folder_ = tree_.Folder();
    TestHost host_;
    XferPort *port_ = nullptr;
};

TEST_F(ZmodemSender, DefaultWindowStreamsCrc32ZcrcqAndStopsAt4096Unconfirmed) {
    const Bytes data = Pattern(10000);
    const std::string path = Make("data.bin", data);
    SimReceiver peer(host_, {});
    EXPECT_EQ(Send(peer, {path}), 1);

    const std::string text = ZfileText("data.bin", 10000);
    EXPECT_EQ(Frames(peer), (std::vector<std::string>{
                                "B ZRQINIT 0", "C ZFILE 0: k" + std::to_string(text.size()),
                                DataFrame('C', 0, 'j', 9, 'k', 784), "C ZEOF 10000", "B ZFIN 0"}));
    EXPECT_TRUE(AllChecksGood(peer));
    EXPECT_EQ(Noise(peer), (Bytes{'O', 'O'}));
    ASSERT_EQ(peer.files.size(), 1u);
    EXPECT_EQ(peer.files[0], data);
    // ZACKs held back: the sender stops after 4096 bytes each time.
    EXPECT_EQ(peer.bursts, (std::vector<int32_t>{4096, 4096, 1808}));
    EXPECT_EQ(test::CountStatus("File sent", 1), 1);
    EXPECT_EQ(test::CountStatus("Sending with CRC-32", 0), 1);
    EXPECT_EQ(test::CountStatus("SendDataFrame: Received a ZACK at EOF", 0), 1);
    EXPECT_EQ(test::CountStatus("data.bin : SendDataFrame: sending @9216", 0), 1);
}

// The ZDATA frames and how far the sender goes before it waits for ZACKs,
// by the receiver's flags and buffer length and the window options.
TEST_F(ZmodemSender, WindowAndReceiverCapabilitiesShapeTheDataFrames) {
    constexpr uint8_t kFdx = zm::CANFDX, kOvio = zm::CANOVIO, kCrc32 = zm::CANFC32;
    struct Case {
        const char *what;
        uint8_t flags;
        uint16_t bufferLength;
        std::vector<int32_t> options;
        std::size_t size;
        std::vector<std::string> frames;
        std::vector<int32_t> bursts;
    };
    const Case cases[] = {
        {"window 5000 stops at 5120",
         zm::kOurRinitFlags,
         0,
         {1029, 5000},
         10000,
         {DataFrame('C', 0, 'j', 9, 'k', 784)},
         {5120, 4880}},
        {"option 1017: one frame of ZCRCG",
         zm::kOurRinitFlags,
         0,
         {1017},
         10000,
         {DataFrame('C', 0, 'i', 9, 'k', 784)},
         {10000}},
        {"no full duplex: no window",
         kOvio | kCrc32,
         0,
         {},
         3000,
         {DataFrame('C', 0, 'i', 2, 'k', 952)},
         {3000}},
        {"buffer length 2048: frames end with ZCRCW",
         kFdx | kOvio | kCrc32,
         2048,
         {},
         7000,
         {DataFrame('C', 0, 'j', 1, 'k', 1024), DataFrame('C', 2048, 'j', 1, 'k', 1024),
          DataFrame('C', 4096, 'j', 1, 'k', 1024), DataFrame('C', 6144, 'k', 0, 'k', 856)},
         {2048, 2048, 2048, 856}},
        {"only CANFDX: CRC-16 and a ZCRCW frame per subpacket",
         kFdx,
         0,
         {},
         2500,
         {"A ZDATA 0: k1024", "A ZDATA 1024: k1024", "A ZDATA 2048: k452"},
         {1024, 1024, 452}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host_.ClearWritten();
        const Bytes data = Pattern(c.size);
        const std::string path = Make("data.bin", data);
        ReceiverScript script;
        script.flags = c.flags;
        script.bufferLength = c.bufferLength;
        SimReceiver peer(host_, script);
        EXPECT_EQ(Send(peer, {path}, c.options), 1);
        std::vector<std::string> dataFrames;
        for (const std::string &f : Frames(peer))
            if (f.find("ZDATA") != std::string::npos) dataFrames.push_back(f);
        EXPECT_EQ(dataFrames, c.frames);
        EXPECT_EQ(peer.bursts, c.bursts);
        EXPECT_TRUE(AllChecksGood(peer)); // CRC-16 after 'A' headers, CRC-32 after 'C'
        EXPECT_EQ(peer.files.at(0), data);
    }
}

TEST_F(ZmodemSender, EmptyFileSendsNoDataFrame) {
    const std::string path = Make("empty.bin", {});
    SimReceiver peer(host_, {});
    EXPECT_EQ(Send(peer, {path}), 1);
    const std::string text = ZfileText("empty.bin", 0);
    EXPECT_EQ(Frames(peer),
              (std::vector<std::string>{"B ZRQINIT 0", "C ZFILE 0: k" + std::to_string(text.size()),
                                        "C ZEOF 0", "B ZFIN 0"}));
    EXPECT_EQ(Noise(peer), (Bytes{'O', 'O'}));
}

TEST_F(ZmodemSender, ZrposMidFileRestartsWithAnEmptyZcrcwFrame) {
    const Bytes data = Pattern(10000);
    const std::string path = Make("data.bin", data);
    ReceiverScript script;
    script.restartFrom = 2048;
    script.restartTo = 1024;
    SimReceiver peer(host_, script);
    EXPECT_EQ(Send(peer, {path}), 1);

    const std::vector<std::string> frames = Frames(peer);
    ASSERT_EQ(frames.size(), 7u);
    EXPECT_EQ(frames[2], DataFrame('C', 0, 'j', 4, 0, 0)); // the window ran on
    EXPECT_EQ(frames[3], "C ZDATA 1024: k0");
    EXPECT_EQ(frames[4], DataFrame('C', 1024, 'j', 8, 'k', 784));
    EXPECT_EQ(frames[5], "C ZEOF 10000");
    EXPECT_EQ(peer.files.at(0), data);
    EXPECT_EQ(test::CountStatus("SendFileData: ZRPOS location 1024", 0), 1);
}

TEST_F(ZmodemSender, TheFiftySecondStrayCharacterEndsTheFrame) {
    const Bytes data = Pattern(3000);
    const std::string path = Make("data.bin", data);
    for (int garbage : {51, 52}) {
        SCOPED_TRACE(garbage);
        StatusLines().clear();
        host_.ClearWritten();
        ReceiverScript script;
        script.garbage = garbage;
        SimReceiver peer(host_, script);
        EXPECT_EQ(Send(peer, {path}, {1017}), 1);
        const std::vector<std::string> frames = Frames(peer);
        // Traced at the 1st, 9th, 17th ... 49th stray character.
        EXPECT_EQ(test::CountStatus("BackChannel: garbage detected", 0), 7);
        if (garbage == 51) {
            EXPECT_EQ(test::CountStatus("Too much noise on the line", 1), 0);
            EXPECT_EQ(frames.at(2), DataFrame('C', 0, 'i', 2, 'k', 952));
        } else {
            EXPECT_EQ(test::CountStatus("Too much noise on the line", 1), 1);
            // The frame ends at once with an empty ZCRCE; the receiver's ZRPOS
            // restarts it.
            ASSERT_EQ(frames.size(), 7u);
            EXPECT_EQ(frames[2], "C ZDATA 0: h0");
            EXPECT_EQ(frames[3], "C ZDATA 0: k0");
            EXPECT_EQ(frames[4], DataFrame('C', 0, 'i', 2, 'k', 952));
        }
        EXPECT_EQ(peer.files.at(0), data);
    }
}

TEST_F(ZmodemSender, SkippedFilesAreNotCountedAndAllSkippedIsAFailure) {
    const Bytes data = Pattern(1500);
    const std::string a = Make("a.bin", data);
    const std::string b = Make("b.bin", data);
    {
        ReceiverScript script;
        script.skip = {0};
        SimReceiver peer(host_, script);
        EXPECT_EQ(Send(peer, {a, b}), 1);
        ASSERT_EQ(peer.texts.size(), 2u);
        EXPECT_TRUE(peer.files[0].empty());
        EXPECT_EQ(peer.files[1], data);
        EXPECT_EQ(test::CountStatus("File skipped", 1), 1);
    }
    StatusLines().clear();
    host_.ClearWritten();
    ReceiverScript script;
    script.skip = {0, 1};
    SimReceiver peer(host_, script);
    EXPECT_EQ(Send(peer, {a, b}), XferErrNoFilesSent);
    const std::string text = ZfileText("a.bin", 1500);
    const std::string zfile = "C ZFILE 0: k" + std::to_string(text.size());
    EXPECT_EQ(Frames(peer), (std::vector<std::string>{"B ZRQINIT 0", zfile, zfile, "B ZFIN 0"}));
    EXPECT_EQ(Noise(peer), (Bytes{'O', 'O'})); // a clean close, no cancel string
    EXPECT_EQ(test::CountStatus("File skipped", 1), 2);
}

TEST_F(ZmodemSender, ZfileCarriesNameSizeOctalTimeAndTheHeaderOptions) {
    const std::string path = Make("data.bin", Pattern(1234));
    struct Case {
        std::vector<int32_t> options;
        uint8_t zf1, zf0;
        bool fullPath;
    };
    const Case cases[] = {
        {{}, 0, 0, false},           {{1014}, 0, 3, false},
        {{1018}, 1, 0, false},       {{1019}, 3, 0, false},
        {{1020}, 4, 0, false},       {{1021}, 6, 0, false},
        {{1022}, 7, 0, false},       {{1023}, 5, 0, false},
        {{1018, 1022}, 7, 0, false}, {{1005, 1014, 1019}, 3, 3, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.options));
        host_.ClearWritten();
        SimReceiver peer(host_, {});
        EXPECT_EQ(Send(peer, {path}, c.options), 1);
        const std::string name = c.fullPath ? path : "data.bin";
        ASSERT_EQ(peer.texts.size(), 1u);
        EXPECT_EQ(peer.texts[0], name + '\0' + "1234 14524770400 0"); // no NUL at the end
        const WireItem &zfile = peer.items.at(1);
        ASSERT_EQ(zfile.type, zm::ZFILE);
        EXPECT_EQ(zfile.data[0], 0);
        EXPECT_EQ(zfile.data[1], 0);
        EXPECT_EQ(zfile.data[2], c.zf1);
        EXPECT_EQ(zfile.data[3], c.zf0);
    }
}

// A receiver that already holds the whole file asks for the end position:
// ZEOF follows at once, and the file counts as sent.
TEST_F(ZmodemSender, AReceiverAtTheEndGetsZeofAtOnce) {
    const std::string path = Make("whole.bin", Pattern(3000));
    ReceiverScript atEnd;
    atEnd.startAtEnd = true;
    SimReceiver peer(host_, atEnd);
    EXPECT_EQ(Send(peer, {path}), 1);
    const std::vector<std::string> frames = Frames(peer);
    EXPECT_EQ(std::count(frames.begin(), frames.end(), "C ZEOF 3000"), 1);
    EXPECT_TRUE(std::none_of(frames.begin(), frames.end(),
                             [](const std::string &f) { return f.starts_with("C ZDATA"); }));
}

// A receiver that asks for the end position in the data phase (it missed
// what followed the last subpacket) gets the restart frame there too: the
// ZDATA header with its empty ZCRCW subpacket, whose ZACK lets ZEOF follow.
TEST_F(ZmodemSender, ARestartAtTheEndSendsItsEmptySubpacket) {
    const std::string path = Make("end.bin", Pattern(3000));
    for (const std::vector<int32_t> &options : {std::vector<int32_t>{}, {1017}}) {
        host_.ClearWritten();
        ReceiverScript script;
        script.restartFrom = 3000;
        script.restartTo = 3000;
        SimReceiver peer(host_, script);
        EXPECT_EQ(Send(peer, {path}, options), 1);
        const std::vector<std::string> frames = Frames(peer);
        EXPECT_EQ(std::count(frames.begin(), frames.end(), "C ZDATA 3000: k0"), 1);
        EXPECT_EQ(std::count(frames.begin(), frames.end(), "C ZEOF 3000"), 1);
    }
}

TEST_F(ZmodemSender, FailuresEndWithTheRightCodeAndCancelUnlessTheReceiverGaveUp) {
    const Bytes data = Pattern(5000);
    const std::string path = Make("data.bin", data);
    struct Case {
        const char *what;
        ReceiverScript script;
        std::vector<int32_t> options;
        int32_t result;
        bool cancel;
    };
    ReceiverScript naks;
    naks.zfileNaks = 3;
    ReceiverScript zrinit;
    zrinit.abortFrom = 2048;
    ReceiverScript wrongEnd;
    wrongEnd.lastAckDelta = 1;
    const Case cases[] = {
        {"three unexpected answers to ZFILE", naks, {1028, 3}, XferErrTooManyErrors, true},
        {"ZRINIT during the data", zrinit, {}, XferErrRemoteAbort, false},
        {"last ZACK beyond the size", wrongEnd, {}, XferErrProtocol, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host_.ClearWritten();
        SimReceiver peer(host_, c.script);
        EXPECT_EQ(Send(peer, {path}, c.options), c.result);
        for (const std::string &f : Frames(peer)) {
            EXPECT_EQ(f.find("ZEOF"), std::string::npos);
            EXPECT_EQ(f.find("ZFIN"), std::string::npos);
        }
        const Bytes written = host_.Written();
        const Bytes &cancel = test::kCancelBytes;
        const bool cancelled = written.size() >= cancel.size() &&
                               std::equal(cancel.begin(), cancel.end(), written.end() - 20);
        EXPECT_EQ(cancelled, c.cancel);
        if (!c.cancel) {
            EXPECT_TRUE(Noise(peer).empty());
        }
    }
}

// Aborts once a write has been tried after the start was armed.
TestHost *g_abortHost = nullptr;
int g_abortAfterWrites = 0;
int32_t AbortAfterAWrite(XferRecord *) {
    return g_abortHost && g_abortHost->WriteRequests() > g_abortAfterWrites ? XferErrUserAbort : 0;
}

TEST_F(ZmodemSender, UserAbortWhileThePortIsFullStopsBeforeTheNextWrite) {
    const std::string path = Make("data.bin", Pattern(3000));
    const XferAbortFn saved = port_->Hooks->AbortFunction;
    port_->Hooks->AbortFunction = AbortAfterAWrite;
    ReceiverScript script;
    script.onStart = [this] {
        host_.RefuseWrites(2); // the ZFILE header meets a full port
        g_abortAfterWrites = host_.WriteRequests();
        g_abortHost = &host_;
    };
    SimReceiver peer(host_, script);
    EXPECT_EQ(Send(peer, {path}), XferErrUserAbort);
    port_->Hooks->AbortFunction = saved;
    g_abortHost = nullptr;
    EXPECT_EQ(test::CountStatus("Transfer cancelled", 1), 1);
    // The clean-up's cancel string went out; no ZFILE text, no ZFIN.
    EXPECT_TRUE(peer.texts.empty());
    const Bytes written = host_.Written();
    const Bytes &cancel = test::kCancelBytes;
    ASSERT_GE(written.size(), cancel.size());
    EXPECT_TRUE(std::equal(cancel.begin(), cancel.end(), written.end() - 20));
}

TEST_F(ZmodemSender, NamesThatMatchNothingEndTheBatchAsAFileEngineFailure) {
    SimReceiver peer(host_, {});
    EXPECT_EQ(Send(peer, {tree_.Path("missing*.bin")}), XferErrFileEngine);
    EXPECT_EQ(Frames(peer), (std::vector<std::string>{"B ZRQINIT 0"}));
    EXPECT_EQ(Noise(peer), test::kCancelBytes);
}

TEST_F(ZmodemSender, RefusedOptionsEndTheCallBeforeAnythingHappens) {
    const std::string path = Make("data.bin", Pattern(10));
    const std::vector<std::vector<int32_t>> refused = {
        {1002}, {1003}, {1004},      {1008},    {1010}, {1011}, {1012, 500},
        {1013}, {1015}, {1016, 500}, {1024, 1}, {1025}, {1026}, {1017, 1029, 4096, 1008},
        {7},    {-1}};
    for (const auto &options : refused) {
        SCOPED_TRACE(::testing::PrintToString(options));
        std::string names = "\"" + path + "\"";
        std::vector<int32_t> words = options;
        words.push_back(0);
        EXPECT_EQ(ZmodemSendOptions(port_, names.data(), Status, Progress, words),
                  PortInvalidParameter);
    }
    std::string names = "\"" + path + "\"";
    EXPECT_EQ(ZmodemSendWithOptions(port_, names.data(), Status, Progress, 1001, 1015, 0),
              PortInvalidParameter);
    EXPECT_TRUE(host_.Written().empty());
    EXPECT_EQ(host_.ReadRequests(), 0);
    EXPECT_TRUE(StatusLines().empty());
    EXPECT_EQ(g_progressCalls, 0);
}

TEST_F(ZmodemSender, ExportedEntryTakesItsOptionsFromTheArgumentList) {
    const Bytes data = Pattern(3000);
    const std::string path = Make("data.bin", data);
    SimReceiver peer(host_, {});
    std::string names = "\"" + path + "\"";
    EXPECT_EQ(ZmodemSendWithOptions(port_, names.data(), Status, Progress, 1001, 1006, 1007, 3,
                                    1009, 1027, 0, 1028, 5, 1017, 0),
              1);
    peer.Finish();
    EXPECT_EQ(Frames(peer).at(2), DataFrame('C', 0, 'i', 2, 'k', 952));
    EXPECT_EQ(peer.files.at(0), data);
}

} // namespace
} // namespace zvxfer
