// KermitSendWithOptions and KermitReceiveWithOptions: each one's accepted
// option codes and record fields on the shared entry path, and the run of
// one exchange with the engine built on the entry's own stack.  Both return
// 0 once the exchange has run, whatever its outcome: the host follows the
// transfer through the record while it runs.
#include <cstdarg>
#include <cstring>

#include "core/entry.h"
#include "kermit/engine.h"
#include "kermit/protocol.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer::kermit {
namespace {

constexpr int32_t kSendOptions[] = {
    XferOptKermitQuote8Bit, XferOptKermitTextMode, XferOptKermitNoRepeat, XferOptFullPath,
    XferOptFlag1006,        XferOptAbortKey,       XferOptSubfolders,     XferOptReleaseHookBuffer};
constexpr int32_t kReceiveOptions[] = {XferOptKermitTextMode, XferOptKermitNoRepeat,
                                       XferOptFullPath,       XferOptFlag1006,
                                       XferOptAbortKey,       XferOptReleaseHookBuffer};

// The record's protocol bytes: the eighth-bit prefix and repeat settings
// a host may look at (the engine negotiates its own), and the repeat
// prefix character.
constexpr int kQuote8Byte = 6;
constexpr int kRepeatByte = 7;
constexpr int kRepeatCharByte = 9;
constexpr std::size_t kNameBufferSize = 256;

// Splits the caller's list in place: every quoted name is moved to the
// front as a NUL-terminated string, one after the other, so the engine can
// walk them in order.  Text outside the quotes is dropped; a last name
// without its closing quote runs to the end.  Returns the number of names.
int32_t SplitNames(char *list) {
    if (list == nullptr) return 0;
    char *to = list;
    const char *from = list;
    int32_t count = 0;
    for (;;) {
        const char *open = std::strchr(from, '"');
        if (open == nullptr) break;
        from = open + 1;
        const char *close = std::strchr(from, '"');
        const std::size_t length =
            close != nullptr ? static_cast<std::size_t>(close - from) : std::strlen(from);
        std::memmove(to, from, length); // `to` always trails `from`
        to[length] = '\0';
        to += length + 1;
        ++count;
        if (close == nullptr) break;
        from = close + 1;
    }
    return count;
}

void InitSender(EntryFrame &frame, const EntryArgs &args) {
    static char empty[1] = "";
    XferRecord &r = frame.record;
    r.FileName = args.name != nullptr ? args.name : empty; // until the first file is taken
    r.ProtocolBytes.Bytes[kQuote8Byte] = 'N';
    r.ProtocolBytes.Bytes[kRepeatByte] = 1;
    r.ProtocolBytes.Bytes[kRepeatCharByte] = '~';
}

void InitReceiver(EntryFrame &frame, const EntryArgs &args) {
    XferRecord &r = frame.record;
    r.FileName = args.name; // the entry's 256-byte name block, empty
    r.ProtocolBytes.Bytes[kQuote8Byte] = 'Y';
    r.ProtocolBytes.Bytes[kRepeatByte] = 255;
}

void ApplyOption(EntryFrame &frame, const Option &o) {
    XferRecord &r = frame.record;
    if (o.code == XferOptKermitQuote8Bit) r.ProtocolBytes.Bytes[kQuote8Byte] = '&';
    if (o.code == XferOptKermitTextMode) r.ProtocolFlag = 1;
    if (o.code == XferOptKermitNoRepeat) r.ProtocolBytes.Bytes[kRepeatByte] = 0;
    // XferOptSubfolders is taken without effect: the names are sent as given.
}

// One exchange from the start event to its end.  Whatever the exchange
// leaves open when it ends on an error is closed; an incomplete received
// file is removed.
void RunExchange(XferRecord &r, uint8_t startEvent, char *names) {
    r.Sending = startEvent == 's' ? 1 : 0;
    r.FilePos = 0;
    r.FileTime = -1;
    r.File = XFER_INVALID_FILE;

    KermitEngine engine;
    engine.record = &r;
    engine.hostWindow = r.Port->HostWindow;
    engine.textmode = r.ProtocolFlag;
    engine.tracing = true;
    if (startEvent == 's') {
        engine.sendLeft = SplitNames(names);
        engine.sendNext = names;
    }
    engine.startev = startEvent;
    // Closes the files on every way out, an exception's included.
    struct Leftovers {
        KermitEngine &engine;
        ~Leftovers() { engine.closeLeftovers(); }
    } leftovers{engine};
    engine.ttflui();
    engine.wart();
}

void Send(EntryFrame &frame, const EntryArgs &args) {
    RunExchange(frame.record, 's', args.name);
}

void Receive(EntryFrame &frame, const EntryArgs &) {
    RunExchange(frame.record, 'v', nullptr);
}

constexpr EntrySpec kSend{
    Kermit, kSendOptions, false, &InitSender, &ApplyOption, &Send, EntryOutcome::ZeroWhenRun};
constexpr EntrySpec kReceive{Kermit,   kReceiveOptions,          false, &InitReceiver, &ApplyOption,
                             &Receive, EntryOutcome::ZeroWhenRun};

} // namespace

// The names are moved to the front of the caller's list: a list the
// library cannot write to is refused before anything happens.
int32_t KermitSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    if (!SendNamesWritable(args.name)) return PortInvalidParameter;
    return RunEntry(kSend, args, words);
}

// The receiver's name block comes first: without it nothing else is done.
int32_t KermitReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    auto *name = static_cast<char *>(plat::HeapAllocZero(kNameBufferSize));
    if (name == nullptr) return XferErrNoBuffer;
    EntryArgs withName = args;
    withName.name = name;
    const int32_t result = RunEntry(kReceive, withName, words);
    plat::HeapFreeBlock(name);
    return result;
}

} // namespace zvxfer::kermit

extern "C" {

ZVXFER_EXTERN int32_t KermitSendWithOptions(XferPort *port, char *fileList, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, progress);
    const int32_t result = zvxfer::CallWithOptionWords(zvxfer::kermit::KermitSendEntry,
                                                       {port, fileList, status, progress}, options);
    va_end(options);
    return result;
}

ZVXFER_EXTERN int32_t KermitReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, progress);
    const int32_t result = zvxfer::CallWithOptionWords(zvxfer::kermit::KermitReceiveEntry,
                                                       {port, nullptr, status, progress}, options);
    va_end(options);
    return result;
}

} // extern "C"
