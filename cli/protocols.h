// The protocols the zvxfer program offers, by the names users type.
#pragma once
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace zvxfer::cli {

struct Protocol {
    std::string_view name;     // as typed after -p
    int32_t number;            // protocol number for the generic entries
    bool streaming;            // adds the streaming option (1011)
    bool batch;                // names travel with the files (receive needs no FILE)
    bool carriesTime;          // file times travel with the files
    std::string_view describe; // one line for --help
};

// Every protocol the library can run, in the order --help lists them.
const std::vector<Protocol> &Protocols();
std::optional<Protocol> FindProtocol(std::string_view name);
// "xmodem, xmodem-1k, ..." for messages.
std::string ProtocolNames();

} // namespace zvxfer::cli
