// The protocol table of the zvxfer program: one line per name a user types.
#include "protocols.h"

#include <string>

#include "zvxfer.h"

namespace zvxfer::cli {

const std::vector<Protocol> &Protocols() {
    static const std::vector<Protocol> table{
        {"xmodem", Xmodem, false, false, false, "XMODEM, 128-byte blocks, CRC or checksum"},
        {"xmodem-1k", Xmodem1K, false, false, false, "XMODEM with 1024-byte blocks"},
        {"xmodem-1k-g", Xmodem1K, true, false, false, "XMODEM-1K streaming ('G')"},
        {"ymodem", Ymodem, false, true, true, "YMODEM batch with names, sizes and times"},
        {"ymodem-g", Ymodem, true, true, true, "YMODEM streaming ('G')"},
        {"zmodem", Zmodem, false, true, true, "ZMODEM streaming batch with restarts, CRC-32"},
    };
    return table;
}

std::optional<Protocol> FindProtocol(std::string_view name) {
    for (const Protocol &p : Protocols())
        if (p.name == name) return p;
    return std::nullopt;
}

std::string ProtocolNames() {
    std::string names;
    for (const Protocol &p : Protocols()) {
        if (!names.empty()) names += ", ";
        names += p.name;
    }
    return names;
}

} // namespace zvxfer::cli
