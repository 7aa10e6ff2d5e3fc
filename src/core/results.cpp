// Code-to-text lookups, generated from the result maps of the public header
// so that the texts exist exactly once.
#include "core/results.h"

#include <array>

#include "port/port.h"
#include "zvxfer.h"

namespace zvxfer {

namespace {

constexpr const char *kUnknown = "Unknown error code";

struct CodeText {
    int32_t code;
    const char *text;
};

#define ZVXFER_CODE_TEXT_(code, name, text) CodeText{code, text},
constexpr CodeText kPortEntries[] = {PORT_RESULT_MAP(ZVXFER_CODE_TEXT_)};
constexpr CodeText kXferEntries[] = {XFER_RESULT_MAP(ZVXFER_CODE_TEXT_)};
#undef ZVXFER_CODE_TEXT_

constexpr int32_t kPortLowest = -42;
constexpr int32_t kXferHighest = -601;
constexpr int32_t kXferLowest = -623;

// Direct-index tables: slot -code for the port layer, -601 - code for the
// transfer codes.  A code missing from its map (-29) keeps a null slot.
template <std::size_t N, std::size_t M>
constexpr std::array<const char *, N> IndexTable(const CodeText (&entries)[M], int32_t highest) {
    std::array<const char *, N> table{};
    for (const CodeText &e : entries) table[static_cast<std::size_t>(highest - e.code)] = e.text;
    return table;
}

constexpr auto kPortTexts = IndexTable<1 - kPortLowest>(kPortEntries, 0);
constexpr auto kXferTexts = IndexTable<kXferHighest - kXferLowest + 1>(kXferEntries, kXferHighest);

static_assert(kPortTexts[29] == nullptr, "-29 has no port-layer text");
static_assert(kPortTexts[42] != nullptr && kXferTexts[0] != nullptr && kXferTexts[22] != nullptr,
              "every other code of both ranges has its text");

// XferErrorName's own texts for the few port-layer codes it knows.
constexpr CodeText kDefaultHookTexts[] = {
    {0, "Successful"},      {-1, "General Error"},  {-8, "Buffer Empty"},
    {-9, "Buffer is Full"}, {-10, "Timeout Error"},
};

const char *TransferText(int32_t code) {
    if (code > kXferHighest || code < kXferLowest) return nullptr;
    return kXferTexts[static_cast<std::size_t>(kXferHighest - code)];
}

const char *PortLayerText(int32_t code) {
    if (code > 0 || code < kPortLowest) return nullptr;
    return kPortTexts[static_cast<std::size_t>(-code)];
}

} // namespace

const char *XferErrorName(int32_t code) {
    if (const char *text = TransferText(code)) return text;
    for (const CodeText &e : kDefaultHookTexts)
        if (e.code == code) return e.text;
    return kUnknown;
}

const char *PortErrorName(int32_t code) {
    ThreadHooks *hooks = ThreadHooksFind();
    if (XferErrorNameFn hook = hooks ? LoadHook(hooks->UserErrorNameFunction) : nullptr) {
        if (const char *text = hook(code)) return text;
    }
    if (const char *text = PortLayerText(code)) return text;
    if (const char *text = TransferText(code)) return text;
    return kUnknown;
}

} // namespace zvxfer
