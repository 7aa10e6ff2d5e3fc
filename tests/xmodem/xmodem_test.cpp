// XMODEM and YMODEM: the block codec against a bit-by-bit reference, every
// verdict of the block reader, the receiver whatever the split of its input
// and the sender agreeing with the codec; exchanges with a scripted peer
// (its bytes queued in a test host up front, everything our side writes
// compared byte for byte; on a sleepless clock the waits pass at once and
// the time-outs are met to the millisecond); every variant against itself
// over the link simulator, clean and noisy.
#include <algorithm>
#include <climits>
#include <fstream>
#include <gtest/gtest.h>
#include <tuple>

#include "core/crc16.h"
#include "core/file_facts.h"
#include "fake_clock.h"
#include "garbage_feed.h"
#include "link_files.h"
#include "link_pair.h"
#include "status_log.h"
#include "system_files.h"
#include "temp_tree.h"
#include "test_host.h"
#include "turns.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

using Bytes = std::vector<uint8_t>;
using test::StatusLines;
using V = std::vector<uint32_t>; // values taken in order, checked at once

Bytes Pattern(std::size_t n, uint8_t seed = 1) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A block as a peer puts it on the line: data padded with zeros, then the
// CRC-16 (high byte first) or the checksum.
Bytes Block(uint8_t number, Bytes data, bool crc = true, std::size_t size = 128) {
    data.resize(size, 0);
    Bytes out(kMaxBlockWire);
    out.resize(XmBuildBlock(out, number, data, crc));
    return out;
}

// Block 0: name, NUL, size, octal time.
Bytes Block0(const std::string &text) {
    return Block(0, Bytes(text.begin(), text.end()));
}

Bytes ReadFile(const std::string &path) {
    const test::FileBytes bytes = test::ReadFileBytes(path);
    return Bytes(bytes.begin(), bytes.end());
}

void WriteFile(const std::string &path, const Bytes &data, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    if (mtime != 0) test::SetModTime(path, mtime);
}

// CRC-16/XMODEM one bit at a time, without the table the library uses.
uint16_t ReferenceCrc(const Bytes &data) {
    uint32_t crc = 0;
    for (uint8_t b : data) {
        crc ^= static_cast<uint32_t>(b) << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
        crc &= 0xFFFF;
    }
    return static_cast<uint16_t>(crc);
}

struct Shape {
    std::size_t size;
    bool crc;
};
constexpr Shape kShapes[] = {{128, true}, {128, false}, {1024, true}, {1024, false}};

// SOH/STX by length, number and complement, the data unchanged, then the
// CRC high byte first or the sum modulo 256; and the reader takes it back.
TEST(XmodemBlockCodec, BuiltBlocksHaveTheLineLayoutAndReadBack) {
    for (const Shape &s : kShapes)
        for (uint8_t number : {0, 1, 0x7F, 0xFF}) {
            SCOPED_TRACE(testing::Message() << s.size << (s.crc ? " crc " : " sum ") << +number);
            const Bytes data = Pattern(s.size, number);
            Bytes expected = {s.size == 128 ? SOH : STX, number,
                              static_cast<uint8_t>(255 - number)};
            expected.insert(expected.end(), data.begin(), data.end());
            if (s.crc) {
                const uint16_t c = ReferenceCrc(data);
                expected.insert(expected.end(), {static_cast<uint8_t>(c >> 8), uint8_t(c)});
            } else {
                uint32_t sum = 0;
                for (uint8_t b : data) sum += b;
                expected.push_back(static_cast<uint8_t>(sum));
            }
            const Bytes block = Block(number, data, s.crc, s.size);
            ASSERT_EQ(block, expected);

            Bytes followed = block; // what comes behind a block is not part of it
            followed.insert(followed.end(), {EOT, SOH});
            const XmParsedBlock back = XmParseBlock(followed, s.crc);
            EXPECT_EQ(back.verdict, XmBlockVerdict::Good);
            EXPECT_EQ(back.number, number);
            EXPECT_EQ(back.length, block.size());
            EXPECT_EQ(Bytes(back.data.begin(), back.data.end()), data);
        }
}

