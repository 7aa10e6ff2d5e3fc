// Message texts by number through a three-slot cache shared by the whole
// process, and the handle of the message catalogue they come from.  The
// library's load and unload routines live here too: whoever links message
// texts (a static link takes only the objects it needs) also gets the
// catalogue registered.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "locale/locale.h"
#include "locale/message_args.h"
#include "locale/message_library.h"
#include "zvxfer.h"

namespace zvxfer {

namespace {

constexpr std::size_t kTextSize = 256;
constexpr int32_t kNotFound = -1; // slot number after a failed lookup: look again next time

struct Slot {
    int32_t number = 0;
    char text[kTextSize] = "";
};

struct Cache {
    Slot slots[3];
    int index = 0; // the slot filled last
};

std::mutex gMutex; // guards gCache and gLibrary
Cache gCache;
plat::ModuleHandle gLibrary = nullptr;

// Fill the next slot with the text of `number`; caller holds gMutex.
Slot &LoadIntoNextSlot(int32_t number) {
    gCache.index = (gCache.index + 1) % 3;
    Slot &slot = gCache.slots[gCache.index];
    int copied = plat::LoadString(gLibrary, static_cast<uint32_t>(number), slot.text, kTextSize);
    // A text whose conversions differ from what its users pass would read the
    // wrong arguments when formatted: it counts as missing.
    if (copied > 0 && TextFitsArguments(number, slot.text)) {
        slot.number = number;
    } else {
        std::snprintf(slot.text, kTextSize, "Unable to find string %i. Internal Error!", number);
        slot.number = kNotFound;
    }
    return slot;
}

// The slot holding `number`, loading it when no slot does; caller holds gMutex.
const Slot &Lookup(int32_t number) {
    // A slot marked not-found holds another number's fallback text, so -1
    // itself is always looked up.
    for (const Slot &slot : gCache.slots) {
        if (slot.number == number && number != kNotFound) return slot;
    }
    return LoadIntoNextSlot(number);
}

} // namespace

const char *MessageText(int32_t number) {
    std::lock_guard lock(gMutex);
    return Lookup(number).text;
}

void MessageTextCopy(int32_t number, char *buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) return;
    std::lock_guard lock(gMutex);
    const char *text = Lookup(number).text;
    std::size_t length = std::min(std::strlen(text), size - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

void ResetMessageCache() {
    std::lock_guard lock(gMutex);
    gCache = Cache{};
}

bool HasMessageLibrary() {
    std::lock_guard lock(gMutex);
    return gLibrary != nullptr;
}

void SetMessageLibrary(plat::ModuleHandle module) {
    std::lock_guard lock(gMutex);
    gLibrary = module;
}

plat::ModuleHandle TakeMessageLibrary() {
    std::lock_guard lock(gMutex);
    plat::ModuleHandle module = gLibrary;
    gLibrary = nullptr;
    return module;
}

} // namespace zvxfer

extern "C" ZVXFER_EXTERN int32_t ZvMessageText(int32_t number, char *buffer,
                                               size_t size) ZVXFER_NOEXCEPT try {
    if (buffer == nullptr || size == 0) return -1;
    buffer[0] = '\0';
    if (number <= 0) return -1; // no message has such a number
    std::lock_guard lock(zvxfer::gMutex);
    const zvxfer::Slot &slot = zvxfer::Lookup(number);
    if (slot.number != number) return -1; // the fallback text is no text of the catalogue
    std::size_t length = std::min(std::strlen(slot.text), size - 1);
    std::memcpy(buffer, slot.text, length);
    buffer[length] = '\0';
    return static_cast<int32_t>(length);
} catch (...) {
    return -1;
}

namespace zvxfer {

namespace {

__attribute__((constructor)) void AttachLibrary() {
    RegisterXferDLL();
}
__attribute__((destructor)) void DetachLibrary() {
    UnregisterXferDLL();
}

} // namespace

} // namespace zvxfer
