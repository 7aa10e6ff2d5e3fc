// The shared entry path and the boundary that keeps exceptions inside.
#include "core/entry.h"

#include <new>
#include <vector>

#include "core/core.h"
#include "filelist/filelist.h"
#include "port/port.h"

namespace zvxfer {

namespace {

void ReleaseSendList(XferRecord &r) noexcept {
    if (r.SendList == nullptr) return;
    r.SendList->Destroy(r.SendList);
    r.SendList = nullptr;
}

// An exception ended the entry: a record whose engine ran is ended like any
// failed transfer (its file closed, its buffers released), then `code` is
// what the entry returns.
int32_t Abandon(EntryFrame &frame, bool started, int32_t code) noexcept {
    XferRecord &r = frame.record;
    try {
        if (started) {
            r.Result = code;
            XferCleanup(&r);
        }
        ReleaseSendList(r);
    } catch (...) {
        // The clean-up failed as well; the code stays the first cause.
    }
    return code;
}

int32_t Outcome(const EntrySpec &spec, const XferRecord &r) {
    switch (spec.outcome) {
    case EntryOutcome::OneOnSuccess:
        return r.Result != 0 ? r.Result : 1;
    case EntryOutcome::ZeroWhenRun:
        return 0;
    case EntryOutcome::ResultOrFileCount:
        break;
    }
    return r.Result != 0 ? r.Result : r.FileCount;
}

} // namespace

int32_t RunEntry(const EntrySpec &spec, const EntryArgs &args,
                 std::span<const int32_t> words) noexcept {
    if (args.port == nullptr) return PortInvalidParameter;
    EntryFrame frame;
    XferRecord &r = frame.record;
    r.File = XFER_INVALID_FILE;
    bool started = false;
    try {
        std::vector<Option> options;
        if (ReadOptionList(words, spec.accepted, options) != 0) return PortInvalidParameter;
        if (spec.sends && !SendNamesWritable(args.name)) return PortInvalidParameter;
        BeginTransferNotes();

        InitEntryRecord(r, spec.protocol, args.port, args.status, args.progress);
        if (spec.init != nullptr) spec.init(frame, args);
        for (const Option &o : options)
            if (!ApplySharedOption(r, o) && spec.apply != nullptr) spec.apply(frame, o);

        if (spec.sends) {
            static char empty[1] = "";
            r.SendList = SendFileListCreate(args.name ? args.name : empty, frame.subfolders);
            if (r.SendList == nullptr) return XferErrNoBuffer;
        }
        started = true;
        spec.run(frame, args);
        ReleaseSendList(r); // the engines' clean-up normally released it
        return Outcome(spec, r);
    } catch (const std::bad_alloc &) {
        return Abandon(frame, started, XferErrNoBuffer);
    } catch (...) {
        return Abandon(frame, started, XferErrInternal);
    }
}

int32_t CallWithOptionWords(EntryFn entry, const EntryArgs &args, va_list options) noexcept {
    try {
        const std::vector<int32_t> words = CollectOptionWords(options);
        return entry(args, words);
    } catch (const std::bad_alloc &) {
        return XferErrNoBuffer;
    } catch (...) {
        return XferErrInternal;
    }
}

} // namespace zvxfer