// What the reader says of bytes that are not a good block, in the order the
// receiver judges them: the header, the number, then the check.
TEST(XmodemBlockCodec, DamagedAndShortBlocksGetTheReceiversVerdicts) {
    const Bytes good = Block(3, Pattern(128, 9));
    auto damaged = [&](std::size_t at, uint8_t mask) {
        Bytes b = good;
        b[at] ^= mask;
        return b;
    };
    const struct {
        const char *what;
        Bytes bytes;
        bool crc;
        XmBlockVerdict verdict;
    } cases[] = {
        {"nothing", {}, true, XmBlockVerdict::NotBlock},
        {"start request", {'C', 1, 0xFE}, true, XmBlockVerdict::NotBlock},
        {"EOT", {EOT}, true, XmBlockVerdict::NotBlock},
        {"header only", {STX}, true, XmBlockVerdict::Incomplete},
        {"complement", damaged(2, 0x01), true, XmBlockVerdict::BadNumber},
        {"number", damaged(1, 0x80), true, XmBlockVerdict::BadNumber},
        {"bad number, data missing", {SOH, 1, 1}, true, XmBlockVerdict::BadNumber},
        {"first data byte", damaged(3, 0x01), true, XmBlockVerdict::BadCheck},
        {"last data byte", damaged(130, 0x80), true, XmBlockVerdict::BadCheck},
        {"CRC high byte", damaged(131, 0x10), true, XmBlockVerdict::BadCheck},
        {"CRC low byte", damaged(132, 0x01), true, XmBlockVerdict::BadCheck},
        {"CRC block read as checksum", good, false, XmBlockVerdict::BadCheck},
        {"checksum block read as CRC", Block(3, Pattern(128, 9), false), true,
         XmBlockVerdict::Incomplete},
    };
    for (const auto &c : cases)
        EXPECT_EQ(XmParseBlock(c.bytes, c.crc).verdict, c.verdict) << c.what;
    for (std::size_t cut = 1; cut < good.size(); ++cut)
        ASSERT_EQ(XmParseBlock({good.data(), cut}, true).verdict, XmBlockVerdict::Incomplete)
            << cut;
}

class XmodemBlockLine : public ::testing::Test {
  protected:
    XmodemBlockLine() {
        r_.Port = port_;
        r_.Buffer = buffer_.data();
        r_.File = XFER_INVALID_FILE;
        r_.FileTime = -1;
    }
    ~XmodemBlockLine() override { port_->Ops.PortClose(port_); }

    test::FakeClock clock_{test::FakeClock::kSleepless}; // no time-out between the parts
    test::TestHost host_;
    XferPort *port_ = PortOpen(0, host_.Window(), "", XFER_EXISTING_OVERWRITE);
    Bytes buffer_ = Bytes(1024);
    XferRecord r_{};
};

// A block followed by EOT, handed over in two reads split at every
// position, reads as when it arrives whole: the block's number, data and
// check, then the end of the file, and no answer from this level.
TEST_F(XmodemBlockLine, ReceiverReadsTheSameWhateverTheSplit) {
    for (const Shape &s : {kShapes[0], kShapes[3]}) {
        const Bytes data = Pattern(s.size, 5);
        Bytes line = Block(1, data, s.crc, s.size);
        const XmParsedBlock parsed = XmParseBlock(line, s.crc);
        ASSERT_EQ(parsed.verdict, XmBlockVerdict::Good);
        line.push_back(EOT);
        for (std::size_t split = 1; split < line.size(); ++split) {
            SCOPED_TRACE(testing::Message() << s.size << " split at " << split);
            host_.Receive(std::span(line).first(split));
            const Bytes rest(line.begin() + static_cast<long>(split), line.end());
            host_.OnRequest([&rest](test::TestHost &h, uintptr_t request) {
                if (request == PORT_READ && h.Unread() == 0 && !rest.empty()) {
                    h.Receive(rest);
                    h.OnRequest(nullptr);
                }
            });
            r_.Protocol = Xmodem;
            r_.BlockNumber = 1;
            r_.ErrorRun = r_.ErrorTotal = 0;
            r_.ProtocolHook = -1;
            XmSetCrcMode(&r_, s.crc);
            ASSERT_EQ(XmReceiveBlock(&r_), 1);
            EXPECT_EQ(r_.ProtocolHook, s.size == 128 ? SOH : STX);
            EXPECT_EQ(r_.RxSeq, parsed.number);
            EXPECT_EQ(r_.BlockSize, static_cast<int32_t>(s.size));
            EXPECT_EQ(Bytes(buffer_.begin(), buffer_.begin() + r_.BlockSize), data);
            EXPECT_EQ(r_.BlockNumber, 2);
            ASSERT_EQ(XmReceiveBlock(&r_), 1);
            EXPECT_EQ(r_.ProtocolHook, EOT);
            EXPECT_EQ(r_.ErrorTotal, 0);
            EXPECT_EQ(r_.Result, 0);
            EXPECT_TRUE(host_.Written().empty());
            host_.OnRequest(nullptr);
        }
    }
}

