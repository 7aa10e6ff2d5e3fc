// One transfer of the zvxfer program on a port: the option words from the
// command line, the library's callbacks and hooks, and the outcome.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "partial_file.h"
#include "progress.h"
#include "protocols.h"
#include "zvxfer.h"

namespace zvxfer::cli {

struct TransferSettings {
    Protocol protocol;
    bool sending = true;
    std::vector<std::string> files; // send: names or wildcards; receive: the file to write
    std::string folder = ".";       // receive: where files land
    int32_t policy = XFER_EXISTING_RENAME;
    bool checksum = false;
    bool fullPath = false;
    std::optional<int32_t> timeoutMs;
    // ZMODEM
    bool subfolders = false;
    bool resume = false;
    bool pacing = false;
    bool noWindow = false;
    std::optional<int32_t> management; // option code 1018..1023
    std::optional<int32_t> maxErrors;
    std::optional<int32_t> windowBytes;
    // ASCII
    bool dropLf = false;           // LF bytes are neither sent nor written
    int32_t lineDelayMs = 0;       // send: pause after each line
    std::optional<int32_t> idleMs; // receive: silence that ends the capture (-1: none)
    bool echo = false;             // send: show the far end's echo on standard error
    // Kermit
    bool textFiles = false; // text files: line ends converted on the way
};

struct Outcome {
    int32_t result = 0; // the entry's result: a file count or a negative code
    uint64_t bytes = 0;
    double seconds = 0;
    // Set when the program judged the transfer failed although the entry's
    // result does not say so (Kermit): why, safe to print.
    std::string failure;
    // With `failure`: the result code closest to it, for the file's end
    // (interrupted, line lost, cancelled by the far end; else -1).
    int32_t failureCode = 0;
    // Kermit receive: the local names the files were written under, in
    // order (the engine converts the names that come from the line).
    std::vector<std::string> written;
};

// Set when the user pressed Ctrl-C: the next abort check ends the transfer.
extern std::atomic<bool> g_interrupted;

// The receive folder as the library wants it: ending in '/'.
std::string FolderText(const std::string &folder);

// The library's name list: every name in double quotes.  Empty when a name
// itself holds a double quote (it cannot be expressed).
std::string QuotedNames(const std::vector<std::string> &files);

// Install the process's abort hook (Ctrl-C, lost line); once per process.
void InstallHooks();

// Run one transfer on the calling thread.  `lineLost` tells the abort hook
// that the line is gone (the transfer then ends with -618); `files`, when
// given, watches the files a receive writes.
Outcome RunTransfer(XferPort *port, const TransferSettings &settings, Reporter &reporter,
                    std::function<bool()> lineLost, ReceivedFiles *files = nullptr);

// A plain-text capture's normal ends: the silence it waits for, and
// Ctrl-C when it waits with no limit.
bool CaptureEndedNormally(const TransferSettings &settings, int32_t result);

// "-606 Remote end sent abort code"
std::string DescribeResult(int32_t code);

} // namespace zvxfer::cli
