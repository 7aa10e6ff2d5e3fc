// XMODEM and YMODEM: the block codecs; exchanges with a scripted peer, whose
// bytes are queued in a test host up front while everything our side writes
// is compared byte for byte (a scaled clock lets the waits pass quickly);
// every variant against itself over the link simulator, clean and noisy.
#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fake_clock.h"
#include "link_files.h"
#include "link_pair.h"
#include "status_log.h"
#include "temp_tree.h"
#include "test_host.h"
#include "xmodem/xmodem.h"

namespace zvxfer {
namespace {

using Bytes = std::vector<uint8_t>;
using test::StatusLines;
using test::TestHost;
constexpr uint8_t ACK = 0x06, NAK = 0x15, EOT = 0x04, CAN = 0x18;
constexpr auto Status = &test::CollectStatus;

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
    Bytes out = Cat(
        {{static_cast<uint8_t>(size == 128 ? 1 : 2), number, static_cast<uint8_t>(~number)}, data});
    const uint16_t c = Crc16Block(static_cast<uint32_t>(size), 0, data.data());
    if (crc) return Cat({out, {static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c)}});
    return Cat({out, {XmChecksum(data)}});
}

Bytes Block0(const std::string &text) {
    return Block(0, Bytes(text.begin(), text.end()));
}

Bytes Part(const Bytes &data, std::size_t from, std::size_t to) {
    return Bytes(data.begin() + static_cast<long>(from), data.begin() + static_cast<long>(to));
}

Bytes ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string &path, const Bytes &data, time_t mtime = 0) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    const struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    if (mtime != 0) utimensat(AT_FDCWD, path.c_str(), times, 0);
}

TEST(XmodemCodec, Crc16AndChecksum) {
    const auto *digits = reinterpret_cast<const uint8_t *>("123456789");
    EXPECT_EQ(Crc16Block(9, 0, digits), 0x31C3);
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
    EXPECT_EQ(XmChecksum(Bytes{'a', 'b', 'c'}), 0x26);
}

TEST(XmodemCodec, Block0FormatAndParse) {
    uint8_t block[128];
    const std::string expected = std::string("report.txt") + '\0' + "1000 13727410000 0";
    ASSERT_EQ(YmFormatBlock0(block, "report.txt", 1000, 1600000000), expected.size());
    Bytes padded(expected.begin(), expected.end());
    padded.resize(128, 0);
    EXPECT_EQ(Bytes(block, block + 128), padded);
    Block0Facts f = YmParseBlock0(block);
    EXPECT_EQ(f.size, 1000);
    EXPECT_EQ(f.modTime, 1600000000);
    // A name too long for the block is cut and leaves no size or time.
    EXPECT_EQ(YmFormatBlock0(block, std::string(140, 'n').c_str(), 5, 7), 128u);
    f = YmParseBlock0(block);
    EXPECT_EQ(f.size, 0);
    EXPECT_EQ(f.modTime, -1);
    // Missing tokens ('|' stands for the NUL after the name).
    auto parse = [](std::string text) {
        uint8_t b[128] = {};
        std::replace(text.begin(), text.end(), '|', '\0');
        std::copy(text.begin(), text.end(), b);
        const Block0Facts f = YmParseBlock0(b);
        return std::pair(f.size, f.modTime);
    };
    EXPECT_EQ(parse("a|42"), std::pair(42, -1));
    EXPECT_EQ(parse("a|"), std::pair(0, -1));
    EXPECT_EQ(parse("a|7 0 0"), std::pair(7, 0));
}

class Scripted : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        Open(tree_.Folder());
    }
    void TearDown() override { port_->Ops.PortClose(port_); }
    void Open(const std::string &folder) {
        if (port_) port_->Ops.PortClose(port_);
        folder_ = folder;
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    std::string Names(const std::string &file) { return "\"" + tree_.Path(file) + "\""; }

    test::FakeClock clock_{test::FakeClock::Scaled{1000}};
    test::TempTree tree_;
    std::string folder_;
    TestHost host_;
    XferPort *port_ = nullptr;
};

