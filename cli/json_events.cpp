// The JSON event lines of `zvxfer --json`, written with fmt: the few value
// kinds the events need (text, integers, reals, true/false, null) and a
// string encoder that takes any bytes.
#include "json_events.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fmt/format.h>
#include <mutex>

#include "shown_text.h"

namespace zvxfer::cli {
namespace {

std::atomic<bool> g_json{false};
const auto g_started = std::chrono::steady_clock::now();
std::mutex g_writeMutex;

constexpr char kHex[] = "0123456789abcdef";

void AppendEscape(std::string &out, uint32_t codePoint) {
    out += fmt::format("\\u{:04x}", codePoint);
}

// The code point of a valid sequence of `length` bytes.
uint32_t CodePoint(std::string_view sequence, std::size_t length) {
    static constexpr uint8_t kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    uint32_t value = static_cast<uint8_t>(sequence[0]) & kLeadMask[length];
    for (std::size_t i = 1; i < length; ++i)
        value = value << 6 | (static_cast<uint8_t>(sequence[i]) & 0x3F);
    return value;
}

} // namespace

SessionTally g_sessionTally;

std::string JsonString(std::string_view bytes, bool *valid) {
    std::string out = "\"";
    out.reserve(bytes.size() + 2);
    bool allValid = true;
    for (std::size_t i = 0; i < bytes.size();) {
        const auto b = static_cast<uint8_t>(bytes[i]);
        if (b < 0x80) {
            if (b == '"' || b == '\\') {
                out += '\\';
                out += static_cast<char>(b);
            } else if (b == '\n') {
                out += "\\n";
            } else if (b == '\r') {
                out += "\\r";
            } else if (b == '\t') {
                out += "\\t";
            } else if (b < 0x20 || b == 0x7F) {
                AppendEscape(out, b);
            } else {
                out += static_cast<char>(b);
            }
            ++i;
            continue;
        }
        const std::size_t length = Utf8Length(bytes.substr(i));
        if (length == 0) {
            out += "\xEF\xBF\xBD"; // U+FFFD for the byte that fits no sequence
            allValid = false;
            ++i;
            continue;
        }
        // C1 controls, and the two separators that end a line in
        // JavaScript, travel escaped: a terminal showing the line stays
        // untouched.
        const uint32_t value = CodePoint(bytes.substr(i), length);
        if (value <= 0x9F || value == 0x2028 || value == 0x2029)
            AppendEscape(out, value);
        else
            out.append(bytes.substr(i, length));
        i += length;
    }
    out += '"';
    if (valid) *valid = allValid;
    return out;
}

JsonEvent::JsonEvent(std::string_view kind) : kind_(JsonString(kind)) {}

std::string JsonEvent::Object() const {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - g_started).count();
    return fmt::format("{{\"event\":{},\"time\":{}{}{}}}", kind_, std::floor(seconds * 1000) / 1000,
                       text_.empty() ? "" : ",", text_);
}

void JsonEvent::Key(std::string_view key) {
    if (!text_.empty()) text_ += ',';
    text_ += JsonString(key);
    text_ += ':';
}

JsonEvent &JsonEvent::Text(std::string_view key, std::string_view bytes) {
    bool valid = true;
    Key(key);
    text_ += JsonString(bytes, &valid);
    if (!valid) {
        std::string hex;
        hex.reserve(bytes.size() * 2);
        for (const char c : bytes) {
            hex += kHex[static_cast<uint8_t>(c) >> 4];
            hex += kHex[static_cast<uint8_t>(c) & 15];
        }
        Key(std::string(key) + "_hex");
        text_ += JsonString(hex);
    }
    return *this;
}

JsonEvent &JsonEvent::Number(std::string_view key, int64_t value) {
    Key(key);
    text_ += fmt::format("{}", value);
    return *this;
}

JsonEvent &JsonEvent::Number(std::string_view key, uint64_t value) {
    Key(key);
    text_ += fmt::format("{}", value);
    return *this;
}

// JSON has no infinity or NaN: such a value is written as null.
JsonEvent &JsonEvent::Real(std::string_view key, double value) {
    if (!std::isfinite(value)) return Null(key);
    Key(key);
    text_ += fmt::format("{}", value);
    return *this;
}

JsonEvent &JsonEvent::Flag(std::string_view key, bool value) {
    Key(key);
    text_ += value ? "true" : "false";
    return *this;
}

JsonEvent &JsonEvent::Null(std::string_view key) {
    Key(key);
    text_ += "null";
    return *this;
}

void JsonEvent::Emit() const {
    const std::lock_guard<std::mutex> lock(g_writeMutex);
    const std::string line = Object() + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void EnableJson() {
    g_json.store(true);
}

bool JsonOn() {
    return g_json.load(std::memory_order_relaxed);
}

void Note(const std::string &text, std::string_view who) {
    if (JsonOn()) {
        JsonEvent("message").Text("text", text).Emit();
        return;
    }
    fmt::print(stderr, "{}: {}\n", who, text);
}

void JsonSessionStart(std::string_view protocol, std::string_view direction, std::string_view line,
                      std::string_view version) {
    if (!JsonOn()) return;
    JsonEvent("session_start")
        .Text("protocol", protocol)
        .Text("direction", direction)
        .Text("version", version)
        .Text("line", line)
        .Emit();
}

void JsonSessionEnd(const SessionTally &tally, int exitStatus) {
    if (!JsonOn()) return;
    JsonEvent("session_end")
        .Number("files", tally.done)
        .Number("failed", tally.failed)
        .Number("skipped", tally.skipped)
        .Number("bytes", tally.bytes)
        .Number("exit", static_cast<int64_t>(exitStatus))
        .Emit();
}

} // namespace zvxfer::cli
