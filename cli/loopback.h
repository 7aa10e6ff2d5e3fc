// `zvxfer loopback`: both ends in this process over a simulated line, then
// every received file checked against its original.
#pragma once
#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "link_pair.h"
#include "progress.h"
#include "protocols.h"
#include "transfer.h"

namespace zvxfer::cli {

struct LoopbackSettings {
    Protocol protocol{};
    std::vector<std::string> files;
    uint32_t baud = 0; // bits per second, 8N1 (0: as fast as the machine goes)
    uint32_t latencyMs = 0;
    double bitErrorRate = 0;
    uint64_t seed = 1;
    std::string folder;            // where received files land (default: a fresh temporary folder)
    bool keep = false;             // keep the fresh folder and its copies after the run
    TransferSettings sendOptions;  // the sender's protocol options (ZMODEM window, ...)
    std::optional<int32_t> idleMs; // ASCII: the capture's silence (default: from the line)
};

void AddLoopbackOptions(CLI::App &cmd, LoopbackSettings &settings);

// A new temporary folder "zvxfer-<what>-XXXXXX" ("" when none could be made).
std::string FreshFolder(const char *what);

// The simulated line of the settings, the same both ways; the receiving
// side (b) writes into `receiveFolder`, overwriting earlier copies.
host::LinkConfig SimulatedLink(const LoopbackSettings &settings, const std::string &receiveFolder);
int RunLoopback(const LoopbackSettings &settings, Verbosity verbosity);

} // namespace zvxfer::cli
