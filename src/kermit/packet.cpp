// Kermit packets on the wire: framing and sending one packet, collecting
// one from the line, validating it, and the three block checks.
//
// A packet is MARK, LEN, SEQ, TYPE, DATA, CHECK and the peer's EOL.  When
// the data and check no longer fit a one-character length (95 or more),
// LEN is a blank and the long form follows TYPE with two length characters
// and a header check of its own.
#include <algorithm>
#include <array>
#include <cstring>

#include "kermit/engine.h"
#include "platform/tick.h"

namespace zvxfer::kermit {

namespace {

// The Kermit CRC-16 (reflected CCITT polynomial, initial value 0, no final
// inversion) one nibble at a time, as the protocol defines it.
constexpr unsigned CrcNibbles(unsigned crc, unsigned c) {
    unsigned q = (crc ^ c) & 15u;
    crc = (crc >> 4) ^ (q * 4225u);
    q = (crc ^ (c >> 4)) & 15u;
    crc = (crc >> 4) ^ (q * 4225u);
    return crc & 0xFFFFu;
}

// Both nibble steps for every possible (low byte of crc) ^ c: the
// table-driven form gives the same values a byte at a time.  Tables 1 to 3
// carry a byte through one, two and three further byte steps, so that four
// bytes take four independent look-ups.
using CrcTables = std::array<std::array<uint16_t, 256>, 4>;
constexpr CrcTables MakeCrcTables() {
    CrcTables t{};
    for (unsigned i = 0; i < 256; ++i) t[0][i] = static_cast<uint16_t>(CrcNibbles(0, i));
    for (std::size_t k = 1; k < 4; ++k)
        for (unsigned i = 0; i < 256; ++i)
            t[k][i] = static_cast<uint16_t>((t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFFu]);
    return t;
}

constexpr CrcTables kCrc = MakeCrcTables();

static_assert(CrcNibbles(CrcNibbles(CrcNibbles(0, 'a'), 'b'), 'c') == 0x58E9);

// At most this many characters of a packet go into its trace line.
constexpr int kTracedChars = 62;

// Sum of n bytes, each taken as 0..255.
unsigned ByteSum(const uint8_t *p, int n) {
    unsigned s = 0;
    for (int i = 0; i < n; ++i) s += p[i];
    return s;
}

} // namespace

unsigned KermitEngine::chk1(const uint8_t *p, int n) {
    const unsigned s = ByteSum(p, n);
    trace("chksum=%u\n", s);
    return (s + ((s & 192u) >> 6)) & 63u;
}

unsigned KermitEngine::chk2(const uint8_t *p, int n) {
    return ByteSum(p, n);
}

unsigned KermitEngine::crc(const uint8_t *p, int n) {
    unsigned value = 0;
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const unsigned x = value ^ p[i] ^ (static_cast<unsigned>(p[i + 1]) << 8);
        value = kCrc[3][x & 0xFFu] ^ kCrc[2][x >> 8] ^ kCrc[1][p[i + 2]] ^ kCrc[0][p[i + 3]];
    }
    for (; i < n; ++i) value = (value >> 8) ^ kCrc[0][(value ^ p[i]) & 0xFFu];
    trace("crc=%u\n", value);
    return value;
}

