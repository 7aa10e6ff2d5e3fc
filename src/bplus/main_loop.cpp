// The B+ main loop: waits for the service's DLE 'B' and hands each packet
// to the dispatcher until a file request has been served.
#include <cstring>

#include "bplus/bplus.h"
#include "core/core.h"
#include "locale/locale.h"
#include "port/port.h"

namespace zvxfer::bplus {

namespace {

// Longest file name a request may carry.
constexpr int32_t kMaxRequestName = 63;

// A request's file name as given (for an upload) or placed below the
// receive folder (for a download), with room for a free-name counter.
struct RequestName {
    char text[256 + kFreeNameRoom] = "";
};

// Checks the direction and file type of a 'T' request; false once the
// service has been told that the request cannot be served.
bool RequestAccepted(XferRecord *r, const uint8_t *packet, int32_t length) {
    if (length < 2 || (packet[1] != 'D' && packet[1] != 'U')) {
        BPlusSendFailure(r, 'N', "Not implemented");
        XferStatusMessage(r, 1, MsgBPlusBadDirection);
        return false;
    }
    if (length < 3 || (packet[2] != 'A' && packet[2] != 'B')) {
        BPlusSendFailure(r, 'N', "Not implemented");
        XferStatusMessage(r, 1, MsgBPlusBadFileType);
        return false;
    }
    return true;
}

// Serves a transfer request; ASCII and binary files are moved alike, byte
// for byte.
void ServeRequest(XferRecord *r, const uint8_t *packet, int32_t length) {
    if (!RequestAccepted(r, packet, length)) return;
    char asked[kMaxRequestName + 1] = "";
    const int32_t nameLength = length - 3 < kMaxRequestName ? length - 3 : kMaxRequestName;
    std::memcpy(asked, packet + 3, static_cast<std::size_t>(nameLength));
    asked[nameLength] = '\0';

    RequestName name;
    if (packet[1] == 'U') {
        std::memcpy(name.text, asked, sizeof asked);
        r->FileName = name.text;
        _BPSendACK(r);
        SendFile(r);
    } else {
        XferReceivedName(r, asked, name.text, "ReceiveFile: name ");
        r->FileName = name.text;
        ReceiveFile(r);
    }
    // The name lives on this frame only; the file routines closed the file.
    r->FileName = nullptr;
}

} // namespace

bool BPlusCheckAbort(XferRecord *r) {
    // The packet layer leaves -622 after every packet and a read error
    // after a packet it answered with NAK; neither ends the transfer, so
    // the host's hook is asked all the same.
    const int32_t kept = r->Result;
    if (kept != XferErrUserAbort) r->Result = 0;
    if (XferCheckAbort(r)) return true;
    if (kept != XferErrBPlusPacket && kept != XferErrUserAbort) r->Result = kept;
    return false;
}

int BPlusOpenFile(XferRecord *r, bool append) {
    // A failed open cleans the record up; what the engine still needs to
    // tell the service is held aside meanwhile and put back.
    uint8_t *const buffer = r->Buffer;
    const intptr_t link = r->ProtocolParam;
    r->Buffer = nullptr;
    r->ProtocolParam = 0;
    r->Result = 0;
    const int opened = append ? XferOpenFileToAppend(r) : XferOpenFile(r);
    r->Buffer = buffer;
    r->ProtocolParam = link;
    if (opened && r->File == XFER_INVALID_FILE) {
        // Skipped under the skip policy: B+ cannot pass a file by, so the
        // request is refused like a file that cannot be created.
        r->Result = XferErrOpenFile;
        return 0;
    }
    return opened;
}

void BPlusCancel(XferRecord *r) {
    const int32_t verdict = r->Result;
    XferCloseFile(r);
    BPlusSendFailure(r, 'A', "Transfer cancelled");
    r->Result = verdict;
}

void BPlusFail(XferRecord *r, char code, int32_t message) {
    char text[256];
    MessageTextCopy(message, text, sizeof text);
    BPlusSendFailure(r, code, text);
    XferStatus(r, 1, "%s", text);
}

int32_t _BPHandleProtocol(XferRecord *r) {
    XferStatus(r, 0, "_BPHandleProtocol:  Reading packet");
    AltSeqParam(r) = 0;
    const int32_t got = _BPWaitForACK(r, true, false, true);
    if (got != 0 && got != XferErrBPlusPacket) {
        XferStatusMessage(r, 1, MsgBPlusBadRequest);
        return XferErrPacketTimeout;
    }
    const int32_t length = Link(r)->RxLength;
    if (length < 1) return 0; // an acknowledgement settled the wait: no packet
    const uint8_t *packet = r->Buffer;
    if (packet[0] == 'T') {
        ServeRequest(r, packet, length);
    } else if (packet[0] == '+') {
        BPlusNegotiate(r);
    } else {
        XferStatus(r, 0, "Unexpected packet type");
        BPlusSendFailure(r, 'N', "Unexpected packet type");
    }
    r->FileName = nullptr;
    return 0;
}

void BPlusMain(XferRecord *r) {
    StripBit7(r) = 1;
    if (!XferInit(r)) return;
    if (!BPlusCreateLink(r)) {
        r->Result = XferErrNoBuffer;
        XferCleanup(r);
        return;
    }
    BPlusLink *link = Link(r);
    link->Done = 0;
    // The host has consumed DLE 'B' already.
    int32_t previous = kDle;
    int32_t current = 'B';
    for (;;) {
        if (BPlusCheckAbort(r)) break;
        if (current >= 0) {
            current &= 0x7F;
            if (current == 'B' && previous == kDle)
                _BPHandleProtocol(r);
            else
                ++r->ErrorTotal;
        }
        if (r->ErrorTotal >= kMaxErrors) {
            // An abort the service was told of stays the outcome.
            if (r->Result != XferErrUserAbort && r->Result <= 0) r->Result = XferErrTooManyErrors;
            break;
        }
        if (link->Done) break;
        previous = current;
        // A quiet line is no error: the service may take its time.
        current = ReadCharTimed(r->Port, link->ReadTimeout);
    }
    // A packet that arrived last is no failure; clear it before the
    // clean-up so that a complete file is put in place.
    if (r->Result == XferErrBPlusPacket) r->Result = 0;
    XferCleanup(r);
}

} // namespace zvxfer::bplus
