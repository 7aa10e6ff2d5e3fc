// `zvxfer serve -p bplus`: stand up a CompuServe B+ service on a line, to
// try a terminal program against.  The service greets the terminal with
// ENQ and drives the requests given (downloads first, then uploads).
#pragma once
#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "line.h"

namespace zvxfer::cli {

struct ServeSettings {
    std::string protocol;
    LineChoice line;
    std::vector<std::string> downloads; // files the service sends
    std::vector<std::string> uploads;   // names the service asks for
    std::string folder = ".";           // where uploads land
    int checkMethod = 1;
    int blockSize = 8;
    int window = 1;
    int ahead = 1; // packets sent beyond the window: one keeps the line busy
    bool resume = false;
    bool fileInfo = false;
    bool noGreeting = false;
    int timeoutMs = 10000;
    int maxErrors = 10;
    int lingerMs = 2000;
    // Misbehaviour: 0 is off.
    int dropPacket = 0, damagePacket = 0, repeatPacket = 0;
    int dropAck = 0, damageAck = 0, repeatAck = 0;
    int silentFrom = 0, failAt = 0;
    char failCode = 'A';
    bool quiet = false, verbose = false;
};

// Add the `serve` subcommand to the program.
CLI::App *AddServeCommand(CLI::App &app, ServeSettings &settings);
// Run the service; the program's exit status.
int RunServe(const ServeSettings &settings);

} // namespace zvxfer::cli