int KermitEngine::spacket(int type, int n, int len, const uint8_t *d) {
    const int pads = std::max(padcount, 0);
    const int checkLength = chkuse == 2 || chkuse == 3 ? chkuse : 1;
    const int lengthField = len + checkLength;
    const bool longForm = lengthField + 2 >= 95;
    const int total = pads + 4 + (longForm ? 3 : 0) + len + checkLength + 1;
    // Callers keep their data within the negotiated packet length; anything
    // that would not fit the send buffer is refused instead of cut.
    if (len < 0 || total > static_cast<int>(sizeof sndbuf)) return ttol(sndbuf, -1);

    uint8_t *p = sndbuf;
    std::memset(p, padchar, static_cast<std::size_t>(pads));
    p += pads;
    *p++ = kMark;
    uint8_t *const checked = p; // the checks start at LEN
    ++p;                        // LEN, filled in below
    *p++ = static_cast<uint8_t>(tochar(n));
    *p++ = static_cast<uint8_t>(type);
    if (longForm) {
        checked[0] = static_cast<uint8_t>(tochar(0));
        *p++ = static_cast<uint8_t>(tochar(lengthField / 95));
        *p++ = static_cast<uint8_t>(tochar(lengthField % 95));
        const unsigned header = chk1(checked, 5);
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>(header)));
    } else {
        checked[0] = static_cast<uint8_t>(tochar(lengthField + 2));
    }
    if (len > 0) std::memmove(p, d, static_cast<std::size_t>(len));
    p += len;

    const int span = static_cast<int>(p - checked);
    if (checkLength == 1) {
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>(chk1(checked, span))));
    } else if (checkLength == 2) {
        const unsigned s = chk2(checked, span) & 0xFFFu;
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>((s >> 6) & 63u)));
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>(s & 63u)));
    } else {
        const unsigned c = crc(checked, span);
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>((c >> 12) & 15u)));
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>((c >> 6) & 63u)));
        *p++ = static_cast<uint8_t>(tochar(static_cast<int>(c & 63u)));
    }
    *p++ = sndeol;
    sndlen = static_cast<int32_t>(p - sndbuf);
    return ttol(sndbuf, sndlen);
}

int KermitEngine::ttinl(uint8_t *dest, int max, int timeout, uint8_t start) {
    trace("ttinl read timo = %d\n", timeout);
    dest[0] = 0;
    int count = 0;
    bool started = false;
    bool lengthKnown = false;
    int length = 0;
    int lengthHigh = 0;
    int ctrlC = 0;
    int result = 0;

    for (;;) {
        uint8_t c;
        // The bytes the host already handed over are taken straight from
        // its block; only an empty block goes through the timed read.
        if (readBlock.Length > 0) {
            c = *readBlock.Data++;
            --readBlock.Length;
        } else if (ReadDataFromStack(&c, 1, timeout) < 0) {
            trace("ttinl - Error reading 1 byte from stack. %d\n", errorNumber);
            result = -2;
            break;
        }

        ctrlC = c == 3 ? ctrlC + 1 : 0;
        if (ctrlC >= 3) {
            trace("^C...\n");
            trace("ttinl interrupted\n");
            dest[0] = 0;
            result = -1;
            break;
        }
        if (!started) {
            if (c != start) continue;
            started = true;
        }
        if (count >= max) {
            trace("ttinl overflow\n");
            result = -2;
            break;
        }
        dest[count++] = c;

        // The length, read with the parity bit removed.
        if (count == 2) {
            length = unchar(c & 127);
            if (length > 1) {
                lengthKnown = true;
                trace("ttinl length = %d\n", length);
            }
        } else if (count == 5 && length == 0) {
            lengthHigh = unchar(c & 127);
        } else if (count == 6 && length == 0) {
            length = lengthHigh * 95 + unchar(c & 127) + 5;
            lengthKnown = true;
            trace("ttinl length = %d\n", length);
        }
        if (lengthKnown) {
            // The rest of the packet, as far as the host's block holds it,
            // in one copy when it has no Ctrl-C that could start an
            // interrupt (encoded data never carries one).
            const int want = std::min(length + 2, max) - count;
            if (want > 0 && readBlock.Length > 0) {
                const auto take = std::min(static_cast<uint32_t>(want), readBlock.Length);
                if (std::memchr(readBlock.Data, 3, take) == nullptr) {
                    std::memcpy(dest + count, readBlock.Data, take);
                    readBlock.Data += take;
                    readBlock.Length -= take;
                    count += static_cast<int>(take);
                    ctrlC = 0;
                }
            }
            if (count > length + 1) {
                dest[count] = 0;
                result = count;
                break;
            }
        }
    }

    const uint32_t now = plat::GetTickCount();
    if (nextcheck == 0 || plat::TickReached(now, nextcheck)) {
        hostcheck();
        nextcheck = now + kHostCheckEveryMs;
    }
    if (count > 0) {
        const int shown = std::clamp(count - 2, 0, kTracedChars);
        trace("PKT<-[^A%.*s](%d) rc=%d\n", shown, reinterpret_cast<const char *>(dest + 1), count,
              result);
    }
    return result;
}

