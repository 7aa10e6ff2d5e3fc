// `zvxfer --json`: the program's events as one JSON object a line on
// standard error, for terminal front ends and scripts.  Every object has
// "event" (its kind) and "time" (seconds since the program started, from a
// monotonic clock); the kinds and their fields are listed in zvxfer(1) and
// stay as they are.
//
// Text from the line (file names, the library's notices) may hold any
// bytes.  A string field holds valid UTF-8 as it is, control characters
// (U+0000-U+001F, U+007F-U+009F, U+2028, U+2029) escaped as \uXXXX, and
// U+FFFD for each byte that is not part of a valid UTF-8 sequence; when
// there was such a byte, a field of the same name ending in "_hex" carries
// every byte of the original text in hexadecimal, so nothing is lost.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zvxfer::cli {

// `bytes` as a JSON string (with its quotes); `valid` is set false when a
// byte had to be replaced.
std::string JsonString(std::string_view bytes, bool *valid = nullptr);

// One event object, written as one line by Emit().
class JsonEvent {
  public:
    explicit JsonEvent(std::string_view kind);
    // A text field; adds "<key>_hex" when the text is not valid UTF-8.
    JsonEvent &Text(std::string_view key, std::string_view bytes);
    JsonEvent &Number(std::string_view key, int64_t value);
    JsonEvent &Number(std::string_view key, uint64_t value);
    JsonEvent &Number(std::string_view key, int32_t value) {
        return Number(key, static_cast<int64_t>(value));
    }
    JsonEvent &Real(std::string_view key, double value);
    JsonEvent &Flag(std::string_view key, bool value);
    JsonEvent &Null(std::string_view key);
    // The object as written now, without its line end.
    std::string Object() const;
    // Write the line to standard error at once (one write, so the lines of
    // the two sides of a loopback never mix).  Its time is taken under the
    // same lock, so the times of the lines never go back.
    void Emit() const;

  private:
    void Key(std::string_view key);
    std::string kind_; // as JSON
    std::string text_; // the fields after "time"
};

// Turned on once, by --json, before anything else is written.
void EnableJson();
bool JsonOn();

// A line for the user: "zvxfer: TEXT" (`who` instead of "zvxfer" when
// given), or a "message" event under --json.
void Note(const std::string &text, std::string_view who = "zvxfer");

// The session's first and last events.  `line` describes the line
// ("stdin/stdout", "/dev/ttyUSB0 115200", "tcp host:7000", "simulated");
// `version` is the program's.
void JsonSessionStart(std::string_view protocol, std::string_view direction, std::string_view line,
                      std::string_view version);

// What a session did, for its last event: files that arrived or went
// whole, files that failed, files passed over, and the file bytes moved.
struct SessionTally {
    uint64_t done = 0, failed = 0, skipped = 0;
    uint64_t bytes = 0;
};
// Filled by the run of the subcommand, written by JsonSessionEnd.
extern SessionTally g_sessionTally;
void JsonSessionEnd(const SessionTally &tally, int exitStatus);

} // namespace zvxfer::cli
