// The protocol table of the zvxfer program: one line per name a user types.
#include "protocols.h"

#include <string>

#include "zvxfer.h"

namespace zvxfer::cli {

namespace {

// The option words as the variadic arguments of an entry: it reads up to
// the 0, and the zeros after it are never looked at.
#define ZVXFER_CLI_WORDS(w)                                                                        \
    w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7], w[8], w[9], w[10], w[11], w[12], w[13], w[14], \
        w[15]
static_assert(kEntryWords == 16);

int32_t RunXmodem(const EntryCall &c) {
    return c.sending ? XmodemSendWithOptions(c.port, c.names, c.status, c.progress,
                                             ZVXFER_CLI_WORDS(c.words))
                     : XmodemReceiveWithOptions(c.port, c.file, c.status, c.progress,
                                                ZVXFER_CLI_WORDS(c.words));
}
int32_t RunXmodem1K(const EntryCall &c) {
    return c.sending ? Xmodem1KSendWithOptions(c.port, c.names, c.status, c.progress,
                                               ZVXFER_CLI_WORDS(c.words))
                     : Xmodem1KReceiveWithOptions(c.port, c.file, c.status, c.progress,
                                                  ZVXFER_CLI_WORDS(c.words));
}
int32_t RunYmodem(const EntryCall &c) {
    return c.sending
               ? YmodemSendWithOptions(c.port, c.names, c.status, c.progress,
                                       ZVXFER_CLI_WORDS(c.words))
               : YmodemReceiveWithOptions(c.port, c.status, c.progress, ZVXFER_CLI_WORDS(c.words));
}
int32_t RunZmodem(const EntryCall &c) {
    return c.sending
               ? ZmodemSendWithOptions(c.port, c.names, c.status, c.progress,
                                       ZVXFER_CLI_WORDS(c.words))
               : ZmodemReceiveWithOptions(c.port, c.status, c.progress, ZVXFER_CLI_WORDS(c.words));
}

int32_t RunAscii(const EntryCall &c) {
    const auto dropLf = static_cast<uint8_t>(c.dropLf ? 1 : 0);
    return c.sending ? AsciiSendWithOptions(c.port, c.names, c.status, c.progress, c.echo, dropLf,
                                            c.lineDelayMs, ZVXFER_CLI_WORDS(c.words))
                     : AsciiReceiveWithOptions(c.port, c.file, c.status, c.progress, c.echo, dropLf,
                                               ZVXFER_CLI_WORDS(c.words));
}

int32_t RunKermit(const EntryCall &c) {
    return c.sending
               ? KermitSendWithOptions(c.port, c.names, c.status, c.progress,
                                       ZVXFER_CLI_WORDS(c.words))
               : KermitReceiveWithOptions(c.port, c.status, c.progress, ZVXFER_CLI_WORDS(c.words));
}

#undef ZVXFER_CLI_WORDS

} // namespace

const std::vector<Protocol> &Protocols() {
    static const std::vector<Protocol> table{
        // clang-format off
        {"xmodem", Xmodem, false, false, false, "XMODEM, 128-byte blocks, CRC or checksum", 0, RunXmodem},
        {"xmodem-1k", Xmodem1K, false, false, false, "XMODEM with 1024-byte blocks", 0, RunXmodem1K},
        {"xmodem-1k-g", Xmodem1K, true, false, false, "XMODEM-1K streaming ('G')", 0, RunXmodem1K},
        {"ymodem", Ymodem, false, true, true, "YMODEM batch with names, sizes and times", 0, RunYmodem},
        {"ymodem-g", Ymodem, true, true, true, "YMODEM streaming ('G')", 0, RunYmodem},
        {"zmodem", Zmodem, false, true, true, "ZMODEM streaming batch with restarts, CRC-32", 2048, RunZmodem},
        {"kermit", Kermit, false, true, false, "Kermit batch, long packets; --text for text files", 0, RunKermit, false, true, true},
        {"bplus", CompuServeBPlus, false, true, false, "CompuServe B+ terminal: serves a B+ service's requests", 0, nullptr},
        {"ascii", Ascii, false, false, false, "plain text: paced lines out, capture until silence", 0, RunAscii, true},
        // clang-format on
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
