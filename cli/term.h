// `zvxfer term`: a terminal session on a serial line, a TCP connection or a
// command on a pseudo-terminal, with an escape key that opens a menu of
// transfers on the same line.
#pragma once
#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "line.h"
#include "zvxfer.h"

namespace zvxfer::cli {

struct TermSettings {
    LineChoice line;                  // --line / --tcp
    std::vector<std::string> command; // after --: run on a pty
    std::string escape = "^]";
    std::string folder = "."; // where received files land
    int32_t policy = XFER_EXISTING_RENAME;
};

// The subcommand and its options.
CLI::App *AddTermCommand(CLI::App &app, TermSettings &settings);

// Run the session; the exit status (the command's own when one ran).
int RunTerm(const TermSettings &settings);

} // namespace zvxfer::cli
