// Upload: the service receives a file of ours, in numbered 'N' packets,
// followed by the transfer-complete packet.
#include <memory>
#include <new>

#include "bplus/bplus.h"
#include "core/core.h"
#include "platform/file.h"

namespace zvxfer::bplus {

namespace {

constexpr uint8_t kComplete[] = {'T', 'C', ' '};

} // namespace

int32_t SendFile(XferRecord *r) {
    BPlusLink *link = Link(r);
    r->Sending = 1;
    XferStatus(r, 0, "SendFile : %s", r->FileName);
    if (!BPlusOpenFile(r, false)) {
        if (r->Result == XferErrUserAbort || r->Result > 0) {
            BPlusCancel(r); // open, but the host stopped the transfer
            return XferErrUserAbort;
        }
        BPlusFail(r, 'M', MsgBPlusCannotOpenToSend);
        return XferErrOpenFile;
    }

    const int32_t room = r->BlockSize;
    std::unique_ptr<uint8_t[]> packet(new (std::nothrow) uint8_t[static_cast<std::size_t>(room)]);
    if (!packet) {
        XferCloseFile(r);
        r->Result = XferErrNoBuffer;
        return XferErrNoBuffer;
    }
    packet[0] = 'N';
    for (;;) {
        const long got =
            plat::FileRead(r->File, packet.get() + 1, static_cast<std::size_t>(room - 1));
        if (got == 0) break;
        if (got < 0) {
            XferCloseFile(r);
            BPlusFail(r, 'I', MsgBPlusReadError);
            return XferErrFileIo;
        }
        const int32_t length = static_cast<int32_t>(got) + 1;
        const int32_t sent = BPlusSendNumbered(r, length, packet.get());
        if (sent != 0) {
            XferCloseFile(r);
            return sent;
        }
        // The byte count follows the packets' lengths, type byte included.
        r->FilePos += length;
        if (BPlusCheckAbort(r)) {
            BPlusCancel(r);
            return XferErrUserAbort;
        }
    }
    XferCloseFile(r);
    const int32_t sent = BPlusSendNumbered(r, static_cast<int32_t>(sizeof kComplete), kComplete);
    if (sent != 0) return sent;
    link->Done = 1;
    return BPlusWaitAllAcks(r);
}

} // namespace zvxfer::bplus
