// The ZMODEM receiver against a scripted sender: what it answers, what it
// writes to disk, and how it recovers from damage, wrong positions, silence.
#include <cstring>
#include <fstream>
#include <sys/stat.h>

#include "zm_wire.h"

namespace zvxfer::zm {
namespace {

using namespace test;

const Bytes kRinit = Hex(zm::ZRINIT, 0x27000000);
const Bytes kFin = Cat(Hex(zm::ZFIN), Str("OO"));
const auto Rpos = [](int32_t position) { return Hex(zm::ZRPOS, position); };

// The sender's frames: ZFILE with ZF0 and ZF1, ZDATA with its subpackets, ZEOF.
Bytes ZFile(const std::string &name, std::size_t size, const char *time, int zf0 = 0, int zf1 = 0) {
    const std::string info = name + '\0' + std::to_string(size) + " " + time + " 0";
    return Cat(ZHeader(zm::ZFILE, zf0 << 24 | zf1 << 16, 'C'),
               ZSubpacket(Str(info), zm::ZCRCW, true));
}
Bytes ZData(int32_t position, const std::vector<std::pair<Bytes, uint8_t>> &subpackets) {
    Bytes out = ZHeader(zm::ZDATA, position, 'C');
    for (const auto &[data, end] : subpackets) out = Cat(out, ZSubpacket(data, end, true));
    return out;
}
const auto ZEof = [](int32_t position) { return ZHeader(zm::ZEOF, position, 'C'); };

// The hooks set here belong to the test's port and go with it.
class ZmodemReceiver : public ZmodemScripted {
  protected:
    int32_t Receive() { return ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 0); }
    Bytes File(const std::string &name) {
        std::ifstream in(tree_.Path(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    long Time(const std::string &name) {
        struct stat st {};
        return stat(tree_.Path(name).c_str(), &st) == 0 ? st.st_mtime : -1;
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

} // namespace
} // namespace zvxfer::zm
