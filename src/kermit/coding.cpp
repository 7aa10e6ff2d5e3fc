// The data field of a Kermit packet: file bytes become printable
// characters with three prefixes (control, eighth bit, repeat count) on the
// sending side and go back to bytes on the receiving side.
//
// Sending fills the outgoing data field up to a limit; the encoding of the
// byte that would pass the limit is carried over to the next packet, so an
// encoded byte is never split between two packets.
#include <algorithm>
#include <array>
#include <cstring>

#include "kermit/engine.h"

namespace zvxfer::kermit {

namespace {

// A byte's encoding without a repeat count: its characters, then how many
// there are.  It is stored whole (four bytes): the field always has room
// past its limit, and characters past the group are overwritten or cut off
// later.
struct Group {
    uint8_t chars[3];
    uint8_t count;
};
static_assert(sizeof(Group) == 4);

// The sending prefixes and the state of the field being filled, held in
// locals: the field's bytes may alias any member of the engine, so a loop
// that kept its counters in the engine would reload them at every byte.
struct Encoder {
    uint8_t *out;
    int size;      // characters in the field
    int before;    // size before the last group: where the field may end
    int repeat;    // equal bytes held back
    int pairBreak; // a pair may be split only while the field is within this
    int ctlq;      // control prefix
    int ebq;       // eighth-bit prefix, -1 when off
    int rpt;       // repeat prefix, -1 when off
    // Every byte's group, when the caller made the table (MakeGroups): a
    // byte then costs a look-up and a store instead of a branch per prefix.
    const Group *groups = nullptr;

    // One byte without a repeat count: 1 to 3 characters.
    void Byte(int c) {
        if (groups != nullptr) {
            std::memcpy(out + size, &groups[c], sizeof(Group));
            size += groups[c].count;
            return;
        }
        size += Encode(c, out + size);
    }

    // The characters of byte c at `to`; returns how many.
    int Encode(int c, uint8_t *to) const {
        int n = 0;
        const int c7 = c & 127;
        if (ebq >= 0 && (c & 128) != 0) {
            to[n++] = static_cast<uint8_t>(ebq);
            c = c7;
        }
        if (c7 < 32 || c7 == 127) {
            to[n++] = static_cast<uint8_t>(ctlq);
            c = ctl(c);
        } else if (c7 == ctlq || c7 == ebq || c7 == rpt) {
            to[n++] = static_cast<uint8_t>(ctlq);
        }
        to[n++] = static_cast<uint8_t>(c);
        return n;
    }

    void MakeGroups(std::array<Group, 256> &table) const {
        for (int c = 0; c < 256; ++c) {
            Group &g = table[static_cast<std::size_t>(c)];
            g = Group{};
            g.count = static_cast<uint8_t>(Encode(c, g.chars));
        }
    }