using Entry = int32_t (*)(XferPort *, char *, XferStatusFn, XferProgressFn, ...);

// Start character by option (C, NAK, G), damage and repeats, the fall-back
// from CRC to checksum, CAN CAN; each run's wire bytes, result and file.
TEST_F(Scripted, XmodemReceiverExchanges) {
    const Bytes data = Pattern(200), one = Pattern(128), two = Pattern(128, 9);
    Bytes damaged = Block(1, one);
    damaged[50] ^= 0x01;
    const Bytes padded = Cat({data, Bytes(56, 0)}); // XMODEM carries no size
    auto check = [&](const char *what, Entry entry, int32_t option, const Bytes &peer,
                     const Bytes &written, int32_t result, const Bytes &file) {
        SCOPED_TRACE(what);
        host_.ClearWritten();
        std::filesystem::remove(tree_.Path("in.bin"));
        host_.Receive(peer);
        std::string name = tree_.Path("in.bin");
        EXPECT_EQ(entry(port_, name.data(), Status, nullptr, option, 0), result);
        EXPECT_EQ(host_.Written(), written);
        if (!file.empty()) {
            EXPECT_EQ(ReadFile(name), file);
        }
    };
    const Entry xm = XmodemReceiveWithOptions;
    check("crc", xm, 0, Cat({Block(1, Part(data, 0, 128)), Block(2, Part(data, 128, 200)), {EOT}}),
          {'C', ACK, ACK, ACK}, 1, padded);
    check("checksum", xm, XferOptChecksum, Cat({Block(1, one, false), {EOT}}), {NAK, ACK, ACK}, 1,
          one);
    check("1k-g", Xmodem1KReceiveWithOptions, XferOptStreaming,
          Cat({Block(1, Pattern(1024), true, 1024), Block(2, one, true, 1024), {EOT}}), {'G', ACK},
          1, Cat({Pattern(1024), one, Bytes(896, 0)}));
    // A damaged first block gets the start request again; a repeat is
    // acknowledged and dropped.
    check("damage", xm, 0, Cat({damaged, Block(1, one), Block(1, one), Block(2, two), {EOT}}),
          {'C', 'C', ACK, ACK, ACK, ACK}, 1, Cat({one, two}));
    // From the third unanswered request on it asks for checksum blocks.
    check("silence", xm, 0, {}, Cat({{'C', 'C', 'C'}, Bytes(8, NAK), test::kCancelBytes}),
          XferErrPacketTimeout, {});
    // The first CAN is answered, the second ends the transfer; blocks stay.
    check("can can", xm, 0, {CAN, CAN}, Cat({{'C', 'C'}, test::kCancelBytes}), XferErrRemoteAbort,
          {});
    check("blocks then can can", xm, 0, Cat({Block(1, one), Block(2, two), {CAN, CAN}}),
          Cat({{'C', ACK, ACK, NAK}, test::kCancelBytes}), XferErrRemoteAbort, Cat({one, two}));
}

// Blocks are answered and gathered; a failed write comes to light before the
// EOT is answered, so the sender gets the cancel string instead of an ACK.
XferFile OpenUnwritable(XferRecord *, const char *, const char *) {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST_F(Scripted, XmodemReceiverCancelsWhenTheFileFails) {
    SetXferFileOpenFunctionPtr(OpenUnwritable);
    host_.Receive(Cat({Block(1, Pattern(128)), Block(2, Pattern(128)), {EOT}}));
    std::string name = tree_.Path("in.bin");
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), XferErrFileIo);
    EXPECT_EQ(host_.Written(), Cat({{'C', ACK, ACK}, test::kCancelBytes}));
    SetXferFileOpenFunctionPtr(nullptr);
}

