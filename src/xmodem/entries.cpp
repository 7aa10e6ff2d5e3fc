// The six XMODEM and YMODEM entries: each fills a record on its own stack,
// reads its option words (refusing unknown codes before anything happens),
// builds the send list for senders, and runs its engine.
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "core/core.h"
#include "core/options.h"
#include "filelist/filelist.h"
#include "xmodem/entries.h"
#include "xmodem/xmodem.h"

namespace zvxfer {
namespace {

constexpr int32_t kXmodemReceiveOptions[] = {1006, 1007, 1008, 1027};
constexpr int32_t kXmodemSendOptions[] = {1006, 1007, 1008, 1016, 1027};
constexpr int32_t k1KReceiveOptions[] = {1006, 1007, 1011, 1027};
constexpr int32_t k1KSendOptions[] = {1006, 1007, 1008, 1011, 1016, 1027};
constexpr int32_t kYmodemSendOptions[] = {1005, 1006, 1007, 1009, 1011, 1016, 1027};
constexpr int32_t kYmodemReceiveOptions[] = {1005, 1006, 1007, 1011, 1027};

enum class Engine { XmodemSend, XmodemReceive, YmodemSend, YmodemReceive };

struct Entry {
    XferProtocol protocol;
    XferProtocol streaming; // what option 1011 turns the protocol into
    Engine engine;
    std::span<const int32_t> accepted;
};

void InitRecord(XferRecord &r, XferPort *port, XferStatusFn status, XferProgressFn progress,
                const Entry &entry) {
    InitEntryRecord(r, static_cast<int8_t>(entry.protocol), port, status, progress);
    xm::XmSetCrcMode(&r, true);
    r.ProtocolParam = xm::kReplyTimeoutMs;
}

void ApplyOption(XferRecord &r, const Option &o, const Entry &entry) {
    if (ApplySharedOption(r, o)) return;
    switch (o.code) {
    case XferOptChecksum:
        xm::XmSetCrcMode(&r, false);
        break;
    case XferOptStreaming:
        r.Protocol = static_cast<int8_t>(entry.streaming);
        break;
    case XferOptSendTimeout:
        r.ProtocolParam = o.value;
        break;
    default:
        break; // accepted without effect (1009)
    }
}

int32_t Run(const Entry &entry, XferPort *port, char *name, XferStatusFn status,
            XferProgressFn progress, std::span<const int32_t> words) {
    if (!port) return PortInvalidParameter;
    std::vector<Option> options;
    if (ReadOptionList(words, entry.accepted, options) != 0) return PortInvalidParameter;

    XferRecord r{};
    InitRecord(r, port, status, progress, entry);
    for (const Option &o : options) ApplyOption(r, o, entry);

    char fileName[XFER_PATH_MAX] = "";
    switch (entry.engine) {
    case Engine::XmodemReceive:
        std::snprintf(fileName, sizeof fileName, "%s", name ? name : "");
        r.FileName = fileName;
        xm::XmReceiveFile(&r);
        break;
    case Engine::YmodemReceive:
        xm::YmReceiveBatch(&r);
        break;
    case Engine::XmodemSend:
    case Engine::YmodemSend: {
        static char empty[1] = "";
        r.SendList = SendFileListCreate(name ? name : empty, false);
        if (!r.SendList) return XferErrNoBuffer;
        if (entry.engine == Engine::XmodemSend)
            xm::XmSendFile(&r);
        else
            xm::YmSendBatch(&r);
        if (r.SendList) { // the engines' clean-up normally releases it
            r.SendList->Destroy(r.SendList);
            r.SendList = nullptr;
        }
        break;
    }
    }
    return r.Result != 0 ? r.Result : r.FileCount;
}

constexpr Entry kXmodemSend{Xmodem, Xmodem, Engine::XmodemSend, kXmodemSendOptions};
constexpr Entry kXmodemReceive{Xmodem, Xmodem, Engine::XmodemReceive, kXmodemReceiveOptions};
constexpr Entry k1KSend{Xmodem1K, Xmodem1KG, Engine::XmodemSend, k1KSendOptions};
constexpr Entry k1KReceive{Xmodem1K, Xmodem1KG, Engine::XmodemReceive, k1KReceiveOptions};
constexpr Entry kYmodemSend{Ymodem, YmodemG, Engine::YmodemSend, kYmodemSendOptions};
constexpr Entry kYmodemReceive{Ymodem, YmodemG, Engine::YmodemReceive, kYmodemReceiveOptions};

} // namespace

int32_t XmodemSend(XferPort *p, char *n, XferStatusFn s, XferProgressFn g,
                   std::span<const int32_t> o) {
    return Run(kXmodemSend, p, n, s, g, o);
}
int32_t XmodemReceive(XferPort *p, char *n, XferStatusFn s, XferProgressFn g,
                      std::span<const int32_t> o) {
    return Run(kXmodemReceive, p, n, s, g, o);
}
int32_t Xmodem1KSend(XferPort *p, char *n, XferStatusFn s, XferProgressFn g,
                     std::span<const int32_t> o) {
    return Run(k1KSend, p, n, s, g, o);
}
int32_t Xmodem1KReceive(XferPort *p, char *n, XferStatusFn s, XferProgressFn g,
                        std::span<const int32_t> o) {
    return Run(k1KReceive, p, n, s, g, o);
}
int32_t YmodemSend(XferPort *p, char *n, XferStatusFn s, XferProgressFn g,
                   std::span<const int32_t> o) {
    return Run(kYmodemSend, p, n, s, g, o);
}
int32_t YmodemReceive(XferPort *p, XferStatusFn s, XferProgressFn g, std::span<const int32_t> o) {
    return Run(kYmodemReceive, p, nullptr, s, g, o);
}

} // namespace zvxfer

// --- exported entries ---

#define ZVXFER_VA_OPTIONS(last, call)                                                              \
    va_list args;                                                                                  \
    va_start(args, last);                                                                          \
    const std::vector<int32_t> words = zvxfer::CollectOptionWords(args);                           \
    va_end(args);                                                                                  \
    return call

extern "C" {

ZVXFER_EXTERN int32_t XmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::XmodemSend(port, names, status, progress, words));
}
ZVXFER_EXTERN int32_t XmodemReceiveWithOptions(XferPort *port, char *fileName, XferStatusFn status,
                                               XferProgressFn progress, ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::XmodemReceive(port, fileName, status, progress, words));
}
ZVXFER_EXTERN int32_t Xmodem1KSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                              XferProgressFn progress, ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::Xmodem1KSend(port, names, status, progress, words));
}
ZVXFER_EXTERN int32_t Xmodem1KReceiveWithOptions(XferPort *port, char *fileName,
                                                 XferStatusFn status, XferProgressFn progress,
                                                 ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::Xmodem1KReceive(port, fileName, status, progress, words));
}
ZVXFER_EXTERN int32_t YmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::YmodemSend(port, names, status, progress, words));
}
ZVXFER_EXTERN int32_t YmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) {
    ZVXFER_VA_OPTIONS(progress, zvxfer::YmodemReceive(port, status, progress, words));
}

} // extern "C"
