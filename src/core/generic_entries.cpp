// The generic entries: one 28-slot option block and one table that maps a
// protocol number to its entry, so a host can drive every protocol alike.
#include <array>
#include <cstdint>
#include <span>

#include "core/options.h"
#include "platform/heap.h"
#include "xmodem/entries.h"
#include "zmodem/entries.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

constexpr int32_t kUnset = XferOptNone;
constexpr int kSlots = 28;

// Slot of each storable code, and whether its value word follows it.
struct SlotOf {
    int32_t code;
    int slot;
};
constexpr std::array kSlotTable{
    SlotOf{1002, 0},  SlotOf{1003, 1},  SlotOf{1004, 2},  SlotOf{1005, 3},  SlotOf{1006, 4},
    SlotOf{1007, 5},  SlotOf{1008, 7},  SlotOf{1016, 8},  SlotOf{1009, 10}, SlotOf{1011, 11},
    SlotOf{1012, 12}, SlotOf{1014, 14}, SlotOf{1015, 15}, SlotOf{1017, 16}, SlotOf{1018, 17},
    SlotOf{1019, 17}, SlotOf{1020, 17}, SlotOf{1021, 17}, SlotOf{1023, 17}, SlotOf{1024, 18},
    SlotOf{1025, 20}, SlotOf{1026, 21}, SlotOf{1027, 22}, SlotOf{1028, 24}, SlotOf{1029, 26},
};

int SlotFor(int32_t code) {
    for (const SlotOf &s : kSlotTable)
        if (s.code == code) return s.slot;
    return -1;
}

using SendEntry = int32_t (*)(XferPort *, char *, XferStatusFn, XferProgressFn,
                              std::span<const int32_t>);
using ReceiveNamed = int32_t (*)(XferPort *, char *, XferStatusFn, XferProgressFn,
                                 std::span<const int32_t>);
using ReceiveBatch = int32_t (*)(XferPort *, XferStatusFn, XferProgressFn,
                                 std::span<const int32_t>);

// One row per protocol number; an entry that is not built yet is null and
// the number is refused like an unknown one.
struct Row {
    SendEntry send;
    std::span<const int> sendSlots;
    ReceiveNamed receiveNamed;
    ReceiveBatch receiveBatch;
    std::span<const int> receiveSlots;
};

constexpr int kXmodemSendSlots[] = {4, 5, 6, 7, 8, 9, 22, 23};
constexpr int kXmodemReceiveSlots[] = {4, 5, 6, 7, 22, 23};
constexpr int kYmodemSendSlots[] = {4, 3, 11, 10, 5, 6, 7, 8, 9, 22, 23};
constexpr int kYmodemReceiveSlots[] = {4, 3, 11, 5, 6, 22, 23};
constexpr int k1KSendSlots[] = {4, 5, 6, 7, 8, 9, 11, 22, 23};
constexpr int k1KReceiveSlots[] = {4, 5, 6, 11, 22, 23};
constexpr int kZmodemSendSlots[] = {4, 10, 3, 5, 6, 16, 14, 17, 22, 23, 24, 25, 26, 27};
constexpr int kZmodemReceiveSlots[] = {4, 3, 5, 6, 14, 15, 22, 23, 24, 25};

const Row *RowFor(int32_t protocol) {
    static const Row kXmodemRow{XmodemSend, kXmodemSendSlots, XmodemReceive, nullptr,
                                kXmodemReceiveSlots};
    static const Row kYmodemRow{YmodemSend, kYmodemSendSlots, nullptr, YmodemReceive,
                                kYmodemReceiveSlots};
    static const Row k1KRow{Xmodem1KSend, k1KSendSlots, Xmodem1KReceive, nullptr, k1KReceiveSlots};
    static const Row kZmodemRow{ZmodemSendOptions, kZmodemSendSlots, nullptr, ZmodemReceiveOptions,
                                kZmodemReceiveSlots};
    switch (protocol) {
    case Xmodem:
        return &kXmodemRow;
    case Ymodem:
        return &kYmodemRow;
    case Xmodem1K:
        return &k1KRow;
    case Zmodem:
        return &kZmodemRow;
    default:
        return nullptr; // 6 and 7 arise only through option 1011
    }
}

// The option words an entry gets: the listed slots, then the closing 0.
std::array<int32_t, kSlots + 1> Words(const FileTransferOptions &block, std::span<const int> slots,
                                      std::size_t &count) {
    std::array<int32_t, kSlots + 1> words{};
    count = 0;
    for (int slot : slots) words[count++] = block.Slot[slot];
    words[count++] = XferOptEnd;
    return words;
}

// Releases the block when the generic entry returns, whatever the outcome.
struct BlockOwner {
    FileTransferOptions *block;
    ~BlockOwner() { plat::HeapFreeBlock(block); }
};

} // namespace
} // namespace zvxfer

using namespace zvxfer;

extern "C" {

ZVXFER_EXTERN FileTransferOptions *CLSetFileTransferOptions(const int32_t *list) {
    auto *block =
        static_cast<FileTransferOptions *>(plat::HeapAllocZero(sizeof(FileTransferOptions)));
    if (!block) return nullptr;
    for (int32_t &slot : block->Slot) slot = kUnset;
    auto ends = [](int32_t word) { return word == XferOptEnd || word == -1; };
    for (std::size_t i = 0; list && !ends(list[i]); ++i) {
        const int32_t code = list[i];
        const int slot = code == XferOptZmProtect ? -1 : SlotFor(code);
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
                                 XferStatusFn status, XferProgressFn progress) {
    (void)asciiFlag;
    (void)asciiValue;
    BlockOwner owner{block};
    const Row *row = RowFor(protocol);
    if (!row || !row->send || !block) return PortInvalidParameter;
    std::size_t count = 0;
    const auto words = Words(*block, row->sendSlots, count);
    return row->send(port, names, status, progress, std::span(words.data(), count));
}

ZVXFER_EXTERN int32_t CLFileReceive(XferPort *port, int32_t protocol, char *name, int32_t asciiFlag,
                                    FileTransferOptions *block, XferStatusFn status,
                                    XferProgressFn progress) {
    (void)asciiFlag;
    BlockOwner owner{block};
    const Row *row = RowFor(protocol);
    if (!row || !block || (!row->receiveNamed && !row->receiveBatch)) return PortInvalidParameter;
    std::size_t count = 0;
    const auto words = Words(*block, row->receiveSlots, count);
    const std::span<const int32_t> options(words.data(), count);
    if (row->receiveNamed) return row->receiveNamed(port, name, status, progress, options);
    return row->receiveBatch(port, status, progress, options);
}

} // extern "C"