// The sender puts exactly the built block on the line: the three header
// bytes one by one, the data in one write, the check byte by byte.
TEST_F(XmodemBlockLine, SenderWritesTheBuiltBlock) {
    for (const Shape &s : kShapes) {
        SCOPED_TRACE(testing::Message() << s.size << (s.crc ? " crc" : " sum"));
        const Bytes data = Pattern(s.size, 77);
        std::copy(data.begin(), data.end(), buffer_.begin());
        r_.Protocol = Xmodem1K;
        r_.BlockNumber = 0x1FF + 1; // the counter is past the block going out
        r_.RxSeq = 0xFF;
        r_.BlockSize = static_cast<int32_t>(s.size);
        XmSetCrcMode(&r_, s.crc);
        host_.ClearWritten();
        const int writesBefore = host_.WriteRequests();
        ASSERT_EQ(XmSendBlock(&r_), 1);
        EXPECT_EQ(host_.Written(), Block(0xFF, data, s.crc, s.size));
        EXPECT_EQ(host_.WriteRequests() - writesBefore, 3 + 1 + (s.crc ? 2 : 1));
    }
}

TEST(XmodemCodec, Crc16AndChecksum) {
    EXPECT_EQ(Crc16Block(9, 0, reinterpret_cast<const uint8_t *>("123456789")), 0x31C3);
    EXPECT_EQ(XmChecksum(Bytes{'a', 'b', 'c'}), 0x26);
    EXPECT_EQ(Crc16Block(3, 0, reinterpret_cast<const uint8_t *>("abc")), 0x9DD6);
    // The block routine takes eight bytes per step: every length, alignment
    // and starting value must give what the byte-wise update gives.
    const Bytes data = Pattern(1100, 3);
    for (uint32_t offset : {0u, 1u, 7u})
        for (uint32_t length = 0; length <= 1029; length += (length < 40 ? 1 : 97))
            for (uint16_t start : {0, 0xFFFF, 0x1D0F}) {
                uint16_t slow = start;
                for (uint32_t i = 0; i < length; ++i) slow = Crc16Update(slow, data[offset + i]);
                ASSERT_EQ(Crc16Block(length, start, data.data() + offset), slow)
                    << "length " << length << " offset " << offset << " start " << start;
            }
}

