// The Kermit engine: one object per transfer, built on the entry's stack,
// holding every buffer it needs as a fixed array (nothing is allocated per
// packet).  Its operations keep the short names of the engine's trace lines.
//
// The object is split by concern across the folder:
//   packet.cpp      framing, reading and checking packets (spacket, ttinl,
//                   rpacket) and the three block checks
//   coding.cpp      the data field: prefixing and repeat counts (encode,
//                   getpkt, encstr, decode)
//   exchange.cpp    the table-driven protocol loop and the replies both
//                   sides share (wart, input, resend, nak, ack, ...)
//   params.cpp      the send-init parameters (mypar, spar)
//   send_side.cpp   sinit, nextfile, sfile, sattr, sdata, seof, seot
//   receive_side.cpp rcvfil, rdattr, closof
//   link.cpp        the host link (ReadDataFromStack, WriteDataToStack,
//                   ttol, hostcheck, ttflui)
//   files.cpp       local files (zchki, zchko, zopeni, zopeno, zgetc,
//                   zfill, zclosi, zcloso)
//   names.cpp       name conversions and backups (zltor, zlocal, zbackup)
//   entries.cpp     KermitSendWithOptions, KermitReceiveWithOptions
#pragma once
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::kermit {

// Character conventions of the Kermit wire.
constexpr int tochar(int x) {
    return x + 32;
}
constexpr int unchar(int c) {
    return c - 32;
}
constexpr int ctl(int c) {
    return c ^ 64;
}

inline constexpr uint8_t kMark = 0x01; // SOH starts every packet
inline constexpr int kMaxRetries = 5;
inline constexpr int kLongestPacket = 9000; // most characters one packet may hold
inline constexpr int kNameSize = 261;       // file name fields, with the terminator
inline constexpr int kPathSize = 260;       // output path and scratch names
inline constexpr int kFileBufferSize = 4084;
inline constexpr int kHostCheckEveryMs = 100;

class KermitEngine {
  public:
    // ---- set up by the entry ------------------------------------------
    XferRecord *record = nullptr; // FilePos, FileSize, FileCount, FileName, Port
    ZvHwnd hostWindow = nullptr;  // target of the port message
    bool tracing = false;         // trace lines go to the debug log

    // ---- packet layer -------------------------------------------------
    uint8_t sndbuf[9016] = {}; // last packet sent (for resend); [0] == 0: none
    int32_t sndlen = 0;
    uint8_t rcvbuf[9018] = {}; // packet being received, from its MARK
    int32_t rcvlimit = kLongestPacket;
    uint8_t data[9016] = {};  // outgoing data field
    uint8_t *rdata = nullptr; // first DATA character of the last packet received
    int32_t rdlen = 0;
    int32_t rseq = -1;
    int32_t seq = 0;
    int32_t chkuse = 1;
    int32_t dsize = 0, dsizeprev = 0;
    int32_t maxdata = 0;
    int32_t fillstate = 0; // 1 start a new input, 0 running, -1 input ended
    uint8_t carry[8] = {}; // encoded byte (or pair) that did not fit, NUL-terminated
    int32_t prevc = -1;
    int32_t rptcount = 0;
    const uint8_t *stringSource = nullptr; // encstr's input instead of the file
    uint8_t *memorySink = nullptr;         // decode's output instead of the file
    int32_t memorySinkRoom = 0;            // bytes the sink can still take, its NUL included

    // ---- negotiated parameters and protocol state -----------------------
    int32_t sndmax = 90;
    int32_t rcvmax = 94;
    int32_t rcvlong = 4000;
    int32_t timo = 9;
    int32_t peertimo = 7;
    int32_t padcount = 0;
    uint8_t padchar = 0;
    uint8_t sndeol = 13;
    uint8_t rcvctlq = '#';
    uint8_t sndctlq = '#';
    uint8_t ebq = '&';
    int32_t ebqon = 0;
    uint8_t qbinmine = 'Y';
    uint8_t qbinpeer = 0;
    int32_t qbinmode = -1;
    uint8_t rptchar = '~';
    int32_t rpton = 0;
    int32_t chkwant = 3;
    int32_t attrok = 0;
    int32_t longok = 0;
    int32_t textmode = 0;
    int32_t crlocal = 1;
    int32_t state = 0;
    uint8_t startev = 0;
    int32_t retries = 0;
    int32_t cx = 0, cz = 0;
    int32_t failed = 0;
    int32_t xsent = 0;
    char filnam[kNameSize] = "";
    // Set by kerror: the exchange is over and wart returns 1.
    bool exitRequested = false;
    // The receiver's Y "Z": no further file is sent, whatever the host polls
    // make of cz afterwards.
    bool peerStoppedBatch = false;

    // The names to send: a run of NUL-terminated names split in place in the
    // caller's list (see entries.cpp), walked in order.
    char *sendNext = nullptr;
    int32_t sendLeft = 0;

    // ---- link and file glue --------------------------------------------
    PortBlock readBlock{};
    uint32_t nextcheck = 0;
    // link.cpp: a close or quit request came while waiting for the host;
    // from then on a read that would wait fails at once.
    bool hostClosing = false;
    XferFile inputFile = XFER_INVALID_FILE;
    XferFile outputFile = XFER_INVALID_FILE;
    char outputPath[kPathSize] = "";
    uint8_t readBuffer[kFileBufferSize] = {};
    int32_t bufferCount = 0;
    uint8_t *bufferPos = nullptr;
    uint8_t writeBuffer[4096] = {}; // output bytes not yet written
    int32_t writeCount = 0;
    int32_t fileSize = -1;
    char workName[kPathSize] = "";
    int32_t keep = 0;
    int errorNumber = 0;
    // files.cpp: whether the output file was made new (a discarded one is
    // then removed; a discarded replacement leaves the old file), and file
    // bytes read ahead so that text mode's line reads need no call per byte.
    bool outputIsNew = false;
    bool inputFailed = false; // a read of the input file failed: closing it reports it
    uint8_t textStage[kFileBufferSize] = {};
    int32_t stageCount = 0, stagePos = 0;

    // ---- packet layer (packet.cpp, coding.cpp) --------------------------
    int spacket(int type, int n, int len, const uint8_t *d);
    int ttinl(uint8_t *dest, int max, int timeout, uint8_t eol);
    int rpacket();
    unsigned chk1(const uint8_t *p, int n);
    unsigned chk2(const uint8_t *p, int n);
    unsigned crc(const uint8_t *p, int n);
    void encode(int c, int next);
    int getpkt(int limit);
    int encstr(const char *s);
    int decode(int n);

    // ---- protocol (exchange.cpp, params.cpp, send_side.cpp,
    //      receive_side.cpp) ---------------------------------------------
    int wart();
    // The action for an event in a state: 1..22, or -1 when it is ignored.
    static int wartAction(int state, int event);
    int input();
    int resend();
    int nak();
    int ack();
    int ackdata(const char *s);
    void nextseq();
    void kreset();
    void kerror(const char *text);
    void spar(const uint8_t *s);
    const char *mypar();
    int sinit();
    int nextfile();
    int sfile();
    int sattr();
    int sdata();
    int seof(const char *s);
    int seot();
    int rcvfil();
    int rdattr(const uint8_t *s);
    int closof();

    // ---- link glue (link.cpp) -------------------------------------------
    int ReadDataFromStack(uint8_t *buffer, int size, int timeout);
    int WriteDataToStack(const uint8_t *d, int n);
    int ttol(const uint8_t *packet, int n);
    void hostcheck();
    int ttflui();

    // ---- file glue (files.cpp, names.cpp) -------------------------------
    long zchki(const char *name);
    int zchko(const char *name);
    int zopeni(const char *name);
    int zopeno(const char *name);
    // The next byte of the input file, or -1 at its end.  It runs once per
    // byte sent, so taking a byte from the buffer is inline.
    int zgetc() {
        if (bufferCount <= 0) return zfill();
        --bufferCount;
        return *bufferPos++;
    }
    int zfill();
    int zclosi();
    int zcloso(int discard);
    // Write one decoded byte to the output file through writeBuffer, adding
    // 1 to the record's FilePos; -1 on a write failure.  It runs once per
    // received byte, so the common case is inline.
    int zputc(uint8_t c) {
        if (writeCount >= static_cast<int32_t>(sizeof writeBuffer) ||
            outputFile == XFER_INVALID_FILE)
            return zputcFlushing(c);
        writeBuffer[writeCount++] = c;
        if (record) ++record->FilePos;
        return 0;
    }
    int zputcFlushing(uint8_t c); // zputc with a full buffer written out first
    void zltor(const char *name, char *out, int max);
    int zlocal(const char *name, char *out, int backup, int max);
    int zbackup(const char *name);
    // Close whatever the exchange left open when it ended on an error: the
    // input file, and the output file, which is then removed as incomplete.
    void closeLeftovers();
    // Where a received local name is written: the receive folder's text
    // followed by the name, or the folder text alone when it names no
    // folder; false when that cannot be held in kPathSize bytes.
    bool receivePath(const char *name, char *out);

    // A trace line to the debug log while tracing is on.
    void trace(const char *format, ...) __attribute__((format(printf, 2, 3)));

  private:
    char myparBuffer[24] = "";
};

} // namespace zvxfer::kermit
