// The sending side: S, then for every file F, A, D... and Z, then B.
#include <charconv>
#include <cstring>

#include "kermit/engine.h"
#include "port/port.h"

namespace zvxfer::kermit {

namespace {

const uint8_t *Bytes(const char *s) {
    return reinterpret_cast<const uint8_t *>(s);
}

} // namespace

int KermitEngine::sinit() {
    trace("Escape back to your local Kermit and give a RECEIVE command.\n");
    trace("\n");
    trace("KERMIT READY TO SEND...\n");
    // A second for the user to start the other side before S goes out.
    PumpDelay(1000);
    const char *init = mypar();
    return spacket('S', 0, static_cast<int>(std::strlen(init)), Bytes(init));
}

// The next name of the list that is a readable file.  Every name taken
// counts as a file, even one passed over.  A stop of the batch asked for by
// the receiver holds although the host poll after the Z resets cz.
int KermitEngine::nextfile() {
    if (cz || peerStoppedBatch) return 0;
    while (sendLeft > 0 && sendNext != nullptr) {
        const char *name = sendNext;
        const size_t length = std::strlen(name);
        sendNext += length + 1;
        --sendLeft;
        const size_t kept = length < kNameSize - 2 ? length : kNameSize - 2;
        std::memcpy(filnam, name, kept);
        filnam[kept] = '\0';
        if (record != nullptr) {
            record->FileName = filnam;
            ++record->FileCount;
        }
        if (zchki(filnam) >= 0) return 1;
    }
    return 0;
}

int KermitEngine::sfile() {
    trace("sfile filnam [%s] max = %d\n", filnam, kPathSize);
    if (zopeni(filnam) < 0) {
        trace("sfile error %d\n", -999);
        kerror("Failure to open file");
        return -1;
    }
    char pktnam[kNameSize];
    zltor(filnam, pktnam, kPathSize);
    trace("sfile pktnam %s\n", pktnam);
    const int x = encstr(pktnam);
    trace("sfile encstr[%s] x=%d\n", reinterpret_cast<const char *>(data), x);
    fillstate = 1; // the D packets take their bytes from the file
    maxdata = sndmax - (chkwant + 3);
    if (sndmax > 94) maxdata -= 4; // the long form's extended header
    nextseq();
    return spacket('F', seq, x, data);
}

int KermitEngine::sattr() {
    nextseq();
    trace("sattr seq %d\n", seq);
    char attributes[40];
    int n = 0;
    auto put = [&](int c) { attributes[n++] = static_cast<char>(c); };
    put('"'); // file type
    if (!textmode) {
        put(tochar(2));
        put('B');
        put('8');
    } else {
        put(tochar(3));
        put('A');
        put('M');
        put('J');
        put('*'); // encoding
        put(tochar(1));
        put('A');
    }
    if (fileSize != -1) {
        char digits[16];
        const auto [end, ec] = std::to_chars(digits, digits + sizeof digits, fileSize);
        const int count = ec == std::errc() ? static_cast<int>(end - digits) : 0;
        put('1'); // length in bytes
        put(tochar(count));
        for (int i = 0; i < count; ++i) put(digits[i]);
    }
    attributes[n] = '\0';
    trace("sattr data %s\n", attributes);
    return spacket('A', seq, n, Bytes(attributes));
}

int KermitEngine::sdata() {
    if (cx || cz) {
        trace("sdata interrupted cx = %d cz = %d\n", cx, cz);
        failed = 1;
        return 0;
    }
    const int x = getpkt(maxdata);
    if (x >= 1) {
        nextseq();
        return spacket('D', seq, x, data);
    }
    trace("sdata getpkt = %d\n", x);
    return 0;
}

int KermitEngine::seof(const char *s) {
    trace("seof [%s]\n", s);
    if (zclosi() < 0) {
        trace("seof zclosi failure %d\n", errorNumber);
        kerror("Failure to close input file");
        return -1;
    }
    nextseq();
    const int r = spacket('Z', seq, static_cast<int>(std::strlen(s)), Bytes(s));
    trace("seof spacket %d\n", r);
    return r;
}

int KermitEngine::seot() {
    nextseq();
    return spacket('B', seq, 0, Bytes(""));
}

} // namespace zvxfer::kermit
