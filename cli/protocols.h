// The protocols the zvxfer program offers, by the names users type.
#pragma once
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::cli {

// One transfer's arguments for a protocol's exported entry.
struct EntryCall {
    XferPort *port;
    bool sending;
    char *names; // the quoted send names
    char *file;  // the file a receiver writes, when the protocol takes one
    XferStatusFn status;
    XferProgressFn progress;
    // The option words, ended by 0 and padded with zeros to kEntryWords.
    const int32_t *words;
    // Plain text: the far end's echo while sending, or every byte captured
    // (nullptr: not wanted), LF bytes left out, the pause after each line.
    XferCharFn echo = nullptr;
    bool dropLf = false;
    int32_t lineDelayMs = 0;
};
constexpr std::size_t kEntryWords = 16;

struct Protocol {
    std::string_view name;     // as typed after -p
    int32_t number;            // protocol number for the generic entries
    bool streaming;            // adds the streaming option (1011)
    bool batch;                // names travel with the files (receive needs no FILE)
    bool carriesTime;          // file times travel with the files
    std::string_view describe; // one line for --help
    // Bytes the line gathers before it writes for a sender with an
    // acknowledgement window (0: the line host's default).
    std::size_t windowedSendFlushAt;
    // Calls the protocol's exported entry for the direction.
    int32_t (*run)(const EntryCall &call);
    // Plain text without a protocol: an upload of paced lines, and a
    // capture of everything into one file that ends when the line falls
    // silent.
    bool text = false;
    // The entry's result says nothing of the outcome (Kermit returns 0
    // whatever happened): the program judges it from the packets it sees.
    bool watched = false;
    // Takes --text: text files, line ends converted on the way (option 1003).
    bool textFiles = false;
};

// Every protocol the library can run, in the order --help lists them.
const std::vector<Protocol> &Protocols();
std::optional<Protocol> FindProtocol(std::string_view name);
// "xmodem, xmodem-1k, ..." for messages.
std::string ProtocolNames();

} // namespace zvxfer::cli