// Block 0's size and time ('|' stands for the NUL after the name): unknown
// (size 0, time -1) where nothing is said, where no NUL ends the name, or
// where they do not fit in 31 bits (or are no numbers), never cut down to
// their low bits; the size says whether it was a number too large.
TEST(FileFacts, SizesAndTimesThatAreMissingOrDoNotFitAreUnknown) {
    const struct {
        std::string text;
        int32_t size, time;
        bool tooLarge;
    } cases[] = {
        {"n|2147483647 17777777777", INT32_MAX, INT32_MAX, false},
        {"n|4294967396 13727410000", 0, 013727410000, true}, // 2^32 + 100
        {"n|2147483648 20000000000", 0, -1, true},
        {"n|99999999999999999999999999999999 1", 0, 1, true},
        {"n|-100 -5", 0, -1, false},
        {"n|1e3 0x10", 0, -1, false},
        {"n|100abc 12345678", 0, -1, false}, // 8 is no octal digit
        {"n|+5 7", 0, 7, false},
        {"n|  42   777  0", 42, 0777, false},
        {"a|42", 42, -1, false},
        {"a|7 0 0", 7, 0, false},
        {std::string(128, 'n') + "|5 7", 0, -1, false},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        text.resize(128);
        std::replace(text.begin(), text.end(), '|', '\0');
        const FileFacts f = ParseFileFacts({reinterpret_cast<uint8_t *>(text.data()), 128});
        EXPECT_EQ(std::tuple(f.size, f.modTime, f.sizeTooLarge),
                  std::tuple(c.size, c.time, c.tooLarge))
            << c.text;
    }
}

// The announcing text in YMODEM's 128-byte block 0 and in ZMODEM's ZFILE
// subpacket (room for 1023 bytes): written whole when it fits, cut at the
// room otherwise, and the room's rest cleared whatever it held.
TEST(FileFacts, TextIsCutAtItsRoomAndTheRestCleared) {
    const std::string facts = std::string("report.txt") + '\0' + "1000 13727410000 0";
    const std::string longName(1030, 'n');
    const struct {
        std::size_t room;
        std::string name;
        int32_t size, time;
        std::string text;
    } cases[] = {
        {128, "report.txt", 1000, 1600000000, facts},
        {1023, "report.txt", 1000, 1600000000, facts},
        {128, "e", 0, 0, std::string("e") + '\0' + "0 0 0"},
        {20, "report.txt", 1000, 1600000000, facts.substr(0, 20)},
        {128, std::string(127, 'n'), 5, 7, std::string(127, 'n') + '\0'},
        {128, longName, 5, 7, longName.substr(0, 128)},
        {1023, longName, 5, 7, longName.substr(0, 1023)},
    };
    for (const auto &c : cases) {
        Bytes room(c.room, 0xA5);
        const uint32_t used = FormatFileFacts(room, c.name.c_str(), c.size, c.time);
        EXPECT_EQ(std::string(room.begin(), room.begin() + used), c.text) << c.room;
        EXPECT_EQ(std::count(room.begin() + used, room.end(), 0), c.room - used) << c.room;
    }
}

class Scripted : public ::testing::Test {
  protected:
    void SetUp() override {
        host_.UseClock([this] { return clock_.Now(); });
        Open(tree_.Folder());
    }
    void TearDown() override { port_->Ops.PortClose(port_); }
    void Open(const std::string &folder) {
        if (port_) port_->Ops.PortClose(port_);
        folder_ = folder;
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }

    // A peer that answers with `bytes` `delayMs` after our side has written
    // `afterBytes` bytes in all, one step after the other.
    struct Step {
        std::size_t afterBytes;
        uint32_t delayMs;
        Bytes bytes;
    };
    void Script(std::vector<Step> steps) {
        steps_ = std::move(steps);
        next_ = 0;
        host_.OnRequest([this](test::TestHost &h, uintptr_t request) {
            const std::vector<uint32_t> times = h.WriteTimes();
            for (; request == PORT_READ && next_ < steps_.size(); ++next_) {
                const Step &step = steps_[next_];
                if (times.size() < step.afterBytes) return;
                const uint32_t from = step.afterBytes == 0 ? h.Now() : times[step.afterBytes - 1];
                h.ReceiveAt(from + step.delayMs, step.bytes);
            }
        });
    }
    std::vector<Step> steps_;
    std::size_t next_ = 0;

    test::FakeClock clock_{test::FakeClock::kSleepless};
    test::TempTree tree_;
    std::string folder_;
    test::TestHost host_;
    XferPort *port_ = nullptr;
};

using Entry = int32_t (*)(XferPort *, char *, XferStatusFn, XferProgressFn, ...);

XferFile OpenUnwritable(XferRecord *, const char *, const char *) {
    return test::OpenNullDevice(false);
}

