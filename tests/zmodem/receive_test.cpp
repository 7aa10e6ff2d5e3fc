// The ZMODEM receiver against a scripted sender: what it answers, what it
// writes to disk, and how it recovers from damage, mismatched positions and
// early ends.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fake_clock.h"
#include "status_log.h"
#include "temp_tree.h"
#include "test_host.h"
#include "zm_wire.h"
#include "zmodem/zmodem.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using test::Bytes;
using test::Cat;
using test::FakeClock;
using test::ScriptedPeer;
using test::Str;
using test::TempTree;
using test::TestHost;
using test::ZHeader;
using test::ZPosHeader;
using test::ZSubpacket;

using test::CollectStatus;
using test::CountStatus;
using test::StatusLines;

const Bytes kRinit = ZHeader(zm::ZRINIT, {0, 0, 0, 0x27}, 'B');

Bytes Rpos(int32_t position) {
    return ZPosHeader(zm::ZRPOS, position, 'B');
}
Bytes Ack(int32_t position) {
    return ZPosHeader(zm::ZACK, position, 'B');
}

Bytes Pattern(std::size_t n) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 13 + 7);
    return data;
}

// The sender's frames.
Bytes ZFile(const std::string &info, uint8_t zf0 = 0, uint8_t zf1 = 0) {
    return Cat(ZHeader(zm::ZFILE, {0, 0, zf1, zf0}, 'C'), ZSubpacket(Str(info), zm::ZCRCW, true));
}
std::string Info(const std::string &name, std::size_t size, const char *octalTime = "13371234567") {
    return name + std::string(1, '\0') + std::to_string(size) + " " + octalTime + " 0";
}
Bytes ZData(int32_t position, const std::vector<std::pair<Bytes, uint8_t>> &subpackets) {
    Bytes out = ZPosHeader(zm::ZDATA, position, 'C');
    for (const auto &[data, end] : subpackets) out = Cat(out, ZSubpacket(data, end, true));
    return out;
}
Bytes ZEof(int32_t position) {
    return ZPosHeader(zm::ZEOF, position, 'C');
}
const Bytes kFin = Cat(ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B'), Str("OO"));

Bytes ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

class ZmodemReceiver : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        Open(XFER_EXISTING_OVERWRITE);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }
    void Open(int32_t policy) {
        if (port_) port_->Ops.PortClose(port_);
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), policy);
        ASSERT_NE(port_, nullptr);
    }
    int32_t Receive() { return ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 0); }
    std::string Path(const std::string &name) { return tree_.Path(name); }

    FakeClock clock_{FakeClock::Scaled{1000}};
    TempTree tree_;
    std::string folder_ = tree_.Folder();
    TestHost host_;
    ScriptedPeer peer_{host_};
    XferPort *port_ = nullptr;
};

