// Finds the start of a transfer in what the far side sends during a
// terminal session, without delaying or changing ordinary output.
//
// The session feeds every chunk it reads from the line, of any size.  The
// detector passes bytes straight on to be shown, except a run that is a
// proper prefix of an enabled start: that run is held until the next byte
// shows whether it goes on to a start (then it is part of the start and is
// never shown) or not (then it is shown at once, in order, and the bytes
// after its first one are looked at again, since a start may begin inside
// it).  A start split over several reads is found; `Flush()` gives back the
// held bytes, for a session that has heard nothing more for a while.
//
// The starts, byte for byte (hex digits lower case, as ZMODEM writes them):
//
//   ZmodemSender    '*' '*' 0x18 'B' "00" + 8 hex digits of data + 4 hex
//                   digits of CRC-16 (XMODEM CRC from 0 over the type and
//                   the four data bytes): a ZRQINIT hex header; the far
//                   side runs a ZMODEM sender.
//   ZmodemReceiver  the same with type "01": a ZRINIT hex header; the far
//                   side runs a ZMODEM receiver.
//                   The CR, LF (or 0x8A) and XON that end a hex header are
//                   not part of the start: they follow it.
//   KermitSendInit  SOH, LEN, SEQ ' ' (0), 'S', LEN - 35 printable data
//                   characters, one check character: a send-init packet in
//                   the normal form (LEN '#' to '~') whose type-1 block check
//                   over LEN to the last data character is right.  The EOL
//                   (CR) after it follows the start.
//   BPlusEnquiry    ENQ (0x05) alone: CompuServe asks whether B+ is there.
//   BPlusPacket     DLE (0x10) 'B': the service's first B+ packet.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace zvxfer::cli {

enum class StartKind : unsigned {
    ZmodemSender,   // far side sends: we receive
    ZmodemReceiver, // far side receives: we send
    KermitSendInit, // far side sends with Kermit: we receive
    BPlusEnquiry,   // answer the service's ENQ
    BPlusPacket,    // the service starts B+ packets
};
inline constexpr unsigned kStartKinds = 5;

// A set of start kinds.
class StartSet {
  public:
    constexpr StartSet() = default;
    static constexpr StartSet All() { return StartSet((1u << kStartKinds) - 1); }
    static constexpr StartSet None() { return StartSet(0); }
    constexpr StartSet With(StartKind k) const { return StartSet(bits_ | Bit(k)); }
    constexpr StartSet Without(StartKind k) const { return StartSet(bits_ & ~Bit(k)); }
    constexpr bool Has(StartKind k) const { return (bits_ & Bit(k)) != 0; }
    constexpr bool Empty() const { return bits_ == 0; }

  private:
    constexpr explicit StartSet(unsigned bits) : bits_(bits) {}
    static constexpr unsigned Bit(StartKind k) { return 1u << static_cast<unsigned>(k); }
    unsigned bits_ = 0;
};

// Short name of a start kind, for traces and messages ("zmodem-sender" ...).
const char *StartKindName(StartKind kind);

class StartDetector {
  public:
    // The session calls Flush() after this long without a byte from the
    // line.  Every sender seen writes a start with one write, so its bytes
    // arrive far closer together than this; a user does not notice a
    // stray '*' or SOH shown this late.
    static constexpr int kQuietMs = 100;

    explicit StartDetector(StartSet enabled = StartSet::All()) : enabled_(enabled) {}

    struct Outcome {
        std::vector<uint8_t> show;       // to put on the screen now, in order
        std::optional<StartKind> start;  // a start was recognised
        std::vector<uint8_t> startBytes; // the bytes that made it up
        std::vector<uint8_t> after;      // the rest of the chunk, not looked at
    };

    // Looks at one chunk.  Reading stops at the first start: the bytes after
    // it go to `after` untouched, for the transfer to read, and the detector
    // begins afresh (nothing held).  show + startBytes + after + the bytes
    // now held is exactly what was held before followed by the chunk.
    Outcome Feed(const uint8_t *data, std::size_t length);

    // Gives back the held bytes (to be shown) and holds nothing.
    std::vector<uint8_t> Flush();

    // Bytes held back as the beginning of a possible start.
    std::size_t Held() const { return held_.size(); }

    // A change lets go of a held run that no enabled start can take any
    // more: it is returned, to be shown.
    std::vector<uint8_t> SetEnabled(StartSet enabled);
    StartSet Enabled() const { return enabled_; }

  private:
    // After a byte was added: shows what cannot begin a start, keeps a
    // prefix, and reports a whole start (then held_ is the start).
    std::optional<StartKind> Settle(std::vector<uint8_t> &show);

    StartSet enabled_;
    std::vector<uint8_t> held_;
};

} // namespace zvxfer::cli
