// The ZMODEM engines against a scripted far end: the receiver (what it
// answers, what it writes to disk, how it recovers from damage, wrong
// positions, silence), the sender (the exact bytes it writes, where it waits
// for confirmation, its restarts on ZRPOS), and both against a far end that
// turns to garbage (a flood, or a byte a second) in every phase or sends
// positions that 32 bits cannot carry.  The garbage runs use a clock that
// moves on every tick read, so minutes of such a line pass in a few seconds.
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "garbage_feed.h"
#include "system_files.h"
#include "zm_wire.h"

namespace zvxfer::zm {
namespace {

using namespace test;

const Bytes kFin = Cat(Hex(zm::ZFIN), Str("OO"));
const auto Rpos = [](int32_t position) { return Hex(zm::ZRPOS, position); };

// The hooks set here belong to the test's port and go with it.
class ZmodemReceiver : public ZmodemScripted {
  protected:
    int32_t Receive() { return ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 0); }
    Bytes File(const std::string &name) {
        std::ifstream in(tree_.Path(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    long Time(const std::string &name) {
        int64_t time = 0;
        return test::ModTime(tree_.Path(name), time) ? static_cast<long>(time) : -1;
    }
};

// Under the skip policy an existing file is answered with ZSKIP and kept;
// the next arrives in three subpackets (a ZACK after ZCRCQ and ZCRCW) with
// its folders stripped and its time; the last (ZF0 2: newline conversion,
// time 0: unknown) gets the time of writing.
TEST_F(ZmodemReceiver, SkipAnswersAndNewlinesInABatch) {
    port_->Ops.PortClose(port_);
    port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_SKIP);
    tree_.File("old.txt", "keep me");
    peer_.On(kRinit, ZFile("old.txt", 5, "13371234567"));
    peer_.On(Hex(zm::ZSKIP), ZFile("../up/a b.bin", 2500, "13371234567"));
    peer_.On(Rpos(0), Cat(ZData(0, {{Pattern(1024, 0), zm::ZCRCG},
                                    {Pattern(2048, 1024), zm::ZCRCQ},
                                    {Pattern(2500, 2048), zm::ZCRCW}}),
                          ZEof(2500)));
    peer_.On(kRinit, ZFile("new.txt", 7, "0", 2));
    peer_.On(Rpos(0), Cat(ZData(0, {{Str("a\nb\r\nc"), zm::ZCRCE}}), ZEof(6)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 2); // the skipped file is not counted
    EXPECT_EQ(peer_.Pending(), 0u);
    EXPECT_EQ(host_.Written(), Cat(kRinit, Hex(zm::ZSKIP), kRinit, Rpos(0), Hex(zm::ZACK, 2048),
                                   Hex(zm::ZACK, 2500), kRinit, Rpos(0), kRinit, Hex(zm::ZFIN)));
    EXPECT_EQ(File("old.txt"), Str("keep me"));
    EXPECT_EQ(File("a b.bin"), Pattern(2500));
    EXPECT_EQ(Time("a b.bin"), 013371234567);
    EXPECT_EQ(File("new.txt"), Str("a\r\nb\r\r\nc"));
    EXPECT_GT(Time("new.txt"), 1000000000);
}

// Appending (ZF1 3, with resume asked in ZF0; the host's file hook keeps
// what a file held): positions count from the end the file had when the
// data phase began.  A damaged subpacket is asked for again at once from the
// last good byte, a frame at the wrong place with ZRPOS, an early ZEOF is
// passed over.
TEST_F(ZmodemReceiver, DamageAndWrongPositionsAreAskedForAgainWhileAppending) {
    port_->Hooks->FileOpenFunction = [](XferRecord *r, const char *name, const char *mode) {
        return DefaultFileOpen(r, name, std::strcmp(mode, "wb") == 0 ? "ab" : mode);
    };
    tree_.File("log.bin", "old-");
    Bytes damaged = ZSubpacket(Pattern(2048, 1024), zm::ZCRCW, true);
    damaged[100] ^= 0x04;
    peer_.On(kRinit, ZFile("log.bin", 2048, "0", 3, 3));
    peer_.On(Rpos(0), Cat(ZData(0, {{Pattern(1024, 0), zm::ZCRCG}}), damaged, Str("stale")));
    peer_.On(Rpos(1024), ZData(0, {{Bytes(50, 'X'), zm::ZCRCW}}));
    peer_.On(Rpos(1024),
             Cat(ZData(1024, {{Pattern(2048, 1024), zm::ZCRCE}}), ZEof(1500), ZEof(2048)));
    peer_.On(kRinit, kFin);
    EXPECT_EQ(Receive(), 1);
    EXPECT_EQ(host_.Written(), Cat(kRinit, Rpos(0), Rpos(1024), Rpos(1024), kRinit, Hex(zm::ZFIN)));
    EXPECT_EQ(File("log.bin"), Cat(Str("old-"), Pattern(2048)));
    EXPECT_EQ(CountStatus("ZEOF at wrong position"), 1);
    EXPECT_EQ(CountStatus("silence after noise") + CountStatus("No response for"), 0); // at once
}

// A sender that never heard our ZRPOS, to the millisecond: data that comes
// as the tenth silent second ends is in time (a wait looks at the line
// before the clock); a millisecond later the position has been said again,
// exactly 10 s after the first time, once; ten more silent seconds end the
// transfer with -619 and the cancel string.
TEST_F(ZmodemReceiver, ALostPositionIsSaidAgainOnceAfterTenSilentSeconds) {
    const Bytes data = Cat(ZData(0, {{Str("abc"), zm::ZCRCE}}), ZEof(3));
    const std::string rpos = [] {
        const Bytes r = Rpos(0);
        return std::string(r.begin(), r.end());
    }();
    struct Case {
        uint32_t delayMs; // from our ZRPOS to the data; 0: never
        Bytes written;
        int32_t result;
    } const cases[] = {
        {10000, Cat(kRinit, Rpos(0), kRinit, Hex(zm::ZFIN)), 1},
        {10001, Cat(kRinit, Rpos(0), Rpos(0), kRinit, Hex(zm::ZFIN)), 1},
        {0, Cat(kRinit, Rpos(0), Rpos(0), kCancelBytes), XferErrNoFilesSent},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.delayMs);
        TestHost host;
        host.UseClock([this] { return clock_.Now(); });
        ScriptedPeer peer(host);
        peer.On(kRinit, ZFile("late.bin", 3, "0"));
        if (c.delayMs != 0) peer.OnAfter(c.delayMs, Rpos(0), data);
        peer.On(kRinit, kFin);
        XferPort *port = PortOpen(0, host.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port, nullptr);
        EXPECT_EQ(ZmodemReceiveWithOptions(port, nullptr, nullptr, 0), c.result);
        port->Ops.PortClose(port);
        EXPECT_EQ(host.Written(), c.written);
        if (c.delayMs == 10000) continue;
        const uint32_t first = host.WrittenAt(rpos), again = host.WrittenAt(rpos, 1);
        EXPECT_EQ(again - first, 10000u);
        if (c.delayMs == 0) {
            EXPECT_EQ(host.WrittenAt("\x18\x18\x18") - again, 10000u);
        }
    }
}

// A host whose abort hook answers with a positive value ends the transfer
// at once too: the value becomes the result, what arrived stays.
TEST_F(ZmodemReceiver, APositiveAbortAnswerEndsTheTransferToo) {
    port_->Hooks->AbortFunction = [](XferRecord *r) -> int32_t {
        return r->File != XFER_INVALID_FILE && r->FilePos > 0 ? 7 : 0;
    };
    peer_.On(kRinit, ZFile("p.bin", 4000, "0"));
    peer_.On(Rpos(0), ZData(0, {{Pattern(1024), zm::ZCRCG}})); // then the sender falls silent
    EXPECT_EQ(Receive(), 7);
    EXPECT_EQ(File("p.bin"), Pattern(1024));
    EXPECT_EQ(CountStatus("Transfer cancelled", 1), 1);
}

class ZmodemSender : public ZmodemScripted {
  protected:
    // A file of `size` bytes; the receiver answers ZRQINIT with ZRINIT of
    // `flags`, the test's steps follow, then ZRINIT after ZEOF and ZFIN.
    void Prepare(std::size_t size, uint8_t flags) {
        const Bytes file = Pattern(size);
        const std::string path = tree_.File("f.bin", std::string(file.begin(), file.end()));
        EXPECT_TRUE(test::SetModTime(path, 1700000000));
        size_ = static_cast<int32_t>(size);
        flags_ = flags;
        peer_.On(Hex(zm::ZRQINIT), Hex(zm::ZRINIT, flags << 24));
    }
    int32_t Run(int32_t option1 = 0, int32_t option2 = 0) {
        peer_.On(Header(zm::ZEOF, size_), Hex(zm::ZRINIT, flags_ << 24));
        peer_.On(Hex(zm::ZFIN), Hex(zm::ZFIN));
        std::string names = "\"" + tree_.Path("f.bin") + "\"";
        const int32_t result =
            ZmodemSendWithOptions(port_, names.data(), nullptr, nullptr, option1, option2, 0, 0);
        EXPECT_EQ(peer_.Pending(), 0u);
        return result;
    }
    // ZRQINIT, ZFILE with ZF0/ZF1 and its text; ZEOF, ZFIN and "OO".
    Bytes NameText() const {
        return Sub(Cat(Str("f.bin"), Bytes{0}, Str(std::to_string(size_) + " 14524770400 0")),
                   zm::ZCRCW);
    }
    Bytes Start(int32_t zf = 0) const {
        return Cat(Hex(zm::ZRQINIT), Header(zm::ZFILE, zf), NameText());
    }
    Bytes End() const { return Cat(Header(zm::ZEOF, size_), Hex(zm::ZFIN), Str("OO")); }
    bool Crc32() const { return flags_ & zm::CANFC32; }
    Bytes Header(int type, int32_t at) const { return ZHeader(type, at, Crc32() ? 'C' : 'A'); }
    Bytes Sub(const Bytes &data, uint8_t end) const { return ZSubpacket(data, end, Crc32()); }
    // Subpackets of 1024 of the file's bytes [from, to), the last ending
    // with `last` if given.
    Bytes Subs(std::size_t from, std::size_t to, uint8_t end, uint8_t last = 0) const {
        Bytes out;
        for (std::size_t next; from < to; from = next) {
            next = std::min(from + 1024, to);
            out = Cat(out, Sub(Pattern(next, from), next == to && last ? last : end));
        }
        return out;
    }

    int32_t size_ = 0;
    uint8_t flags_ = 0;
};

// The default window: CRC-32, one frame of ZCRCQ subpackets and a stop after
// 4096 unconfirmed bytes; a receiver that then asks for the end position (it
// missed what followed) gets ZDATA there with an empty ZCRCW, then ZEOF.
TEST_F(ZmodemSender, WindowStopsAt4096UnconfirmedAndRestartsAtTheEnd) {
    Prepare(5000, zm::kOurRinitFlags);
    const Bytes restart = Cat(Header(zm::ZDATA, 5000), Sub({}, zm::ZCRCW));
    peer_.On(NameText(), Hex(zm::ZRPOS, 0));
    peer_.On(Subs(3072, 4096, zm::ZCRCQ), Hex(zm::ZACK, 4096), true);
    peer_.On(Subs(4096, 5000, zm::ZCRCW), Hex(zm::ZRPOS, 5000), true);
    peer_.On(restart, Hex(zm::ZACK, 5000), true);
    EXPECT_EQ(Run(), 1);
    const Bytes window = Cat(Start(), Header(zm::ZDATA, 0), Subs(0, 4096, zm::ZCRCQ));
    const Bytes data = Cat(window, Subs(4096, 5000, zm::ZCRCW));
    EXPECT_EQ(host_.Written(), Cat(data, restart, End()));
    EXPECT_EQ(peer_.idleAt,
              (std::vector<std::size_t>{window.size(), data.size(), data.size() + restart.size()}));
}

// Without a window (and with CRC-16 for a receiver without CANFC32): one frame
// of ZCRCG ending in ZCRCW; a ZRPOS mid-file restarts there with an empty
// ZCRCW subpacket, and the data follow once it is confirmed.
TEST_F(ZmodemSender, WindowlessCrc16RestartsWhereTheReceiverAsks) {
    Prepare(3000, zm::CANFDX | zm::CANOVIO);
    const Bytes restart = Cat(Header(zm::ZDATA, 1024), Sub({}, zm::ZCRCW));
    peer_.On(NameText(), Hex(zm::ZRPOS, 0));
    peer_.On(Subs(1024, 2048, zm::ZCRCG), Hex(zm::ZRPOS, 1024));
    peer_.On(restart, Hex(zm::ZACK, 1024), true);
    peer_.On(Subs(2048, 3000, zm::ZCRCW), Hex(zm::ZACK, 3000), true);
    EXPECT_EQ(Run(XferOptZmNoWindow), 1);
    EXPECT_EQ(host_.Written(),
              Cat(Start(), Header(zm::ZDATA, 0), Subs(0, 2048, zm::ZCRCG), Sub({}, zm::ZCRCE),
                  restart, Header(zm::ZDATA, 1024), Subs(1024, 3000, zm::ZCRCG, zm::ZCRCW), End()));
}

// Resume and append travel in ZFILE's ZF0 and ZF1; a receiver that answers
// with the end position (it holds the whole file) gets ZEOF at once.
TEST_F(ZmodemSender, AReceiverAtTheEndGetsZeofAtOnce) {
    Prepare(3000, zm::kOurRinitFlags);
    peer_.On(NameText(), Hex(zm::ZRPOS, 3000));
    EXPECT_EQ(Run(XferOptZmResume, XferOptZmAppend), 1);
    EXPECT_EQ(host_.Written(), Cat(Start(3 << 24 | 3 << 16), End()));
}

using GarbageRun = SteppedPort;

// The sender and the receiver give up within a minute of garbage, whatever
// its rate and wherever it begins: while the link opens, while the sender
// waits for confirmations (windowed or streaming), while the receiver waits
// for data.  CAN stays out of the garbage: five in a row are a valid cancel.
TEST_F(GarbageRun, BothSidesGiveUpWithinAMinuteOfGarbage) {
    const std::string file = tree.File("f.bin", std::string(10000, 'f'));
    const std::string names = "\"" + file + "\"";
    struct Case {
        const char *what;
        bool send;
        Bytes start; // what the far end says before it turns to garbage
        int32_t option;
        GarbageFeed::Rate rate;
    };
    const Bytes startTx = Cat(Hex(zm::ZRINIT, 0x23000000), Hex(zm::ZRPOS, 0));
    const Bytes startRx = ZFile("in.bin", 5000, "0");
    const Case cases[] = {
        {"sender, link opening, flood", true, {}, 0, GarbageFeed::Flood},
        {"sender, link opening, a byte a second", true, {}, 0, GarbageFeed::OnePerSecond},
        {"sender, window, flood", true, startTx, 0, GarbageFeed::Flood},
        {"sender, window, a byte a second", true, startTx, 0, GarbageFeed::OnePerSecond},
        {"sender, streaming, flood", true, startTx, XferOptZmNoWindow, GarbageFeed::Flood},
        {"sender, streaming, a byte a second", true, startTx, XferOptZmNoWindow,
         GarbageFeed::OnePerSecond},
        {"receiver, start, flood", false, {}, 0, GarbageFeed::Flood},
        {"receiver, start, a byte a second", false, {}, 0, GarbageFeed::OnePerSecond},
        {"receiver, data, flood", false, startRx, 0, GarbageFeed::Flood},
        {"receiver, data, a byte a second", false, startRx, 0, GarbageFeed::OnePerSecond},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host.ClearWritten();
        host.Receive(c.start);
        GarbageFeed feed(host, clock, c.rate, {zm::CAN});
        std::string list = names;
        const int32_t result =
            c.send ? ZmodemSendWithOptions(port, list.data(), nullptr, nullptr, c.option, 0)
                   : ZmodemReceiveWithOptions(port, nullptr, nullptr, 0);
        const uint32_t took = clock.Now() - feed.Started();
        EXPECT_EQ(result, XferErrTooManyErrors);
        EXPECT_TRUE(feed.Began());
        EXPECT_LE(took, 60000u);
        EXPECT_TRUE(EndsWithCancel(host.Written())) << "the cancel string ends it";
    }
}

// A receiver whose position would pass 2^31 - 1 ends with -607 before it
// writes the subpacket that would take it there.
TEST_F(ZmodemScripted, AReceiverStopsBeforeItsPositionPassesTheLimit) {
    constexpr int32_t kNear = INT32_MAX - 10;
    port_->Hooks->AbortFunction = [](XferRecord *r) -> int32_t {
        // Once the file is open, it has (as far as the receiver knows)
        // reached the edge: the receiver asks for the data from there.
        if (r->File != XFER_INVALID_FILE && r->FilePos == 0) r->FilePos = kNear;
        return 0;
    };
    peer_.On(kRinit, ZFile("edge.bin", 0, "0"));
    peer_.On(Hex(zm::ZRPOS, kNear),
             Cat(ZHeader(zm::ZDATA, kNear, 'C'), ZSubpacket(Pattern(100), zm::ZCRCE, true)));
    EXPECT_EQ(ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 0), XferErrFileIo);
    EXPECT_EQ(std::filesystem::file_size(tree_.Path("edge.bin")), 0u);
    EXPECT_EQ(CountStatus("File position would pass"), 1);
}

} // namespace
} // namespace zvxfer::zm