TEST_F(ZmodemReceiver, OneFileEndToEndWithItsTimeAndAnswers) {
    const Bytes data = Pattern(2500);
    const Bytes first(data.begin(), data.begin() + 1024),
        second(data.begin() + 1024, data.begin() + 2048), rest(data.begin() + 2048, data.end());
    peer_.On(kRinit, ZFile(Info("../up/a b.bin", data.size())));
    peer_.On(Rpos(0), Cat(ZData(0, {{first, zm::ZCRCG}, {second, zm::ZCRCQ}, {rest, zm::ZCRCW}}),
                          ZEof(2500)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(peer_.Pending(), 0u);
    // ZRINIT first; ZRPOS 0; a ZACK after ZCRCQ and after ZCRCW; ZRINIT; ZFIN.
    EXPECT_EQ(host_.Written(), Cat(kRinit, Rpos(0), Ack(2048), Ack(2500), kRinit,
                                   ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B')));
    EXPECT_EQ(ReadFile(Path("a b.bin")), data); // the folder part of the name is gone
    struct stat st {};
    ASSERT_EQ(stat(Path("a b.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 013371234567);
    EXPECT_EQ(CountStatus("Stripped filename a b.bin"), 1);
}

TEST_F(ZmodemReceiver, NewlineConversionAndUnknownTime) {
    peer_.On(kRinit, ZFile(Info("text.txt", 7, "0"), 2));
    peer_.On(Rpos(0), Cat(ZData(0, {{Str("a\nb\r\nc"), zm::ZCRCE}}), ZEof(6)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(ReadFile(Path("text.txt")), Str("a\r\nb\r\r\nc"));
    struct stat st {};
    ASSERT_EQ(stat(Path("text.txt").c_str(), &st), 0);
    EXPECT_GT(st.st_mtime, 1000000000); // time 0 is unknown: the file keeps its time of writing
}

TEST_F(ZmodemReceiver, MismatchedPositionAndEarlyEofArePassedOver) {
    const Bytes data = Pattern(300);
    peer_.On(kRinit, ZFile(Info("m.bin", 300)));
    // A frame at the wrong place: answered with ZRPOS 0, its data not written.
    peer_.On(Rpos(0), ZData(100, {{Bytes(50, 'X'), zm::ZCRCW}}));
    peer_.On(Rpos(0),
             Cat(ZData(0, {{Bytes(data.begin(), data.begin() + 200), zm::ZCRCE}}),
                 ZEof(100), // short of what arrived: ignored
                 ZData(200, {{Bytes(data.begin() + 200, data.end()), zm::ZCRCE}}), ZEof(300)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(ReadFile(Path("m.bin")), data);
    EXPECT_EQ(CountStatus("ReadFileData: Mismatch in rx_pos"), 1);
    EXPECT_EQ(CountStatus("ZEOF at wrong position"), 1);
}

TEST_F(ZmodemReceiver, DamagedSubpacketIsAskedForAgainFromTheLastGoodByte) {
    const Bytes data = Pattern(2048);
    Bytes damaged = ZSubpacket(Bytes(data.begin() + 1024, data.end()), zm::ZCRCW, true);
    damaged[100] ^= 0x04;
    peer_.On(kRinit, ZFile(Info("d.bin", 2048)));
    peer_.On(Rpos(0), Cat(ZData(0, {{Bytes(data.begin(), data.begin() + 1024), zm::ZCRCG}}),
                          damaged, Str("stale bytes the receiver must discard")));
    peer_.On(Rpos(1024),
             Cat(ZData(1024, {{Bytes(data.begin() + 1024, data.end()), zm::ZCRCW}}), ZEof(2048)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(ReadFile(Path("d.bin")), data);
    EXPECT_EQ(CountStatus("Sending a new file offset!!!"), 1);
}

TEST_F(ZmodemReceiver, ALostPositionIsSaidAgainOnceAfterTenSilentSeconds) {
    // The sender never hears our first ZRPOS; after ten silent seconds the
    // receiver says it again, and the data follow.
    peer_.On(kRinit, ZFile(Info("late.bin", 3)));
    peer_.On(Rpos(0), {});
    peer_.On(Rpos(0), Cat(ZData(0, {{Str("abc"), zm::ZCRCE}}), ZEof(3)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(ReadFile(Path("late.bin")), Str("abc"));
    EXPECT_EQ(CountStatus("No response for 10 seconds", 1), 1);

    // A sender that stays silent after the repeated position too: -619.
    StatusLines().clear();
    host_.ClearWritten();
    ScriptedPeer silent(host_);
    silent.On(kRinit, ZFile(Info("never.bin", 3)));
    EXPECT_EQ(Receive(), XferErrNoFilesSent);
    EXPECT_EQ(CountStatus("No response for 10 seconds", 1), 2);
}

TEST_F(ZmodemReceiver, ExistingFileUnderSkipPolicyIsAnsweredWithZskip) {
    Open(XFER_EXISTING_SKIP);
    tree_.File("old.txt", "keep me");
    peer_.On(kRinit, ZFile(Info("old.txt", 5)));
    peer_.On(ZHeader(zm::ZSKIP, {0, 0, 0, 0}, 'B'), ZFile(Info("new.txt", 3)));
    peer_.On(Rpos(0), Cat(ZData(0, {{Str("new"), zm::ZCRCE}}), ZEof(3)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1); // the skipped file is not counted
    EXPECT_EQ(ReadFile(Path("old.txt")), Str("keep me"));
    EXPECT_EQ(ReadFile(Path("new.txt")), Str("new"));
}

TEST_F(ZmodemReceiver, SilentSenderEndsWith619AndTheCancelString) {
    EXPECT_EQ(Receive(), XferErrNoFilesSent);
    const Bytes written = host_.Written();
    EXPECT_EQ(Bytes(written.begin(), written.begin() + kRinit.size()), kRinit);
    EXPECT_EQ(Bytes(written.end() - 20, written.end()), Cat(Bytes(10, 0x18), Bytes(10, 0x08)));
    EXPECT_EQ(CountStatus("ERROR: Can't open any requested files"), 1);
}

TEST_F(ZmodemReceiver, SenderCancelLeavesWhatArrivedAndSendsNoCancel) {
    peer_.On(kRinit, ZFile(Info("c.bin", 4000)));
    peer_.On(Rpos(0), Cat(ZData(0, {{Pattern(1024), zm::ZCRCG}}), Bytes(8, 0x18)));
    EXPECT_EQ(Receive(), XferErrRemoteAbort);
    EXPECT_EQ(ReadFile(Path("c.bin")), Pattern(1024));
    const Bytes written = host_.Written();
    EXPECT_NE(written.back(), 0x08); // no cancel string back to a sender that cancelled
}

// A host whose abort hook answers with a positive value still ends the
// transfer at once: the value becomes the result, what arrived stays.
int32_t AbortWithSevenOnceAFileIsOpen(XferRecord *record) {
    return record->File != XFER_INVALID_FILE && record->FilePos > 0 ? 7 : 0;
}

TEST_F(ZmodemReceiver, APositiveAbortAnswerEndsTheTransferToo) {
    const XferAbortFn saved = port_->Hooks->AbortFunction;
    port_->Hooks->AbortFunction = AbortWithSevenOnceAFileIsOpen;
    peer_.On(kRinit, ZFile(Info("p.bin", 4000)));
    peer_.On(Rpos(0), ZData(0, {{Pattern(1024), zm::ZCRCG}})); // then the sender falls silent
    const int32_t result = Receive();
    port_->Hooks->AbortFunction = saved;
    EXPECT_EQ(result, 7);
    EXPECT_EQ(ReadFile(Path("p.bin")), Pattern(1024));
    EXPECT_EQ(CountStatus("Transfer cancelled", 1), 1);
}

TEST_F(ZmodemReceiver, StartupFramesZsinitAndRepeatedZrqinit) {
    const Bytes zrqinit = ZHeader(zm::ZRQINIT, {0, 0, 0, 0}, 'B');
    peer_.On(kRinit, zrqinit);
    peer_.On(kRinit, Cat(ZHeader(zm::ZSINIT, {0, 0, 0, 0x40}, 'C'),
                         ZSubpacket(Str("att"), zm::ZCRCW, true)));
    peer_.On(Cat(Ack(0), kRinit), Cat(zrqinit, kFin));
    EXPECT_EQ(Receive(), 0);
    // ZRINIT; the ZRQINIT alone: a pause and ZRINIT again; ZSINIT: ZACK and
    // ZRINIT; a ZRQINIT with the sender's next frame right behind it: the
    // pause, then that frame is read without another ZRINIT; ZFIN answered.
    EXPECT_EQ(host_.Written(),
              Cat(kRinit, kRinit, Ack(0), kRinit, ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B')));
    EXPECT_EQ(CountStatus("GetFileName: good ZSINIT"), 1);
    EXPECT_EQ(CountStatus("GetFileName: frame_type=0"), 2);
}

TEST_F(ZmodemReceiver, OptionsOutsideItsTableAreRefusedBeforeAnything) {
    for (int32_t code : {1008, 1009, 1011, 1017, 1029, 1010, 42}) {
        EXPECT_EQ(ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, code, 0),
                  PortInvalidParameter)
            << code;
    }
    EXPECT_EQ(host_.WriteRequests(), 0);
    EXPECT_TRUE(StatusLines().empty());
    // The accepted ones, values included, reach a transfer (which then times out).
    EXPECT_EQ(ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 1005, 1006, 1007, 3, 1014,
                                       1027, 0, 1028, 2, 0),
              XferErrNoFilesSent);
}

} // namespace
} // namespace zvxfer
