// Fuzz target: the mapping of a name from the line to a local name below
// the receive folder, and the default opener's placing of the result.
#include <cstring>
#include <string>
#include <string_view>

#include "core/core.h"
#include "fuzz_check.h"

namespace {

bool Control(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

} // namespace

// The first byte chooses full path (bit 0); the second the room left for
// the name (255 for 255 and above); the rest is the name as received.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 2) return 0;
    const bool fullPath = (data[0] & 1) != 0;
    const std::size_t room = data[1];
    const std::string_view received(reinterpret_cast<const char *>(data + 2), size - 2);
    const std::string name = zvxfer::MapReceivedName(received, fullPath, room);

    ZVXFER_FUZZ_CHECK(name.size() <= room);
    ZVXFER_FUZZ_CHECK(room < 7 || !name.empty()); // "unnamed" fits
    for (const char c : name) ZVXFER_FUZZ_CHECK(c != 0 && !Control(static_cast<unsigned char>(c)));
    ZVXFER_FUZZ_CHECK(name.find('\\') == std::string::npos);
    if (!fullPath) ZVXFER_FUZZ_CHECK(name.find('/') == std::string::npos);
    if (name.empty()) return 0;

    // Components: never empty (so never absolute), ".", or "..".
    for (std::size_t at = 0; at <= name.size();) {
        std::size_t end = name.find('/', at);
        if (end == std::string::npos) end = name.size();
        const std::string_view part = std::string_view(name).substr(at, end - at);
        ZVXFER_FUZZ_CHECK(!part.empty() && part != "." && part != "..");
        at = end + 1;
    }

    // The opener takes every mapped name below the folder, and only there.
    XferPort port{};
    port.ReceiveFolder = "in/";
    XferRecord record{};
    record.Port = &port;
    record.Protocol = fullPath ? Zmodem : Ymodem;
    const std::string local = std::string("in/") + name;
    std::string base, rest;
    ZVXFER_FUZZ_CHECK(zvxfer::XferReceivePlace(&record, local.c_str(), base, rest));
    ZVXFER_FUZZ_CHECK(base == "in/" && rest == name);
    return 0;
}
