// The data field of a Kermit packet: file bytes become printable
// characters with three prefixes (control, eighth bit, repeat count) on the
// sending side and go back to bytes on the receiving side.
//
// Sending fills the outgoing data field up to a limit; the encoding of the
// byte that would pass the limit is carried over to the next packet, so an
// encoded byte is never split between two packets.
#include <algorithm>
#include <cstring>

#include "kermit/engine.h"

namespace zvxfer::kermit {

namespace {

// The encoding of one byte without a repeat count, into `out`; returns the
// number of characters (1 to 3).
int EncodeByte(int c, uint8_t ctlq, bool eighthBit, uint8_t ebq, bool repeats, uint8_t rpt,
               uint8_t *out) {
    int n = 0;
    const int c7 = c & 127;
    if (eighthBit && (c & 128) != 0) {
        out[n++] = ebq;
        c = c7;
    }
    if (c7 < 32 || c7 == 127) {
        out[n++] = ctlq;
        c = ctl(c);
    } else if (c7 == ctlq || (eighthBit && c7 == ebq) || (repeats && c7 == rpt)) {
        out[n++] = ctlq;
    }
    out[n++] = static_cast<uint8_t>(c);
    return n;
}

} // namespace

void KermitEngine::encode(int c, int next) {
    if (rpton != 0) {
        if (c == next) {
            if (++rptcount < 94) return; // held back: more of the same may follow
            data[dsize++] = rptchar;
            data[dsize++] = static_cast<uint8_t>(tochar(94));
            rptcount = 0;
        } else if (rptcount == 1) {
            // A pair is cheaper as two plain bytes than as a repeat group;
            // a packet may end between them.
            rptcount = 0;
            encode(c, -1);
            if (dsize <= maxdata) dsizeprev = dsize;
            encode(c, -1);
            return;
        } else if (rptcount > 1) {
            data[dsize++] = rptchar;
            data[dsize++] = static_cast<uint8_t>(tochar(rptcount + 1));
            rptcount = 0;
        }
    }
    dsize += EncodeByte(c, sndctlq, ebqon != 0, ebq, rpton != 0, rptchar, data + dsize);
    data[dsize] = 0;
}

int KermitEngine::getpkt(int limit) {
    // Room for the longest group encode may add past the limit, and a NUL.
    limit = std::min(limit, static_cast<int>(sizeof data) - 16);
    auto next = [this]() -> int {
        if (stringSource == nullptr) return zgetc();
        if (*stringSource == 0) return -1;
        return *stringSource++;
    };

    if (fillstate == 1) {
        fillstate = 0;
        carry[0] = 0;
        prevc = next();
        if (prevc < 0) {
            fillstate = -1;
            dsize = 0;
            return 0;
        }
    } else if (fillstate == -1 && carry[0] == 0) {
        dsize = 0;
        return 0;
    }

    const std::size_t carried = std::strlen(reinterpret_cast<const char *>(carry));
    std::memcpy(data, carry, carried + 1);
    dsize = static_cast<int32_t>(carried);
    carry[0] = 0;
    if (fillstate == -1) return dsize;

    rptcount = 0;
    for (;;) {
        const int c = next();
        if (c < 0) fillstate = -1;
        dsizeprev = dsize;
        encode(prevc, c);
        prevc = c;
        if (dsize == limit) return dsize;
        if (dsize > limit) break;
        if (fillstate == -1) return dsize;
    }

    // The last group passed the limit: it starts the next packet.
    const int over = dsize - dsizeprev;
    std::memcpy(carry, data + dsizeprev, static_cast<std::size_t>(over));
    carry[over] = 0;
    dsize = dsizeprev;
    data[dsize] = 0;
    return dsize;
}

int KermitEngine::encstr(const char *s) {
    fillstate = 1;
    stringSource = reinterpret_cast<const uint8_t *>(s);
    getpkt(sndmax);
    stringSource = nullptr;
    return dsize;
}

int KermitEngine::decode(int n) {
    const uint8_t *p = rdata;
    const uint8_t *const end = rdata + std::max(n, 0);
    rptcount = 0;
    if (memorySink != nullptr && memorySinkRoom > 0) *memorySink = 0;
    while (p < end) {
        int a = *p++;
        if (rpton != 0 && a == rptchar) {
            if (p == end) {
                trace("decode rpt error A\n");
                return -1;
            }
            rptcount = unchar(*p++);
            if (p == end) {
                trace("decode rpt error B\n");
                return -1;
            }
            a = *p++;
        }
        int top = 0;
        if (ebqon != 0 && a == ebq) {
            if (p == end) {
                trace("decode ebq error\n");
                return -1;
            }
            a = *p++;
            top = 128;
        }
        if (a == rcvctlq) {
            if (p == end) {
                trace("decode ctl error\n");
                return -1;
            }
            a = *p++;
            const int a7 = a & 127;
            if (a7 >= 63 && a7 <= 95) a = ctl(a);
        }
        if (rptcount == 0) rptcount = 1;
        const uint8_t byte = static_cast<uint8_t>((a | top) & 255);

        if (textmode != 0 && crlocal == 0 && byte == 13) {
            rptcount = 0; // the whole run of CRs goes
            continue;
        }
        if (memorySink != nullptr) {
            // A bounded sink keeps its terminating NUL; what does not fit is
            // dropped.
            for (; rptcount > 0; --rptcount) {
                if (memorySinkRoom > 1) {
                    *memorySink++ = byte;
                    --memorySinkRoom;
                }
            }
            if (memorySinkRoom > 0) *memorySink = 0;
            continue;
        }
        for (; rptcount > 0; --rptcount) {
            if (zputc(byte) < 0) {
                trace("decode putc a=%u errno=%u\n", static_cast<unsigned>(byte),
                      static_cast<unsigned>(errorNumber));
                failed = 1;
                return -1;
            }
        }
    }
    return 0;
}

} // namespace zvxfer::kermit