// Both directions against a scripted peer: the start character by option
// (C, NAK, G), damage and repeats, the fall-back from CRC to checksum, CAN
// CAN, a file that cannot be written, blocks by size, EOT repeated ten times,
// an empty file or an unknown option refused; each run's wire bytes and
// result, and the file sent (unchanged) or received.
TEST_F(Scripted, XmodemExchanges) {
    const Bytes data = Pattern(200), one = Pattern(128), two = Pattern(128, 9), k = Pattern(1000);
    const Bytes crcBlocks = Cat({Block(1, data), Block(2, Bytes(data.begin() + 128, data.end()))});
    Bytes damaged = Block(1, one);
    damaged[50] ^= 0x01;
    const Entry rx = XmodemReceiveWithOptions, tx = XmodemSendWithOptions;
    auto check = [&](const char *what, Entry entry, int32_t option, int32_t value,
                     const Bytes &file, const Bytes &peer, const Bytes &written, int32_t result) {
        SCOPED_TRACE(what);
        const bool send = entry == tx || entry == Xmodem1KSendWithOptions;
        std::string name = tree_.Path("x.bin"), names = "\"" + name + "\"";
        std::filesystem::remove(name);
        if (send) WriteFile(name, file);
        host_.ClearWritten();
        StatusLines().clear();
        host_.Receive(peer);
        EXPECT_EQ(entry(port_, (send ? names : name).data(), test::CollectStatus, nullptr, option,
                        value, 0),
                  result);
        EXPECT_EQ(host_.Written(), written);
        EXPECT_EQ(ReadFile(name), file);
    };
    check("rx crc", rx, 0, 0, Cat({data, Bytes(56, 0)}), Cat({crcBlocks, {EOT}}),
          {'C', ACK, ACK, ACK}, 1); // XMODEM carries no size
    check("rx checksum", rx, XferOptChecksum, 0, one, Cat({Block(1, one, false), {EOT}}),
          {NAK, ACK, ACK}, 1);
    check("rx 1k-g", Xmodem1KReceiveWithOptions, XferOptStreaming, 0,
          Cat({Pattern(1024), one, Bytes(896, 0)}),
          Cat({Block(1, Pattern(1024), true, 1024), Block(2, one, true, 1024), {EOT}}), {'G', ACK},
          1);
    // A damaged first block gets the start request again; a repeat is
    // acknowledged and dropped.
    check("rx damage", rx, 0, 0, Cat({one, two}),
          Cat({damaged, Block(1, one), Block(1, one), Block(2, two), {EOT}}),
          {'C', 'C', ACK, ACK, ACK, ACK}, 1);
    // From the third unanswered request on it asks for checksum blocks.
    check("rx silence", rx, 0, 0, {}, {}, Cat({{'C', 'C', 'C'}, Bytes(8, NAK), test::kCancelBytes}),
          XferErrPacketTimeout);
    // The first CAN is answered, the second ends the transfer; blocks stay.
    check("rx can can", rx, 0, 0, Cat({one, two}), Cat({Block(1, one), Block(2, two), {CAN, CAN}}),
          Cat({{'C', ACK, ACK, NAK}, test::kCancelBytes}), XferErrRemoteAbort);
    check("tx crc", tx, 0, 0, data, {'C', ACK, ACK, ACK}, Cat({crcBlocks, {EOT}}), 1);
    // XMODEM-1K: 1024-byte blocks while more than 896 bytes remain, then 128.
    const Bytes tail = Pattern(1920);
    Bytes blocks = Block(1, Bytes(tail.begin(), tail.begin() + 1024), true, 1024);
    for (uint8_t n = 2; n <= 8; ++n)
        blocks = Cat({blocks, Block(n, Bytes(tail.begin() + 1024 + (n - 2) * 128,
                                             tail.begin() + 1024 + (n - 1) * 128))});
    check("tx 1k tail", Xmodem1KSendWithOptions, 0, 0, tail, Cat({{'C'}, Bytes(9, ACK)}),
          Cat({blocks, {EOT}}), 1);
    check("tx eot unanswered", tx, XferOptSendTimeout, 2000, {'a', 'b', 'c'}, {'C', ACK},
          Cat({Block(1, {'a', 'b', 'c'}), Bytes(10, EOT), test::kCancelBytes}),
          XferErrTooManyErrors);
    check("tx empty", tx, 0, 0, {}, {'C'}, test::kCancelBytes, XferErrFileIo);
    check("tx unknown option", tx, XferOptSubfolders, 0, {}, {}, {}, PortInvalidParameter);
    EXPECT_TRUE(StatusLines().empty()) << "refused before anything happened";
    // Last, as the hook stays until the port closes.
    // A failed write comes to light before the EOT is answered: the sender
    // gets the cancel string instead of an ACK.
    SetXferFileOpenFunctionPtr(OpenUnwritable);
    check("rx unwritable", rx, 0, 0, {}, Cat({Block(1, one), Block(2, two), {EOT}}),
          Cat({{'C', ACK, ACK}, test::kCancelBytes}), XferErrFileIo);
    SetXferFileOpenFunctionPtr(nullptr);
}