int KermitEngine::rpacket() {
    rseq = -1;
    rdlen = -1;
    rcvbuf[0] = 0;
    // One character of the buffer stays free for the terminating NUL.
    const int limit = std::clamp(rcvlimit, 0, static_cast<int>(sizeof rcvbuf) - 1);
    const int n = ttinl(rcvbuf, limit, timo, kMark);
    if (n == -1) return 'T';
    if (n < 5) {
        trace("rpacket runt\n");
        return 'Q';
    }

    const int checkLength = chkuse == 2 || chkuse == 3 ? chkuse : 1;
    const int len = unchar(rcvbuf[1] & 127);
    int dataStart;
    int dataLength;
    if (len != 0) {
        if (len < 3) {
            trace("rpacket bad xlength\n");
            return 'Q';
        }
        dataLength = len - checkLength - 2;
        dataStart = 4;
    } else {
        // The header check sits at index 6: a long packet needs all seven.
        if (n < 7) {
            trace("rpacket bad length\n");
            return 'Q';
        }
        const unsigned header =
            static_cast<unsigned>(tochar(static_cast<int>(chk1(rcvbuf + 1, 5))));
        if (rcvbuf[6] != header) {
            trace("rpacket header checksum: %u\n", static_cast<unsigned>(rcvbuf[6]));
            return 'Q';
        }
        dataLength = unchar(rcvbuf[4] & 127) * 95 + unchar(rcvbuf[5] & 127) - checkLength;
        dataStart = 7;
    }
    // The length must account for exactly what arrived: a length too short
    // for the check field (or one the reader saw differently) is damage.
    if (dataLength < 0 || dataStart + dataLength + checkLength != n) {
        trace("rpacket bad length\n");
        return 'Q';
    }

    rseq = unchar(rcvbuf[2]);
    const int type = rcvbuf[3];
    rdlen = dataLength;
    trace("rpacket type=%c, seq=%02d, len=%d\n", type, rseq, rdlen);

    rdata = rcvbuf + dataStart;
    uint8_t check[3];
    std::memcpy(check, rdata + rdlen, static_cast<std::size_t>(checkLength));
    rdata[rdlen] = 0;

    const uint8_t *const checked = rcvbuf + 1;
    const int span = dataStart + rdlen - 1;
    if (checkLength == 1) {
        const unsigned got = static_cast<unsigned>(unchar(check[0]));
        const unsigned want = chk1(checked, span);
        if (got != want) {
            trace("rpacket chksum error. chk1 (0x%x:0x%x)\n", got, want);
            return 'Q';
        }
    } else if (checkLength == 2) {
        const unsigned got = static_cast<unsigned>(unchar(check[0]) * 64 + unchar(check[1]));
        const unsigned want = chk2(checked, span) & 0xFFFu;
        if (got != want) {
            trace("rpacket chksum error. chk2 (0x%x:0x%x)\n", got, want);
            return 'Q';
        }
    } else {
        const unsigned got = static_cast<unsigned>(
            (unchar(check[0]) * 4096 + unchar(check[1]) * 64 + unchar(check[2])) & 0xFFFF);
        const unsigned want = crc(checked, span);
        if (got != want) {
            trace("rpacket chksum error. crc (0x%x:0x%x)\n", got, want);
            return 'Q';
        }
    }
    return type;
}

} // namespace zvxfer::kermit
