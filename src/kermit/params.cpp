// The send-init parameters: what this side announces in S (and in the Y
// that answers one), and what it takes from the peer's.
#include <cstring>

#include "kermit/engine.h"

namespace zvxfer::kermit {

namespace {

// Characters a peer may choose as a prefix.
bool PrefixCharacter(int c) {
    return (c >= 33 && c <= 62) || (c >= 96 && c <= 126);
}

} // namespace

const char *KermitEngine::mypar() {
    char *p = myparBuffer;
    p[0] = static_cast<char>(tochar(rcvmax > 94 ? 94 : rcvmax));
    p[1] = static_cast<char>(tochar(peertimo));
    p[2] = static_cast<char>(tochar(0)); // no padding wanted
    p[3] = static_cast<char>(ctl(0));
    p[4] = static_cast<char>(tochar(13)); // packets end with CR
    p[5] = static_cast<char>(sndctlq);
    p[6] = static_cast<char>(qbinmine);
    p[7] = static_cast<char>('0' + chkwant);
    p[8] = static_cast<char>(rpton ? rptchar : '~');
    p[9] = static_cast<char>(tochar(8 | 2)); // attribute packets, long packets
    p[10] = static_cast<char>(tochar(1));    // window of one packet
    p[11] = static_cast<char>(tochar(rcvlong > 94 ? rcvlong / 95 : 0));
    p[12] = static_cast<char>(tochar(rcvlong > 94 ? rcvlong % 95 : 0));
    p[13] = '0'; // no checkpointing
    p[14] = '+';
    p[15] = '+';
    p[16] = '+';
    p[17] = static_cast<char>(tochar(32 + (textmode ? 0 : 2)));
    p[18] = static_cast<char>(tochar(2));
    p[19] = 'U';
    p[20] = '1';
    p[21] = static_cast<char>(tochar(33));
    p[22] = '\0';
    return myparBuffer;
}

// Reads the peer's parameters, `rdlen` characters at `s`; a field past the
// end is absent and takes its default.
void KermitEngine::spar(const uint8_t *s) {
    const int n = rdlen < 0 ? 0 : rdlen;
    auto has = [&](int pos) { return pos <= n; };
    auto at = [&](int pos) { return static_cast<int>(s[pos - 1]); };

    int v = has(1) ? unchar(at(1)) : 80;
    sndmax = v >= 10 ? v : 80;

    v = has(2) ? unchar(at(2)) : 5;
    if (timo > 0) timo = v >= 0 ? v : 5;

    padcount = has(3) ? unchar(at(3)) : 0;
    if (padcount < 0) padcount = 0;
    padchar = has(3) && has(4) ? static_cast<uint8_t>(ctl(at(4))) : 0;

    v = has(5) ? unchar(at(5)) : 13;
    sndeol = static_cast<uint8_t>(v >= 2 && v < 32 ? v : 13);

    const int q = has(6) ? at(6) : '#';
    rcvctlq = static_cast<uint8_t>(PrefixCharacter(q) ? q : '#');

    qbinpeer = static_cast<uint8_t>(has(7) ? at(7) : 0);
    qbinmode = qbinpeer == 'Y' ? 1 : PrefixCharacter(qbinpeer) ? 2 : 0;
    if (qbinmode == 0) ebqon = 0;
    if (qbinmode == 2 && (ebq == qbinmine || qbinmine == 'Y')) {
        ebqon = 1;
        ebq = qbinpeer;
    }

    v = has(8) ? at(8) - '0' : 1;
    if (v < 1 || v > 3) v = 1;
    if (chkwant > 1 && chkwant != v) v = 1; // what this side asked for, or the plain one
    chkwant = v;

    if (has(9)) {
        rptchar = static_cast<uint8_t>(at(9));
        rpton = PrefixCharacter(rptchar) ? 1 : 0;
    } else {
        rpton = 0;
    }

    // Capabilities: a byte with bit 0 set is followed by another one; the
    // fields after them are counted from the last.
    int k = n;
    if (has(10)) {
        const int c = unchar(at(10));
        if (c & 8) attrok = 1;
        if (c & 2) longok = 1;
        k = 10;
        while ((unchar(at(k)) & 1) != 0 && k < n) ++k;
    }
    trace("spar attributes=%d longpackets=%d\n", attrok, longok);

    if (n > k + 1 && longok) {
        const int high = unchar(at(k + 2));
        const int low = has(k + 3) ? unchar(at(k + 3)) : 0;
        v = high * 95 + low;
        sndmax = v > kLongestPacket ? kLongestPacket : v;
        if (sndmax < 10) sndmax = 80;
    }

    if (n > k + 8) {
        const int idLength = unchar(at(k + 9));
        if (idLength >= 1 && idLength <= 15 && n >= k + 9 + idLength) {
            char id[16];
            std::memcpy(id, s + k + 9, static_cast<size_t>(idLength));
            id[idLength] = '\0';
            trace("spar sysid [%s]\n", id);
            if (std::strcmp(id, "D7") == 0) crlocal = 0;
        }
    }
}

} // namespace zvxfer::kermit