// Blocks by size and by the start character, EOT repeated ten times, and an
// empty file or an unknown option refused.
TEST_F(Scripted, XmodemSenderExchanges) {
    const Bytes data = Pattern(200), k = Pattern(1000), abc = {'a', 'b', 'c'};
    auto check = [&](const char *what, Entry entry, const Bytes &file, const Bytes &peer,
                     int32_t option, int32_t value, const Bytes &written, int32_t result) {
        SCOPED_TRACE(what);
        host_.ClearWritten();
        StatusLines().clear();
        WriteFile(tree_.Path("out.bin"), file);
        host_.Receive(peer);
        std::string names = Names("out.bin");
        EXPECT_EQ(entry(port_, names.data(), Status, nullptr, option, value, 0), result);
        EXPECT_EQ(host_.Written(), written);
    };
    const Entry xm = XmodemSendWithOptions, xm1k = Xmodem1KSendWithOptions;
    check("crc", xm, data, {'C', ACK, ACK, ACK}, 0, 0,
          Cat({Block(1, Part(data, 0, 128)), Block(2, Part(data, 128, 200)), {EOT}}), 1);
    check("1k", xm1k, k, {'C', ACK, ACK}, 0, 0, Cat({Block(1, k, true, 1024), {EOT}}), 1);
    check("1k checksum", xm1k, k, {NAK, ACK, ACK}, 0, 0, Cat({Block(1, k, false, 1024), {EOT}}), 1);
    check("eot unanswered", xm, abc, {'C', ACK}, XferOptSendTimeout, 2000,
          Cat({Block(1, abc), Bytes(10, EOT), test::kCancelBytes}), XferErrTooManyErrors);
    check("empty", xm, {}, {'C'}, 0, 0, test::kCancelBytes, XferErrFileIo);
    check("unknown option", xm, {}, {}, XferOptSubfolders, 0, {}, PortInvalidParameter);
    EXPECT_TRUE(StatusLines().empty()) << "refused before anything happened";
}

TEST_F(Scripted, YmodemReceiverNamesSizesAndStampsEachFile) {
    const Bytes data = Pattern(1000);
    host_.Receive(Cat({Block0(std::string("dir\\sub/report.txt") + '\0' + "1000 13727410000 0"),
                       Block(1, data, true, 1024),
                       {EOT},
                       Block0("")}));
    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), (Bytes{'C', ACK, 'C', ACK, ACK, 'C', ACK}));
    EXPECT_EQ(ReadFile(tree_.Path("report.txt")), data) << "cut to the announced size";
    struct stat st {};
    ASSERT_EQ(stat(tree_.Path("report.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1600000000);

    // A folder without its '/' is a prefix of the names; a streaming sender
    // that hangs up for the answer to the batch-ending block 0 leaves a good
    // batch (writes: G, ACK, G, ACK, G, then the line is gone).
    Open(tree_.Dir("in"));
    host_.Receive(
        Cat({Block0(std::string("g.bin") + '\0' + "5"), Block(1, Pattern(5)), {EOT}, Block0("")}));
    int writes = 0;
    host_.OnRequest([&writes](TestHost &h, uintptr_t request) {
        if (request == PORT_WRITE && ++writes == 6) h.SetWriteError(true);
    });
    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, XferOptStreaming, 0), 1);
    EXPECT_EQ(ReadFile(tree_.Path("ing.bin")), Pattern(5));
}

// The host's abort hook in the zvxfer program turns a lost line into a
// failure; this one does the same once the test has hung the line up.
std::atomic<bool> g_hungUp{false};
int32_t LostLineIsAFailure(XferRecord *) {
    return g_hungUp ? XferErrLostCarrier : 0;
}

