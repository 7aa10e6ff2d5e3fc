// What the zvxfer program shows on standard error while a transfer runs: a
// live bar (file, bytes, rate, time left) when stderr is a terminal, plain
// lines otherwise, the library's notices, and its trace lines on request.
// Under --json the same moments are events instead (json_events.h).
#pragma once
#include <chrono>
#include <cstdint>
#include <string>

#include "json_events.h"
#include "zvxfer.h"

namespace zvxfer::cli {

enum class Verbosity { Quiet, Normal, Verbose };

class Reporter {
  public:
    // `label` prefixes every line when two transfers share the screen;
    // `side` names the transfer in JSON events (default: the label).
    Reporter(Verbosity verbosity, bool live, std::string label = {}, std::string side = {});
    ~Reporter();

    // False when no status line would be shown (the library then need not
    // format any).
    bool WantsStatus() const { return verbosity_ != Verbosity::Quiet; }
    // True when a status line of this level is shown.
    bool Shows(int32_t level) const {
        return verbosity_ == Verbosity::Verbose || (level != 0 && WantsStatus());
    }
    void Status(const XferRecord &record, int32_t level, const char *text);
    void Progress(const XferRecord &record);
    // The current file's bytes when the record's position counts more than
    // the file's bytes (a B+ upload's packets carry a type byte).
    void SetFileBytes(uint64_t bytes) {
        if (!file_.empty()) current_ = bytes;
    }
    // End the current file with the library's result for it (0: it went
    // whole) and, when the program judged it failed, why; called once the
    // transfer has returned.  A file followed by another ended with 0.
    void Finish(int32_t result = 0, std::string_view reason = {});
    // The sender has waited this long for the receiver to start (shown on
    // the bar's line, or once as a plain line); negative: the wait is over.
    void Waiting(double seconds);

    // Draw the bar, the waits and the notices on the screen's last row,
    // each replacing the one before, with the cursor put back each time:
    // a terminal session's screen stays the remote's.
    void UseBottomLine() { bottom_ = true; }

    uint64_t Bytes() const { return bytes_ + current_; }
    double Seconds() const;
    // Files ended so far, and those of them that ended with a failure.
    uint64_t FilesEnded() const { return filesEnded_; }
    uint64_t FilesFailed() const { return filesFailed_; }
    uint64_t FilesSkipped() const { return filesSkipped_; }

  private:
    using Clock = std::chrono::steady_clock;
    void StartFile(const XferRecord &record);
    void Draw(bool force);
    void ClearBar();
    void Line(const std::string &text);
    void Put(const std::string &text); // the live line: the bar, a wait
    void EmitProgress(Clock::time_point now);
    void EmitSkipped(const XferRecord &record);
    // An event of this transfer: its side when it has one.
    JsonEvent Event(std::string_view kind) const;

    Verbosity verbosity_;
    bool live_;
    bool bottom_ = false;
    std::string label_;
    std::string name_;     // name of the file in progress as it came (empty: none yet)
    std::string file_;     // the same, escaped for the terminal
    int32_t size_ = 0;     // its announced size, 0 when unknown
    uint64_t current_ = 0; // its bytes so far
    uint64_t bytes_ = 0;   // bytes of the files before it
    Clock::time_point begun_ = Clock::now();
    Clock::time_point fileBegun_ = begun_;
    Clock::time_point drawn_{};
    bool barShown_ = false;
    bool waitShown_ = false; // the plain-line form was printed
    long waitedShown_ = -1;  // whole seconds on the waiting line drawn last
    // JSON events
    bool json_;
    std::string side_;
    Clock::time_point emitted_{}; // the file's last progress event
    bool sending_ = false;
    std::string skipped_; // the name of the receiver's last skipped file
    uint64_t filesEnded_ = 0, filesFailed_ = 0, filesSkipped_ = 0;
};

// The library's own (English) text of a result code, as the header's
// result maps give it; "Unknown error code" for a code not in them.
std::string_view LibraryResultText(int32_t code);

// The bar's line for `columns` terminal columns: label, name, bar, percent,
// done/total, rate and time left, the least useful parts left out first,
// never wider than columns - 1 (a line that fills the last column wraps on
// some terminals).  `size` 0: unknown.
std::string BarLine(const std::string &label, std::string_view name, uint64_t done, uint64_t size,
                    double rate, int columns);

// Columns of the terminal on standard error (80 when it does not say).
int TerminalColumns();

// Human-readable byte counts and durations ("1.5 MiB", "2:03").
std::string FormatBytes(double bytes);
std::string FormatDuration(double seconds);

} // namespace zvxfer::cli
