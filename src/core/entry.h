// The one path every entry takes: check the port, read the option words
// against the entry's accepted codes (refusing the call with -7 before
// anything happens), start the record, apply the options, build the send
// list for a sender, run the engine, release what is left and return the
// entry's result.  Nothing escapes as an exception: a failed allocation
// anywhere on the way returns -601 and any other exception -611, after the
// record was cleaned up (file closed, buffers and send list released).
#pragma once
#include <cstdarg>
#include <cstdint>
#include <span>

#include "core/options.h"
#include "core/protocol.h"
#include "zvxfer.h"

namespace zvxfer {

// What an entry's run keeps on the entry's stack for the engine.
struct EntryFrame {
    XferRecord record{};
    // A receiver's file when the host names it: a copy of the name with
    // room for the free-name counter.
    char fileName[XFER_PATH_MAX] = "";
    // Set by an option: the send list searches subfolders too.
    bool subfolders = false;
};

// What an entry returns once the engine has run.
enum class EntryOutcome : uint8_t {
    ResultOrFileCount, // Result when it is not 0, else the files done
    OneOnSuccess,      // Result when it is not 0, else 1
    ZeroWhenRun,       // 0 whatever the outcome (the record told the host)
};

struct EntrySpec {
    int8_t protocol;
    std::span<const int32_t> accepted; // the option codes the entry takes
    bool sends;                        // builds the send list from the names
    // Defaults beyond the shared start (null: none).
    void (*init)(EntryFrame &frame, const EntryArgs &args);
    // The effect of an accepted code that ApplySharedOption did not take
    // (null: such codes are accepted without effect).
    void (*apply)(EntryFrame &frame, const Option &option);
    // Runs the engine on the started record.
    void (*run)(EntryFrame &frame, const EntryArgs &args);
    EntryOutcome outcome;
};

int32_t RunEntry(const EntrySpec &spec, const EntryArgs &args,
                 std::span<const int32_t> words) noexcept;

// For the exported variadic entries: collect the option words (consuming
// `options`) and call `entry`; -601 when the words cannot be held.
int32_t CallWithOptionWords(EntryFn entry, const EntryArgs &args, va_list options) noexcept;

} // namespace zvxfer
