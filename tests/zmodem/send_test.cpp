// The ZMODEM sender against a scripted receiver: the exact bytes it writes,
// where it waits for confirmation, and its restarts on ZRPOS.
#include <fcntl.h>
#include <sys/stat.h>

#include "zm_wire.h"

namespace zvxfer::zm {
namespace {

using namespace test;

class ZmodemSender : public ZmodemScripted {
  protected:
    // A file of `size` bytes; the receiver answers ZRQINIT with ZRINIT of
    // `flags`, the test's steps follow, then ZRINIT after ZEOF and ZFIN.
    void Prepare(std::size_t size, uint8_t flags) {
        const Bytes file = Pattern(size);
        const std::string path = tree_.File("f.bin", std::string(file.begin(), file.end()));
        const struct timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
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

} // namespace
} // namespace zvxfer::zm
