// Fuzz target: the file-announcing text (YMODEM's block 0, ZMODEM's ZFILE
// subpacket) parsed from arbitrary bytes, and built by our senders from the
// same bytes and read back, in a block 0 and in a ZFILE subpacket.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "core/file_facts.h"
#include "fuzz_check.h"

using zvxfer::FileFacts;
using zvxfer::FormatFileFacts;
using zvxfer::ParseFileFacts;

namespace {

int32_t Word(const uint8_t *p) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(p[i]) << (8 * i);
    return static_cast<int32_t>(v);
}

// The text formatted from a name, size and time taken from the input parses
// back to that size and time whenever the whole of it fits in `block`.
void RoundTrip(const uint8_t *data, std::size_t size, std::span<uint8_t> block) {
    if (size < 8) return;
    const int32_t fileSize = Word(data);
    const int32_t modTime = Word(data + 4);
    std::string name(reinterpret_cast<const char *>(data + 8),
                     std::min<std::size_t>(size - 8, 1100));
    std::replace(name.begin(), name.end(), '\0', '_');

    std::fill(block.begin(), block.end(), 0xA5); // what the buffer held before
    const uint32_t used = FormatFileFacts(block, name.c_str(), fileSize, modTime);
    ZVXFER_FUZZ_CHECK(used <= block.size());
    char facts[40];
    const int factsLength =
        std::snprintf(facts, sizeof facts, "%ld %lo 0", static_cast<long>(fileSize),
                      static_cast<unsigned long>(static_cast<uint32_t>(modTime)));
    const std::size_t whole = name.size() + 1 + static_cast<std::size_t>(factsLength);
    ZVXFER_FUZZ_CHECK(used == std::min<std::size_t>(whole, block.size()));
    ZVXFER_FUZZ_CHECK(std::memcmp(block.data(), name.data(), std::min(name.size(), block.size())) ==
                      0);
    for (std::size_t i = used; i < block.size(); ++i) ZVXFER_FUZZ_CHECK(block[i] == 0);

    const FileFacts back = ParseFileFacts(block);
    if (whole <= block.size()) {
        // A negative size is no number of bytes, and a time before 1970 or
        // past 2038 travels as an octal number beyond 31 bits: both unknown.
        ZVXFER_FUZZ_CHECK(back.size == (fileSize >= 0 ? fileSize : 0));
        ZVXFER_FUZZ_CHECK(back.modTime == (modTime >= 0 ? modTime : -1));
        ZVXFER_FUZZ_CHECK(!back.sizeTooLarge);
    }
    if (name.size() >= block.size()) {
        // The name fills the text: no terminator, so no facts.
        ZVXFER_FUZZ_CHECK(back.size == 0 && back.modTime == -1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    // As received: whatever the bytes, the parser stays inside them, and a
    // block without the name's terminator carries no facts.
    const FileFacts facts = ParseFileFacts({data, size});
    if (size == 0 || std::memchr(data, 0, size) == nullptr)
        ZVXFER_FUZZ_CHECK(facts.size == 0 && facts.modTime == -1);
    // Sizes and times are never cut down to negative values; a size too
    // large to carry is unknown.
    ZVXFER_FUZZ_CHECK(facts.size >= 0 && facts.modTime >= -1);
    ZVXFER_FUZZ_CHECK(!facts.sizeTooLarge || facts.size == 0);
    uint8_t block0[128]; // YMODEM's block 0
    uint8_t zfile[1023]; // ZMODEM's ZFILE text
    RoundTrip(data, size, block0);
    RoundTrip(data, size, zfile);
    return 0;
}