TEST_F(Scripted, YmodemSenderPutsBlock0BeforeEachFileAndEndsWithAnEmptyOne) {
    const Bytes data = Pattern(1000);
    WriteFile(tree_.Path("report.txt"), data, 1600000000);
    host_.Receive(Bytes{'C', ACK, 'C', ACK, ACK, 'C', ACK});
    std::string names = Names("report.txt");
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 1);
    const Bytes batch = Cat({Block0(std::string("report.txt") + '\0' + "1000 13727410000 0"),
                             Block(1, data, true, 1024),
                             {EOT},
                             Block0("")});
    EXPECT_EQ(host_.Written(), batch);

    // No file at all: only the batch end, and a silent receiver after it
    // counts as done.
    host_.ClearWritten();
    host_.Receive(Bytes{'C'});
    names = Names("nothing*");
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 0);
    EXPECT_EQ(host_.Written(), Block0(""));

    // A receiver that hangs up while the sender waits for the answer to the
    // batch end leaves a good batch and no cancel string.
    host_.ClearWritten();
    host_.Receive(Bytes{'C', ACK, 'C', ACK, ACK, 'C'});
    host_.OnRequest([](TestHost &h, uintptr_t request) {
        if (request == PORT_READ && h.Unread() == 0) {
            h.SetReadError(true);
            g_hungUp = true;
        }
    });
    SetAbortXferFunctionPtr(LostLineIsAFailure);
    names = Names("report.txt");
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 1);
    SetAbortXferFunctionPtr(nullptr);
    EXPECT_TRUE(g_hungUp);
    EXPECT_EQ(host_.Written(), batch);
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
    host::LinkPair link(config);
    const host::LinkResult result = link.Run(
        [&](XferPort *port) {
            std::string names = "\"" + source + "\"";
            return CLFileSend(port, v.protocol, names.data(), 0, 0, CLSetFileTransferOptions(words),
                              nullptr, nullptr);
        },
        [&](XferPort *port) {
            std::string name = target;
            return CLFileReceive(port, v.protocol, name.data(), 0, CLSetFileTransferOptions(words),
                                 nullptr, nullptr);
        });
    Bytes copy = ReadFile(target);
    struct stat st {};
    if (v.protocol == Ymodem) {
        ok = copy == data && stat(target.c_str(), &st) == 0 && st.st_mtime == 1500000000;
    } else {
        ok = copy.size() >= data.size() && copy.size() < data.size() + 1024 &&
             Part(copy, 0, data.size()) == data &&
             std::all_of(copy.begin() + static_cast<long>(data.size()), copy.end(),
                         [](uint8_t c) { return c == 0; });
    }
    return result;
}

TEST(XmodemLinkPair, EveryVariantDeliversTheExactFileOnACleanLine) {
    test::FakeClock clock{test::FakeClock::Scaled{20}};
    host::LinkConfig config;
    config.deadlineMs = 60000;
    for (std::size_t size : {1u, 896u, 897u, 70000u}) {
        for (const Variant &v : kVariants) {
            SCOPED_TRACE(std::string(v.name) + " " + std::to_string(size));
            bool ok = false;
            const host::LinkResult r = Transfer(v, config, Pattern(size, 5), ok);
            EXPECT_TRUE(!r.timedOut && r.a == 1 && r.b == 1 && ok);
        }
    }
}

// At a bit-error rate of 1e-5 with dropped bytes a transfer may fail, but
// only with a defined code and within its limits; a reported success always
// comes with the exact file; and most runs complete (the streaming variants
// may give up at the first error).
TEST(XmodemLinkPair, NoisyLineNeverYieldsAWrongFile) {
    test::FakeClock clock{test::FakeClock::Scaled{50}};
    host::LinkConfig config;
    config.aToB.bitErrorRate = config.bToA.bitErrorRate = 1e-5;
    config.aToB.dropRate = config.bToA.dropRate = 2e-6;
    config.deadlineMs = 120000;
    const Bytes data = Pattern(200000, 3);
    int completed = 0;
    for (const Variant &v : kVariants) {
        for (config.seed = 1; config.seed <= 3; ++config.seed) {
            SCOPED_TRACE(std::string(v.name) + " seed " + std::to_string(config.seed));
            bool ok = false;
            const host::LinkResult r = Transfer(v, config, data, ok);
            ASSERT_FALSE(r.timedOut);
            EXPECT_TRUE(r.b >= 1 ? ok : test::DefinedFailure(r.b)) << r.b;
            EXPECT_TRUE(r.a >= 0 || test::DefinedFailure(r.a)) << r.a;
            completed += r.b >= 1;
        }
    }
    EXPECT_GE(completed, 7) << completed << " of 15 completed";
}

} // namespace
} // namespace zvxfer