// The receiver's header waits to the millisecond: 5 s for the first block
// (then the start request again), 10 s for each one after (then a NAK).  A
// block that comes as the wait ends is in time (a wait looks at the line
// before the clock); a millisecond later the request went out exactly at
// the limit.  The sender gives up after ten unanswered waits for the start,
// each as long as its reply time-out (15 s unless an option says).
TEST_F(Scripted, HeaderWaitsEndExactlyAtTheirLimits) {
    const Bytes one = Pattern(128), two = Pattern(128, 9);
    std::string name = tree_.Path("t.bin");
    struct Case {
        uint32_t first, second; // delays: block 1 after our 'C', block 2 after our ACK
        Bytes written;
    } const cases[] = {
        {5000, 10000, {'C', ACK, ACK, ACK}},
        {5001, 10001, {'C', 'C', ACK, NAK, ACK, ACK}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.first);
        host_.ClearWritten();
        const auto acked = static_cast<std::size_t>( // bytes up to our first ACK
            std::find(c.written.begin(), c.written.end(), ACK) - c.written.begin() + 1);
        Script({{1, c.first, Block(1, one)}, {acked, c.second, Cat({Block(2, two), {EOT}})}});
        EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), nullptr, nullptr, 0), 1);
        EXPECT_EQ(host_.Written(), c.written);
        EXPECT_EQ(ReadFile(name), Cat({one, two}));
        if (c.first == 5000) continue;
        const uint32_t ack = host_.WrittenAt(std::string(1, ACK));
        EXPECT_EQ(V({host_.WrittenAt("C", 1) - host_.WrittenAt("C"),
                     host_.WrittenAt(std::string(1, NAK)) - ack}),
                  V({5000, 10000}));
    }
    host_.OnRequest(nullptr);

    WriteFile(name, one);
    std::string names = "\"" + name + "\"";
    for (const int32_t replyMs : {0, 2000}) {
        SCOPED_TRACE(replyMs);
        host_.ClearWritten();
        const uint32_t start = clock_.Now();
        EXPECT_EQ(XmodemSendWithOptions(port_, names.data(), nullptr, nullptr,
                                        replyMs ? XferOptSendTimeout : XferOptEnd, replyMs, 0),
                  XferErrPacketTimeout);
        EXPECT_EQ(host_.Written(), test::kCancelBytes);
        EXPECT_EQ(host_.WrittenAt("\x18") - start, 10u * (replyMs ? replyMs : 15000));
    }
}

// One batch both ways: block 0 before the file, an empty one at the end;
// the receiver drops the path, cuts to the size and sets the time.
TEST_F(Scripted, YmodemBatchBothWays) {
    const Bytes data = Pattern(1000), answers = {'C', ACK, 'C', ACK, ACK, 'C', ACK};
    const std::string facts = std::string("report.txt") + '\0' + "1000 13727410000 0";
    auto batch = [&](const std::string &name) {
        return Cat({Block0(name + facts), Block(1, data, true, 1024), {EOT}, Block0("")});
    };
    WriteFile(tree_.Path("report.txt"), data, 1600000000);
    host_.Receive(answers);
    std::string names = "\"" + tree_.Path("report.txt") + "\"";
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), batch(""));

    // A folder without its '/' is a prefix of the names.
    Open(tree_.Dir("in"));
    host_.ClearWritten();
    host_.Receive(batch("dir\\sub/"));
    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), answers);
    EXPECT_EQ(ReadFile(tree_.Path("inreport.txt")), data) << "cut to the announced size";
    int64_t time = 0;
    ASSERT_TRUE(test::ModTime(tree_.Path("inreport.txt"), time));
    EXPECT_EQ(time, 1600000000);
}

