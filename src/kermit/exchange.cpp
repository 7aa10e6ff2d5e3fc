// The protocol loop: a table from (state, event) to an action, the actions
// themselves, and the replies and retries both sides share.
#include <array>
#include <cstring>

#include "kermit/engine.h"

namespace zvxfer::kermit {

namespace {

constexpr int kStates = 14;
constexpr int kEvents = 96; // characters 32..127

using Table = std::array<std::array<int8_t, kEvents>, kStates>;

// Every state: blank is ignored, the start events and E have the same
// action everywhere, anything else is an unexpected packet.  Then the few
// entries particular to each state.
constexpr Table BuildTable() {
    Table table{};
    for (auto &row : table) {
        for (auto &cell : row) cell = 20;
        row[0] = -1;
        row['s' - 32] = 1;
        row['v' - 32] = 8;
        row['r' - 32] = 17;
        row['E' - 32] = 19;
    }
    struct Entry {
        int state;
        char event;
        int8_t action;
    };
    constexpr Entry entries[] = {
        {1, 'Y', 2},   {2, 'Y', 3},   {3, 'Y', 5},   {4, 'Y', 4},   {5, 'Y', 21},
        {6, 'Y', 6},   {7, 'Y', 18},  {8, 'S', 9},   {9, 'F', 11},  {9, 'B', 22},
        {10, 'D', 15}, {10, 'Z', 16}, {11, 'A', 12}, {11, 'D', 13}, {11, 'Z', 14},
    };
    for (const Entry &e : entries) table[e.state][e.event - 32] = e.action;
    return table;
}

constexpr Table kTable = BuildTable();

const uint8_t *Bytes(const char *s) {
    return reinterpret_cast<const uint8_t *>(s);
}

int Length(const char *s) {
    return static_cast<int>(std::strlen(s));
}

// The actions of the table.  Each returns -1 to go on with the loop, or the
// value wart ends with.
class Actions {
  public:
    explicit Actions(KermitEngine &k) : k_(k) {}

    int Run(int action) {
        switch (action) {
        case 1:
            return StartSend();
        case 2:
            return SendInitAcked();
        case 3:
            return FileHeaderAcked();
        case 4:
            return AttributesAcked();
        case 5:
            return DataAcked();
        case 6:
            return EndOfFileAcked();
        case 8:
            return StartReceive();
        case 9:
            return SendInitReceived();
        case 11:
            return FileHeaderReceived();
        case 12:
            return AttributesReceived();
        case 13:
            return FirstDataReceived();
        case 14:
            return EndOfFileReceived();
        case 15:
            return DataReceived();
        case 16:
            return LastEndOfFileReceived();
        case 17:
            return StartGet();
        case 18:
            return InitInfoAcked();
        case 19:
            k_.failed = 1;
            return 1;
        case 20:
            Fail("Unknown packet type");
            return -1;
        case 21:
            return k_.failed;
        case 22:
            k_.ack();
            return k_.failed;
        default:
            return -1; // 7 and 10 have no entry in the table
        }
    }

  private:
    // A step that failed without an E packet of its own sends one naming the
    // step; one that already sent its own (a file error) leaves it at that.
    void Fail(const char *text) {
        if (!k_.exitRequested) k_.kerror(text);
    }

    int StartSend() {
        k_.kreset();
        if (k_.sinit() < 0) Fail("sinit");
        k_.state = 1;
        return -1;
    }

    int SendInitAcked() {
        k_.spar(k_.rdata);
        k_.chkuse = k_.chkwant;
        NextFileOrEnd(0);
        return -1;
    }

    // Action 2 counts only a negative sfile as a failure, action 6 also 0.
    void NextFileOrEnd(int lowestGood) {
        if (k_.nextfile() == 0) {
            if (k_.seot() < 0) Fail("seot");
            k_.state = 5;
        } else {
            if (k_.sfile() < lowestGood) Fail("sfile");
            k_.state = 2;
        }
    }

    int FileHeaderAcked() {
        if (k_.attrok) {
            if (k_.sattr() < 0) Fail("sattr");
            k_.state = 4;
        } else {
            DataStep("");
        }
        return -1;
    }

    int AttributesAcked() {
        if (k_.rdlen > 0 && k_.rdata[0] == 'N') { // the peer refuses the file
            if (k_.seof("D") < 0) Fail("seof");
            k_.state = 6;
        } else {
            DataStep("");
        }
        return -1;
    }

    int DataAcked() {
        if (k_.rdlen > 0 && k_.rdata[0] == 'X') k_.cx = 1;
        if (k_.rdlen > 0 && k_.rdata[0] == 'Z') {
            k_.cz = 1;
            k_.peerStoppedBatch = true;
        }
        DataStep(k_.cx || k_.cz ? "D" : "");
        return -1;
    }

    // The next D packet, or the Z that ends the file with `eofData`.
    void DataStep(const char *eofData) {
        const int r = k_.sdata();
        if (r > 0) {
            k_.state = 3;
        } else if (r < 0) {
            Fail("sdata");
        } else {
            if (k_.seof(eofData) < 0) Fail("seof");
            k_.state = 6;
        }
    }

    int EndOfFileAcked() {
        NextFileOrEnd(1);
        return -1;
    }

    int StartReceive() {
        k_.kreset();
        k_.trace("Escape back to your local Kermit and give a SEND command.\n");
        k_.trace("\n");
        k_.trace("KERMIT READY TO RECEIVE...\n");
        k_.state = 8;
        return -1;
    }

