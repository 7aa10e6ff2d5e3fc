// The terminal end of a CompuServe B+ session: wait on the line for the
// service, answer its ENQ, run one library transfer for each DLE 'B', and
// end once the service has been quiet for a while after the last one.
//
// The service names the files.  An upload is served only for a file the
// user offered on the command line, asked for by its own name; anything
// else is refused through the library's file-open hook, so a service can
// never read a file the user did not offer.  Downloads land below the
// receive folder (the library places them) under the port's existing-file
// policy, and continue a partial file only when resuming was asked for.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "json_events.h"
#include "progress.h"
#include "zvxfer.h"

namespace zvxfer::cli {

struct BPlusTerminalSettings {
    std::vector<std::string> offered; // files the service may ask to upload
    int32_t checkMethod = 3;          // asked for: 0 checksum .. 3 CRC-32
    bool resume = false;              // a download continues an existing file
    bool fileInfo = false;
    // Silence after a transfer that ends the session.  Before the first
    // request the program waits at least kFirstWaitMs, and inside a
    // transfer at least kTransferSilenceMs.
    int32_t quietMs = 5000;
};
constexpr int32_t kFirstWaitMs = 60000;
constexpr int32_t kTransferSilenceMs = 20000;

// One request the service made, as the terminal saw it.
struct BPlusRequestOutcome {
    bool upload = false;
    std::string name;      // as the service gave it (uploads) or as written (downloads)
    int32_t result = 0;    // the entry's result: 1 or a negative code
    std::string notice;    // the library's last notice in this request (service's failure text)
    std::string refused;   // set when an upload was refused: why
    uint64_t bytes = 0;    // file bytes moved
    std::string localPath; // an upload's file
    double seconds = 0;    // from DLE 'B' to the entry's return
};

struct BPlusSessionOutcome {
    std::vector<BPlusRequestOutcome> requests;
    // Why the session ended: "quiet", "lost", "interrupted".
    std::string ended;
    double seconds = 0;
};

// The local file a service's upload request may read, or "" with `why`
// set: only a name equal to an offered file's name (its last component)
// or to the offered path as typed, never absolute, never with "..".
std::string UploadPath(const std::string &asked, const std::vector<std::string> &offered,
                       std::string &why);

// The option words of one B+ entry call, ended by 0.
std::vector<int32_t> BPlusOptionWords(const BPlusTerminalSettings &settings);

// Run the session on `port` on the calling thread.  `lineLost` tells that
// the line is gone; `reporter` shows progress and the library's notices.
BPlusSessionOutcome RunBPlusSession(XferPort *port, const BPlusTerminalSettings &settings,
                                    Reporter &reporter, std::function<bool()> lineLost);

// The session's requests for its last JSON event: done, failed, bytes.
SessionTally TallyOf(const BPlusSessionOutcome &outcome);

// The program's report and exit status: 0 only when the service made at
// least one request and every one succeeded.
int ReportBPlusSession(const BPlusSessionOutcome &outcome, const BPlusTerminalSettings &settings,
                       Verbosity verbosity);

} // namespace zvxfer::cli
