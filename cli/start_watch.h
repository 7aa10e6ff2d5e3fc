// What an XMODEM or YMODEM sender hears before its first block.
//
// The sender waits for the receiver's start request: 'C' (CRC), NAK
// (checksum, --checksum) or 'G' (streaming, the -g modes).  A receiver
// that asks only for another mode keeps asking until the sender gives up
// (about 40 s), and a silent one leaves the sender waiting longer still.
// The watcher sees the bytes of the line until the first block goes out:
// the program shows how long it has waited, and when the receiver has
// asked for another mode and the sender has not started a few seconds
// later, the transfer ends with advice naming the options that match.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "transfer.h"

namespace zvxfer::cli {

class StartWatch {
  public:
    // Seconds the sender is given to take up a request it heard before the
    // program ends the transfer.
    static constexpr double kGrace = 3.0;

    // Only XMODEM and YMODEM senders are watched.
    static bool Applies(const TransferSettings &s);

    // `protocolName` as typed after -p; `streaming` and `checksum` as chosen.
    StartWatch(std::string protocolName, bool streaming, bool checksum, double now);

    void Read(const uint8_t *data, std::size_t length, double now);
    void Written(const uint8_t *data, std::size_t length);

    // True once a block went out: from then on the watcher says nothing.
    bool Started() const { return started_; }
    double Waited(double now) const { return now - begun_; }
    // Advice once the receiver has asked only for another mode and the
    // sender has had kGrace seconds to answer it; empty before.
    std::string Verdict(double now) const;

  private:
    std::string name_;
    bool streaming_, checksum_;
    double begun_;
    bool started_ = false;
    std::optional<uint8_t> foreign_; // the last request for another mode
    double foreignAt_ = 0;           // when it was first heard
};

} // namespace zvxfer::cli
