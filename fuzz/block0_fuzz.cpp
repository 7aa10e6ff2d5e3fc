// Fuzz target: YMODEM's block-0 parser on arbitrary bytes, and block 0 built
// by our sender from the same bytes and read back.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "fuzz_check.h"
#include "xmodem/xmodem.h"

using zvxfer::Block0Facts;
using zvxfer::YmFormatBlock0;
using zvxfer::YmParseBlock0;

namespace {

int32_t Word(const uint8_t *p) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(p[i]) << (8 * i);
    return static_cast<int32_t>(v);
}

// Block 0 formatted from a name, size and time taken from the input parses
// back to that size and time whenever the whole text fits in the block.
void RoundTrip(const uint8_t *data, std::size_t size) {
    if (size < 8) return;
    const int32_t fileSize = Word(data);
    const int32_t modTime = Word(data + 4);
    std::string name(reinterpret_cast<const char *>(data + 8),
                     std::min<std::size_t>(size - 8, 200));
    std::replace(name.begin(), name.end(), '\0', '_');

    uint8_t block[zvxfer::xm::kBlock0Size];
    const uint32_t used = YmFormatBlock0(std::span<uint8_t, zvxfer::xm::kBlock0Size>(block),
                                         name.c_str(), fileSize, modTime);
    ZVXFER_FUZZ_CHECK(used <= sizeof block);
    char facts[40];
    const int factsLength =
        std::snprintf(facts, sizeof facts, "%ld %lo 0", static_cast<long>(fileSize),
                      static_cast<unsigned long>(static_cast<uint32_t>(modTime)));
    const std::size_t whole = name.size() + 1 + static_cast<std::size_t>(factsLength);
    ZVXFER_FUZZ_CHECK(used == std::min<std::size_t>(whole, sizeof block));
    ZVXFER_FUZZ_CHECK(std::memcmp(block, name.data(), std::min(name.size(), sizeof block)) == 0);
    for (std::size_t i = used; i < sizeof block; ++i) ZVXFER_FUZZ_CHECK(block[i] == 0);

    const Block0Facts back = YmParseBlock0(block);
    if (whole <= sizeof block) {
        // A negative size is no number of bytes, and a time before 1970 or
        // past 2038 travels as an octal number beyond 31 bits: both unknown.
        ZVXFER_FUZZ_CHECK(back.size == (fileSize >= 0 ? fileSize : 0));
        ZVXFER_FUZZ_CHECK(back.modTime == (modTime >= 0 ? modTime : -1));
        ZVXFER_FUZZ_CHECK(!back.sizeTooLarge);
    }
    if (name.size() >= sizeof block) {
        // The name fills the block: no terminator, so no facts.
        ZVXFER_FUZZ_CHECK(back.size == 0 && back.modTime == -1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    // As received: whatever the bytes, the parser stays inside them, and a
    // block without the name's terminator carries no facts.
    const Block0Facts facts = YmParseBlock0({data, size});
    if (size == 0 || std::memchr(data, 0, size) == nullptr)
        ZVXFER_FUZZ_CHECK(facts.size == 0 && facts.modTime == -1);
    // Sizes and times are never cut down to negative values; a size too
    // large to carry is unknown.
    ZVXFER_FUZZ_CHECK(facts.size >= 0 && facts.modTime >= -1);
    ZVXFER_FUZZ_CHECK(!facts.sizeTooLarge || facts.size == 0);
    RoundTrip(data, size);
    return 0;
}