    // Byte c followed by `next` (-1 at the end of the input).
    void Add(int c, int next) {
        if (rpt >= 0) {
            if (c == next) {
                if (++repeat < 94) return; // held back: more of the same may follow
                out[size++] = static_cast<uint8_t>(rpt);
                out[size++] = static_cast<uint8_t>(tochar(94));
                repeat = 0;
            } else if (repeat == 1) {
                // A pair is cheaper as two plain bytes than as a repeat
                // group; a packet may end between them.
                repeat = 0;
                Byte(c);
                if (size <= pairBreak) before = size;
                Byte(c);
                return;
            } else if (repeat > 1) {
                out[size++] = static_cast<uint8_t>(rpt);
                out[size++] = static_cast<uint8_t>(tochar(repeat + 1));
                repeat = 0;
            }
        }
        Byte(c);
    }
};

} // namespace

void KermitEngine::encode(int c, int next) {
    Encoder e{data,
              dsize,
              dsizeprev,
              rptcount,
              maxdata,
              sndctlq,
              ebqon != 0 ? ebq : -1,
              rpton != 0 ? rptchar : -1};
    e.Add(c, next);
    dsize = e.size;
    dsizeprev = e.before;
    rptcount = e.repeat;
    data[dsize] = 0;
}

int KermitEngine::getpkt(int limit) {
    // Room for the longest group encode may add past the limit (a pair of
    // three-character groups, the last stored whole), and a NUL.
    limit = std::min(limit, static_cast<int>(sizeof data) - 16);
    // The input file's bytes are taken from the read buffer through locals,
    // which go back to the engine before the buffer is refilled and before
    // returning.
    const uint8_t *text = stringSource;
    const uint8_t *in = bufferPos;
    const uint8_t *inEnd = bufferPos + std::max(bufferCount, 0);
    auto settle = [&] {
        if (text != nullptr) {
            stringSource = text;
            return;
        }
        bufferPos = const_cast<uint8_t *>(in);
        bufferCount = static_cast<int32_t>(inEnd - in);
    };
    auto next = [&]() -> int {
        if (text != nullptr) {
            if (*text == 0) return -1;
            return *text++;
        }
        if (in != inEnd) return *in++;
        bufferCount = 0;
        const int c = zfill();
        in = bufferPos;
        inEnd = bufferPos + std::max(bufferCount, 0);
        return c;
    };

    if (fillstate == 1) {
        fillstate = 0;
        carry[0] = 0;
        prevc = next();
        settle();
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

    Encoder e{
        data, dsize, dsize, 0, maxdata, sndctlq, ebqon != 0 ? ebq : -1, rpton != 0 ? rptchar : -1};
    std::array<Group, 256> groups;
    e.MakeGroups(groups);
    e.groups = groups.data();
    int held = prevc;
    bool ended = false;
    bool full = false;
    for (;;) {
        const int c = next();
        ended = c < 0;
        e.before = e.size;
        e.Add(held, c);
        held = c;
        if (e.size >= limit || ended) {
            full = e.size > limit;
            break;
        }
    }
    settle();
    if (ended) fillstate = -1;
    prevc = held;
    rptcount = e.repeat;
    dsizeprev = e.before;
    dsize = e.size;
    if (full) {
        // The last group passed the limit: it starts the next packet.
        const int over = dsize - dsizeprev;
        std::memcpy(carry, data + dsizeprev, static_cast<std::size_t>(over));
        carry[over] = 0;
        dsize = dsizeprev;
    }
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
    // The prefixes as locals (-1 when off): the loop runs once per character.
    const int rpt = rpton != 0 ? rptchar : -1;
    const int eb = ebqon != 0 ? ebq : -1;
    const int ctlq = rcvctlq;
    const bool dropCr = textmode != 0 && crlocal == 0;
    rptcount = 0;
    if (memorySink != nullptr && memorySinkRoom > 0) *memorySink = 0;

    // Bytes for the file go straight into the write buffer through a local
    // pointer; the buffer's count and the record's FilePos catch up at the
    // end and before anything else looks at them (zputc, which writes out a
    // full buffer).  Characters that stand for themselves (no prefix, no CR
    // to drop) are copied a run at a time.
    const bool toFile = memorySink == nullptr && outputFile != XFER_INVALID_FILE;
    std::array<bool, 256> special{};
    for (const int c : {rpt, eb, ctlq})
        if (c >= 0 && c < 256) special[static_cast<std::size_t>(c)] = true;
    if (dropCr) special[13] = true;
    uint8_t *const room = writeBuffer + sizeof writeBuffer;
    uint8_t *w = writeBuffer + writeCount;
    uint8_t *settled = w;
    auto settle = [&] {
        if (!toFile) return;
        const auto added = static_cast<int32_t>(w - settled);
        writeCount += added;
        if (record) record->FilePos += added;
        settled = w;
    };

    while (p < end) {
        if (toFile && !special[*p] && w < room) {
            // Runs are short in binary data: copied as they are scanned.
            const uint8_t *const stop = p + std::min<std::ptrdiff_t>(end - p, room - w);
            do {
                *w++ = *p++;
            } while (p < stop && !special[*p]);
            continue;
        }
        int a = *p++;
        int count = 1;
        if (a == rpt) {
            if (p == end) {
                settle();
                trace("decode rpt error A\n");
                return -1;
            }
            count = unchar(*p++);
            if (count == 0) count = 1;
            if (p == end) {
                settle();
                trace("decode rpt error B\n");
                return -1;
            }
            a = *p++;
        }
        int top = 0;
        if (a == eb) {
            if (p == end) {
                settle();
                trace("decode ebq error\n");
                return -1;
            }
            a = *p++;
            top = 128;
        }
        if (a == ctlq) {
            if (p == end) {
                settle();
                trace("decode ctl error\n");
                return -1;
            }
            a = *p++;
            const int a7 = a & 127;
            if (a7 >= 63 && a7 <= 95) a = ctl(a);
        }
        const auto byte = static_cast<uint8_t>((a | top) & 255);
        if (byte == 13 && dropCr) continue; // the whole run of CRs goes

        if (memorySink != nullptr) {
            // A bounded sink keeps its terminating NUL; what does not fit is
            // dropped.
            for (; count > 0 && memorySinkRoom > 1; --count) {
                *memorySink++ = byte;
                --memorySinkRoom;
            }
            if (memorySinkRoom > 0) *memorySink = 0;
            continue;
        }
        if (toFile && room - w >= count) {
            if (count == 1)
                *w++ = byte;
            else
                w = std::fill_n(w, count, byte);
            continue;
        }
        settle();
        for (; count > 0; --count) {
            if (zputc(byte) < 0) {
                trace("decode putc a=%u errno=%u\n", static_cast<unsigned>(byte),
                      static_cast<unsigned>(errorNumber));
                failed = 1;
                return -1;
            }
        }
        w = settled = writeBuffer + writeCount;
    }
    settle();
    return 0;
}

} // namespace zvxfer::kermit
