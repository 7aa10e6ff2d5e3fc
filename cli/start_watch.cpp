// The XMODEM/YMODEM sender's wait for its start request, as the program
// watches it.
#include "start_watch.h"

#include <fmt/format.h>
#include <utility>

#include "i18n.h"

namespace zvxfer::cli {
namespace {

constexpr uint8_t kSoh = 0x01, kStx = 0x02, kNak = 0x15;

// The 1024-byte protocol of the same family (-g needs 1024-byte blocks).
std::string Family(const std::string &name) {
    return name.starts_with("ymodem") ? "ymodem" : "xmodem-1k";
}

} // namespace

bool StartWatch::Applies(const TransferSettings &s) {
    const int32_t n = s.protocol.number;
    return s.sending && (n == Xmodem || n == Xmodem1K || n == Ymodem);
}

StartWatch::StartWatch(std::string protocolName, bool streaming, bool checksum, double now)
    : name_(std::move(protocolName)), streaming_(streaming), checksum_(checksum), begun_(now) {}

void StartWatch::Written(const uint8_t *data, std::size_t length) {
    // A block starts with SOH or STX; the cancel string (CAN) is no start.
    if (length > 0 && (data[0] == kSoh || data[0] == kStx)) started_ = true;
}

void StartWatch::Read(const uint8_t *data, std::size_t length, double now) {
    if (started_) return;
    const uint8_t wanted = streaming_ ? 'G' : checksum_ ? kNak : 'C';
    for (std::size_t i = 0; i < length; ++i) {
        const uint8_t b = data[i];
        if (b == wanted) {
            foreign_.reset(); // the sender is answered: no advice
        } else if (b == 'C' || b == 'G' || b == kNak) {
            if (foreign_ != b) foreignAt_ = now;
            foreign_ = b;
        }
    }
}

std::string StartWatch::Verdict(double now) const {
    if (started_ || !foreign_ || now - foreignAt_ < kGrace) return {};
    const std::string family = Family(name_);
    switch (*foreign_) {
    case 'C':
        if (streaming_)
            return fmt::format(
                F_("the receiver asks for CRC mode ('C'), not streaming ('G'): use -p {}"), family);
        return fmt::format(F_("the receiver asks for CRC mode ('C'), not checksum mode (NAK): "
                              "leave out --checksum"));
    case 'G':
        return fmt::format(F_("the receiver asks for streaming ('G'): use -p {}-g{}"), family,
                           checksum_ ? _(" without --checksum") : "");
    default: // NAK
        if (streaming_)
            return fmt::format(F_("the receiver asks for checksum mode (NAK), not streaming "
                                  "('G'): use -p {} --checksum"),
                               family);
        return fmt::format(
            F_("the receiver asks for checksum mode (NAK), not CRC mode ('C'): add --checksum"));
    }
}

} // namespace zvxfer::cli