constexpr struct Variant {
    const char *name;
    int32_t protocol;
    bool streaming;
} kVariants[] = {
    {"xmodem", Xmodem, false}, {"xmodem-1k", Xmodem1K, false}, {"xmodem-1k-g", Xmodem1K, true},
    {"ymodem", Ymodem, false}, {"ymodem-g", Ymodem, true},
};

// One file from end A to end B; `ok` tells whether B holds the exact file
// (XMODEM: plus zero padding; YMODEM: with the sender's time).
host::LinkResult Transfer(const Variant &v, host::LinkConfig config, const Bytes &data, bool &ok) {
    test::TempTree tree;
    const std::string source = tree.Path("source.bin"), target = tree.Dir("in") + "/source.bin";
    WriteFile(source, data, 1500000000);
    config.b.receiveFolder = tree.Path("in/");
    int32_t words[] = {v.streaming ? XferOptStreaming : XferOptEnd, XferOptEnd};
    std::string names = "\"" + source + "\"", name = target;
    auto o = [&] { return CLSetFileTransferOptions(words); }; // each end takes its own
    test::Turns turns(config);
    const host::LinkResult result = turns.Run(
        [&](XferPort *p) { return CLFileSend(p, v.protocol, names.data(), 0, 0, o(), 0, 0); },
        [&](XferPort *p) { return CLFileReceive(p, v.protocol, name.data(), 0, o(), 0, 0); });
    Bytes copy = ReadFile(target);
    int64_t time = 0;
    if (v.protocol == Ymodem)
        ok = copy == data && test::ModTime(target, time) && time == 1500000000;
    else
        ok = copy.size() >= data.size() && copy.size() < data.size() + 1024 &&
             copy == Cat({data, Bytes(copy.size() - data.size(), 0)});
    return result;
}

// On a clean line every variant delivers the exact file.  At a bit-error
// rate of 1e-5 with dropped bytes a run may fail, but only with a defined
// code and within its limits; a reported success always comes with the
// exact file.  The ends run in turns on a simulated clock, so each seed's
// run is the same every time and the number of complete runs is exact
// (streaming may give up at the first error): a change in it is a change
// in behaviour.
TEST(XmodemLinkPair, CleanAndNoisyLines) {
    host::LinkConfig config;
    config.deadlineMs = 120000;
    for (const Variant &v : kVariants) {
        for (std::size_t size : {1u, 896u, 897u, 70000u}) {
            SCOPED_TRACE(std::string(v.name) + " " + std::to_string(size));
            bool ok = false;
            const host::LinkResult r = Transfer(v, config, Pattern(size, 5), ok);
            EXPECT_TRUE(!r.timedOut && r.a == 1 && r.b == 1 && ok);
        }
    }
    config.aToB.bitErrorRate = config.bToA.bitErrorRate = 1e-5;
    config.aToB.dropRate = config.bToA.dropRate = 2e-6;
    int completed = 0;
    for (const Variant &v : kVariants) {
        for (config.seed = 1; config.seed <= 3; ++config.seed) {
            SCOPED_TRACE(std::string(v.name) + " seed " + std::to_string(config.seed));
            bool ok = false;
            const host::LinkResult r = Transfer(v, config, Pattern(200000, 3), ok);
            ASSERT_FALSE(r.timedOut);
            EXPECT_TRUE(r.b >= 1 ? ok : test::DefinedFailure(r.b)) << r.b;
            EXPECT_TRUE(r.a >= 0 || test::DefinedFailure(r.a)) << r.a;
            completed += r.b >= 1;
        }
    }
    EXPECT_EQ(completed, 9) << completed << " of 15 completed";
}