    int SendInitReceived() {
        k_.trace("Download starting...\n");
        k_.spar(k_.rdata);
        k_.ackdata(k_.mypar());
        k_.chkuse = k_.chkwant;
        k_.state = 9;
        return -1;
    }

    int FileHeaderReceived() {
        if (k_.rcvfil() < 0 || k_.exitRequested) {
            Fail("rcvfil");
            return -1;
        }
        k_.encstr(k_.filnam);
        k_.ackdata(reinterpret_cast<const char *>(k_.data));
        k_.state = 11;
        return -1;
    }

    int AttributesReceived() {
        if (k_.rdattr(k_.rdata) < 0) {
            k_.ackdata("\""); // the file's type is one this side does not keep
        } else {
            k_.ack();
        }
        k_.state = 11;
        return -1;
    }

    bool Decoded() {
        if (k_.decode(k_.rdlen) < 0) {
            Fail("Packet decoding error");
            return false;
        }
        return true;
    }

    int FirstDataReceived() {
        if (Decoded()) k_.ack();
        k_.state = 10;
        return -1;
    }

    int DataReceived() {
        if (Decoded()) {
            if (k_.cx && !k_.xsent) {
                k_.ackdata("X"); // asks the sender to stop this file, once
                k_.xsent = 1;
            } else {
                k_.ack();
            }
        }
        k_.state = 10;
        return -1;
    }

    int EndOfFileReceived() {
        if (k_.rdlen > 0 && k_.rdata[0] == 'D') k_.cx = 1;
        if (k_.closof() < 0 || k_.exitRequested) {
            Fail("closof");
            return -1;
        }
        k_.ack();
        k_.state = 9;
        return -1;
    }

    int LastEndOfFileReceived() {
        k_.trace("Download complete!\n");
        return EndOfFileReceived();
    }

    int StartGet() {
        k_.kreset();
        k_.trace("Escape back to your local Kermit and give a SERVER command.\n");
        k_.trace("\n");
        k_.trace("KERMIT READY TO GET...\n");
        const char *init = k_.mypar();
        k_.spacket('I', 0, Length(init), Bytes(init));
        k_.state = 7;
        return -1;
    }

    int InitInfoAcked() {
        k_.spar(k_.rdata);
        const int n = k_.encstr("");
        if (k_.spacket('R', k_.seq, n, k_.data) < 0) Fail("scmd");
        k_.state = 8;
        return -1;
    }

    KermitEngine &k_;
};

} // namespace

int KermitEngine::wartAction(int state, int event) {
    if (state < 0 || state >= kStates) return -1;
    int i = event - 32;
    if (i < 0 || i >= kEvents) i = 0;
    return kTable[state][i];
}

int KermitEngine::wart() {
    Actions actions(*this);
    for (;;) {
        const int c = input();
        if (c < 0 || exitRequested) return 1;
        const int a = wartAction(state, c);
        if (a < 0) continue;
        trace("WART: State: %i, Action: %d, Packet Type = '%c'\n", state, a, c);
        if (a < 1 || a > 22) continue;
        const int r = actions.Run(a);
        if (exitRequested) return 1;
        if (r >= 0) return r;
    }
}

// The next event: the start event once, then the type of the next packet
// that carries the expected number.  Anything else (an old number, a NAK, a
// damaged packet, silence) is answered by sending the last packet again.
int KermitEngine::input() {
    if (startev != 0) {
        const int c = startev;
        startev = 0;
        trace("input[%c] (start)\n", c);
        return c;
    }
    int t = rpacket();
    while (rseq != seq || t == 'T' || t == 'Q' || t == 'N') {
        if (resend() == -1) return -1;
        t = rpacket();
    }
    ttflui();
    trace("input[%c]\n", t);
    return t;
}

int KermitEngine::resend() {
    // The length tells whether a packet was kept (its first byte may be a
    // pad character of 0); kreset clears it with the buffer.
    if (sndlen <= 0) return nak();
    ++retries;
    trace("resend #%d (%d/%d)\n", seq, retries, kMaxRetries);
    if (retries > kMaxRetries) {
        kerror("Too many retries");
        return -1;
    }
    return ttol(sndbuf, sndlen);
}

int KermitEngine::nak() {
    ++retries;
    trace("nak #%d (%d/%d)\n", seq, retries, kMaxRetries);
    if (retries > kMaxRetries) {
        kerror("Too many retries");
        return -1;
    }
    return spacket('N', seq, 0, Bytes(""));
}

void KermitEngine::nextseq() {
    retries = 0;
    seq = (seq + 1) % 64;
}

int KermitEngine::ack() {
    const int r = spacket('Y', seq, 0, Bytes(""));
    nextseq();
    return r;
}

int KermitEngine::ackdata(const char *s) {
    const int r = spacket('Y', seq, Length(s), Bytes(s));
    nextseq();
    return r;
}

void KermitEngine::kreset() {
    memorySink = nullptr;
    memorySinkRoom = 0;
    cx = cz = 0;
    chkuse = 1;
    rpton = 0;
    ebqon = 0;
    qbinmine = 'Y';
    qbinmode = -1;
    seq = 0;
    rcvbuf[0] = 0;
    sndbuf[0] = 0;
    sndlen = 0;
    filnam[0] = 0;
    peerStoppedBatch = false;
}

void KermitEngine::kerror(const char *text) {
    spacket('E', seq, Length(text), Bytes(text));
    trace("Exit requested %d\n", 1);
    exitRequested = true;
}

} // namespace zvxfer::kermit
