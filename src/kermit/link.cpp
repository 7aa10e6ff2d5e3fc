// The Kermit engine's link to the host: it sends the port message to the
// host window itself, with its own blocks, instead of going through the
// port's operation table.  Received bytes are taken from the block the host
// filled until it is used up; only then is the host asked again.
#include <algorithm>
#include <cstring>

#include "core/core.h"
#include "kermit/engine.h"
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer::kermit {

namespace {

// A host that takes none of a packet for this long is given up on: the
// packet counts as sent, and the peer's silence is left to the retries.
constexpr uint32_t kWriteStallMs = 10000;

constexpr int kTracedChars = 62;

} // namespace

int KermitEngine::ReadDataFromStack(uint8_t *buffer, int size, int timeout) {
    if (readBlock.Length == 0) {
        if (hostClosing) {
            errorNumber = -1;
            return -1;
        }
        // The clock is read only here, when the host has to be asked.
        const uint32_t deadline =
            plat::GetTickCount() + static_cast<uint32_t>(std::max(timeout, 0)) * 1000u;
        for (;;) {
            readBlock.Error = 0;
            plat::SendMessage(hostWindow, XferPortMessage, PORT_READ,
                              reinterpret_cast<intptr_t>(&readBlock));
            if (readBlock.Error != 0) {
                readBlock.Length = 0;
                errorNumber = -1;
                return -1;
            }
            if (readBlock.Length > 0) {
                trace("ReadDataFromStack: Read: %d bytes. iSize: %d\n",
                      static_cast<int>(readBlock.Length), size);
                break;
            }
            NoteEmptyRead();
            // The application is closing: no reply is worth waiting for.
            if (PumpMessages(10) == 0) hostClosing = true;
            if (hostClosing || (timeout > 0 && plat::TickReached(plat::GetTickCount(), deadline))) {
                errorNumber = -1;
                return -1;
            }
        }
    }
    const uint32_t n = std::min(readBlock.Length, static_cast<uint32_t>(std::max(size, 0)));
    if (n == 1)
        *buffer = *readBlock.Data;
    else if (n > 0)
        std::memcpy(buffer, readBlock.Data, n);
    readBlock.Data += n;
    readBlock.Length -= n;
    return static_cast<int>(n);
}

int KermitEngine::WriteDataToStack(const uint8_t *d, int n) {
    // A host may take only part of the bytes (its send queue is full): the
    // rest is offered again, so a packet never leaves with a hole in it.
    const uint8_t *p = d;
    uint32_t left = static_cast<uint32_t>(std::max(n, 0));
    bool stalled = false;
    uint32_t giveUp = 0;
    while (left > 0) {
        PortBlock block{const_cast<uint8_t *>(p), left, 0};
        plat::SendMessage(hostWindow, XferPortMessage, PORT_WRITE,
                          reinterpret_cast<intptr_t>(&block));
        if (block.Error != 0) break; // a lost line shows on the read side
        const uint32_t taken = std::min(block.Length, left);
        p += taken;
        left -= taken;
        if (left == 0) break;
        if (taken > 0) {
            stalled = false;
            continue;
        }
        const uint32_t now = plat::GetTickCount();
        if (!stalled) {
            stalled = true;
            giveUp = now + kWriteStallMs;
        } else if (hostClosing || plat::TickReached(now, giveUp)) {
            break;
        }
        if (PumpMessages(10) == 0) hostClosing = true;
    }
    hostcheck();
    PumpMessages(0);
    return n;
}

int KermitEngine::ttol(const uint8_t *packet, int n) {
    if (n < 0) {
        trace("ttol len = %d\n", n);
        return -1;
    }
    const int shown = std::clamp(n - 2, 0, kTracedChars);
    trace("PKT->[^A%.*s](%d)\n", shown, reinterpret_cast<const char *>(packet + 1), n);
    WriteDataToStack(packet, n);
    return n;
}

void KermitEngine::hostcheck() {
    if (record == nullptr) return;
    // Once the host has stopped the transfer it stays stopped, even though
    // the core answers later polls of a stopped record with 0.
    const int stop = XferCheckAbort(record) != 0 || XferStopped(record) ? 1 : 0;
    cz = stop;
    cx = stop;
}

int KermitEngine::ttflui() {
    errorNumber = 0;
    trace("ttflui = %d, errno = %d\n", 0, errorNumber);
    return 0;
}

} // namespace zvxfer::kermit