// Against a far end that sends nothing but garbage, or a block that trickles
// in a byte a second, and positions that 32 bits cannot carry; a clock that
// moves on every tick read lets minutes of such a line pass in a few seconds.
using HostileLine = test::SteppedPort;
using test::EndsWithCancel;
using test::GarbageFeed;

// Every receiver gives up within a minute of endless garbage, whatever its
// rate, with a defined code and the cancel string.  EOT and CAN stay out of
// the garbage: they are valid answers (end of file, cancel) on their own.
TEST_F(HostileLine, ReceiversGiveUpWithinAMinuteOfGarbage) {
    struct Case {
        const char *what;
        bool ymodem;
        int32_t option;
        GarbageFeed::Rate rate;
        Bytes prefix;
    };
    const Case cases[] = {
        {"xmodem flood", false, 0, GarbageFeed::Flood, {}},
        {"xmodem a byte a second", false, 0, GarbageFeed::OnePerSecond, {}},
        {"xmodem-1k a block that trickles in", false, 0, GarbageFeed::OnePerSecond, {2, 1, 0xFE}},
        {"ymodem flood", true, 0, GarbageFeed::Flood, {}},
        {"ymodem a byte a second", true, 0, GarbageFeed::OnePerSecond, {}},
        {"ymodem-g a block 0 that trickles in",
         true,
         XferOptStreaming,
         GarbageFeed::OnePerSecond,
         {1, 0, 0xFF}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host.ClearWritten();
        GarbageFeed feed(host, clock, c.rate, {0x04, 0x18}, c.prefix);
        std::string name = tree.Path("rx.bin");
        const int32_t result =
            c.ymodem ? YmodemReceiveWithOptions(port, nullptr, nullptr, c.option, 0)
                     : Xmodem1KReceiveWithOptions(port, name.data(), nullptr, nullptr, 0);
        const uint32_t took = clock.Now() - feed.Started();
        EXPECT_TRUE(result == XferErrPacketTimeout || result == XferErrTooManyErrors) << result;
        EXPECT_LE(took, 60000u);
        EXPECT_GT(feed.Sent(), c.rate == GarbageFeed::Flood ? 1000u : 10u) << "garbage all along";
        EXPECT_EQ(EndsWithCancel(host.Written()), c.option == 0);
    }
}

// A receiver whose position would pass 2^31 - 1 ends with -607 before it
// writes the block that would take it there; what arrived stays.
TEST_F(HostileLine, ReceiverStopsBeforeItsPositionPassesTheLimit) {
    XferRecord r{};
    r.Port = port;
    r.Protocol = Xmodem;
    r.File = XFER_INVALID_FILE;
    r.FileTime = -1;
    r.ProtocolFlag = 1; // CRC
    std::string name = tree.Path("near.bin");
    r.FileName = name.data();
    // The block the receiver will take next, and the position it has reached.
    const Bytes data(128, 'd');
    uint8_t block[kMaxBlockWire];
    host.Receive(std::span(block, XmBuildBlock(block, 1, data, true)));
    // The position starts where the file open leaves it (0): the abort hook,
    // called before the first block, moves it near the limit.
    static int32_t start;
    start = INT32_MAX - 100;
    port->Hooks->AbortFunction = [](XferRecord *rec) -> int32_t {
        if (rec->FilePos == 0 && rec->BlockNumber == 1) rec->FilePos = start;
        return 0;
    };
    XmReceiveFile(&r);
    port->Hooks->AbortFunction = nullptr;
    EXPECT_EQ(r.Result, XferErrFileIo);
    EXPECT_EQ(r.FilePos, start) << "nothing counted past the limit";
    std::ifstream in(name, std::ios::binary | std::ios::ate);
    EXPECT_EQ(static_cast<long>(in.tellg()), 0L) << "the block that would pass it is not written";
    EXPECT_TRUE(EndsWithCancel(host.Written()));
}

} // namespace
} // namespace zvxfer::xm
