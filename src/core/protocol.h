// What the core knows of a protocol: one constant descriptor per protocol
// number, provided by the engine's folder (`<engine>/protocol.h`) and listed
// once in `protocol_table.cpp`.  The core reads these fields and never
// compares protocol numbers; a new protocol is a new descriptor.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer {

// The fixed arguments of an entry besides its option words.
struct EntryArgs {
    XferPort *port = nullptr;
    char *name = nullptr; // the send names, or the file a receiver writes; may be null
    XferStatusFn status = nullptr;
    XferProgressFn progress = nullptr;
    XferCharFn character = nullptr; // ASCII: each byte sent or captured
    int32_t flag = 0;               // ASCII: 1 drops line feeds
    int32_t value = 0;              // ASCII send: delay after each line, milliseconds
};

// An entry with its option words already collected: the words up to the
// first 0 (or the end of the span) count.
using EntryFn = int32_t (*)(const EntryArgs &args, std::span<const int32_t> words);

// What the clean-up puts on the line after a failure.
enum class FailureSignal : uint8_t {
    Nothing,
    CancelString,
    // Purge what waits to go out, then the cancel string; only while the
    // transfer holds its buffer, and not when the remote side aborted.
    PurgeThenCancel,
};

// How the receiver's open reports a file skipped under the skip policy.
enum class SkipReport : uint8_t {
    CountAsReceived, // MsgExistingFileSkipped, and the file counts
    AskSenderToSkip, // MsgFileSkipped, and Result -620 until the next open
};

// Fields left out of a descriptor take the plain values below: a 1024-byte
// buffer, nothing sent after a failure, the core's own handling of aborts,
// skips and names, no entries.
struct ProtocolInfo {
    int32_t number = -1;
    const char *name = "unknown";
    std::size_t bufferSize = 1024; // Buffer that XferInit allocates
    FailureSignal onFailure = FailureSignal::Nothing;
    // An abort the host's hook answered: whether the core posts MsgTransferCancelled,
    // and whether the engine ends the transfer itself (no clean-up by the
    // abort check).
    bool abortPostsStatus = true;
    bool endsAbortedTransfer = false;
    // Whether a sender's open counts the file (else the engine counts).
    bool openCountsSentFiles = true;
    SkipReport skipReport = SkipReport::CountAsReceived;
    // Whether a receiver's FileName is a heap block the clean-up releases.
    bool receiverOwnsFileName = false;
    // Whether the receivers take file names from the line (and so place
    // them below the receive folder).
    bool namesFromLine = false;
    // The protocol fields XferInit sets after the counters (null: keep what
    // the entry set).
    void (*setDefaults)(XferRecord *record) = nullptr;
    // Releases what the engine keeps beyond Buffer (null: nothing).
    void (*releaseState)(XferRecord *record) = nullptr;
    // The entries the generic entries call (null: not offered, refused -7).
    EntryFn send = nullptr;
    EntryFn receive = nullptr;
    // The option codes whose block slots the generic entries pass, in this
    // order; a value code brings its value slot right after it.
    std::span<const int32_t> sendSlots = {};
    std::span<const int32_t> receiveSlots = {};
};

// The descriptor of a protocol number, or null when there is none.
const ProtocolInfo *FindProtocol(int32_t number);
// Every descriptor, in protocol number order.
std::span<const ProtocolInfo *const> Protocols();

// What the core does for a record whose protocol number has no descriptor:
// a plain 1024-byte buffer and nothing protocol-specific.
extern const ProtocolInfo kUnknownProtocol;
inline const ProtocolInfo &ProtocolOf(int32_t number) {
    const ProtocolInfo *info = FindProtocol(number);
    return info != nullptr ? *info : kUnknownProtocol;
}

} // namespace zvxfer
