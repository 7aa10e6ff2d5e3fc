// The generic entries: one 28-slot option block, and the protocol table
// that gives each protocol number its entries and the slots they get, so a
// host can drive every protocol alike.
#include <array>
#include <cstdint>
#include <span>

#include "core/options.h"
#include "core/protocol.h"
#include "platform/heap.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

constexpr int32_t kUnset = XferOptNone;

// The option words an entry gets: the listed codes' slots (a value code's
// value slot after it), then the closing 0.
std::array<int32_t, kBlockSlots + 1> Words(const FileTransferOptions &block,
                                           std::span<const int32_t> codes, std::size_t &count) {
    std::array<int32_t, kBlockSlots + 1> words{};
    count = 0;
    for (int32_t code : codes) {
        const int slot = BlockSlot(code);
        words[count++] = block.Slot[slot];
        if (OptionTakesValue(code)) words[count++] = block.Slot[slot + 1];
    }
    words[count++] = XferOptEnd;
    return words;
}

// Releases the block when the generic entry returns, whatever the outcome.
struct BlockOwner {
    FileTransferOptions *block;
    ~BlockOwner() { plat::HeapFreeBlock(block); }
};

int32_t Call(EntryFn entry, std::span<const int32_t> codes, const FileTransferOptions *block,
             const EntryArgs &args) noexcept {
    if (entry == nullptr || block == nullptr) return PortInvalidParameter;
    std::size_t count = 0;
    const auto words = Words(*block, codes, count);
    return entry(args, std::span(words.data(), count));
}

} // namespace
} // namespace zvxfer

using namespace zvxfer;

extern "C" {

ZVXFER_EXTERN FileTransferOptions *CLSetFileTransferOptions(const int32_t *list) ZVXFER_NOEXCEPT {
    auto *block =
        static_cast<FileTransferOptions *>(plat::HeapAllocZero(sizeof(FileTransferOptions)));
    if (!block) return nullptr;
    for (int32_t &slot : block->Slot) slot = kUnset;
    auto ends = [](int32_t word) { return word == XferOptEnd || word == -1; };
    for (std::size_t i = 0; list && !ends(list[i]); ++i) {
        const int32_t code = list[i];
        const int slot = BlockSlot(code);
        if (slot < 0) continue; // 1001, 1010, 1013, 1022 and strangers are skipped
        block->Slot[slot] = code;
        if (!OptionTakesValue(code)) continue;
        block->Slot[slot + 1] = list[++i];
        // A value code right before the end takes the terminator as its
        // value; the list has ended there, and nothing past it is read.
        if (ends(list[i])) break;
    }
    return block;
}

ZVXFER_EXTERN int32_t CLFileSend(XferPort *port, int32_t protocol, char *names, int32_t asciiFlag,
                                 int32_t asciiValue, FileTransferOptions *block,
                                 XferStatusFn status, XferProgressFn progress) ZVXFER_NOEXCEPT {
    BlockOwner owner{block};
    const ProtocolInfo *info = FindProtocol(protocol);
    if (info == nullptr) return PortInvalidParameter;
    const EntryArgs args{port,      names, status, progress, nullptr, asciiFlag != 0 ? 1 : 0,
                         asciiValue};
    return Call(info->send, info->sendSlots, block, args);
}

ZVXFER_EXTERN int32_t CLFileReceive(XferPort *port, int32_t protocol, char *name, int32_t asciiFlag,
                                    FileTransferOptions *block, XferStatusFn status,
                                    XferProgressFn progress) ZVXFER_NOEXCEPT {
    BlockOwner owner{block};
    const ProtocolInfo *info = FindProtocol(protocol);
    if (info == nullptr) return PortInvalidParameter;
    const EntryArgs args{port, name, status, progress, nullptr, asciiFlag != 0 ? 1 : 0, 0};
    return Call(info->receive, info->receiveSlots, block, args);
}

} // extern "C"
