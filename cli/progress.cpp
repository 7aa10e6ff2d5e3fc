// Progress and status display of the zvxfer program (standard error only:
// standard output may be the line itself).
#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string_view>

#include "shown_text.h"

namespace zvxfer::cli {
namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kBarWidth = 20;
constexpr std::size_t kNameColumns = 24;

// The name without its folder, for display.
std::string_view Shown(const char *name) {
    if (!name) return {};
    const char *slash = std::strrchr(name, '/');
    return slash ? slash + 1 : name;
}

} // namespace

std::string FormatBytes(double bytes) {
    static const char *const units[] = {"B", "KiB", "MiB", "GiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 3) {
        bytes /= 1024;
        ++unit;
    }
    return unit == 0 ? fmt::format("{:.0f} B", bytes)
                     : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string FormatDuration(double seconds) {
    const auto s = static_cast<long>(seconds + 0.5);
    if (s >= 3600) return fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60);
    return fmt::format("{}:{:02}", s / 60, s % 60);
}

Reporter::Reporter(Verbosity verbosity, bool live, std::string label)
    : verbosity_(verbosity), live_(live && verbosity != Verbosity::Quiet),
      label_(label.empty() ? std::string() : label + ": ") {}

Reporter::~Reporter() {
    ClearBar();
}

double Reporter::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - begun_).count();
}

void Reporter::Line(const std::string &text) {
    ClearBar();
    std::fputs((label_ + text + "\n").c_str(), stderr);
    if (live_ && !file_.empty()) Draw(true);
}

void Reporter::ClearBar() {
    if (!barShown_) return;
    std::fputs("\r\033[K", stderr);
    barShown_ = false;
}

// Notices and trace lines quote names and bytes from the line: shown
// escaped, like every name.
void Reporter::Status(const XferRecord &, int32_t level, const char *text) {
    if (!Shows(level)) return;
    Line(ShownText(text ? text : ""));
}

void Reporter::StartFile(const XferRecord &record) {
    Finish();
    name_ = Shown(record.FileName);
    file_ = ShownText(name_);
    size_ = record.FileSize;
    fileBegun_ = Clock::now();
    if (verbosity_ != Verbosity::Quiet && !live_)
        Line(size_ > 0 ? fmt::format("{} ({})", file_, FormatBytes(size_)) : file_);
}

void Reporter::Progress(const XferRecord &record) {
    // A file is in progress once the record has an open file.  The Kermit
    // engine keeps its files to itself: its file is in progress once the
    // record counts one (before that the name is the send list or empty).
    const bool open =
        record.Protocol == Kermit ? record.FileCount > 0 : record.File != XFER_INVALID_FILE;
    if (!open || !record.FileName) return;
    const std::string_view shown = Shown(record.FileName);
    const uint64_t pos = record.FilePos > 0 ? static_cast<uint64_t>(record.FilePos) : 0;
    // A position that moves back is a restart within the file (ZMODEM
    // after a damaged subpacket), not a new file.
    if (shown != name_) StartFile(record);
    current_ = pos;
    if (record.FileSize > size_) size_ = record.FileSize;
    if (live_) Draw(false);
}

void Reporter::Draw(bool force) {
    const auto now = Clock::now();
    if (!force && now - drawn_ < kRedraw) return;
    drawn_ = now;
    const double elapsed = std::chrono::duration<double>(now - fileBegun_).count();
    const double rate = elapsed > 0.05 ? static_cast<double>(current_) / elapsed : 0;
    std::string bar, left;
    if (size_ > 0) {
        const double done = std::min(1.0, static_cast<double>(current_) / size_);
        const int filled = static_cast<int>(done * kBarWidth);
        bar = fmt::format("[{}{}] {:3.0f}% ", std::string(filled, '#'),
                          std::string(kBarWidth - filled, '.'), done * 100);
        if (rate > 0)
            left = fmt::format(" {} left",
                               FormatDuration((size_ - static_cast<double>(current_)) / rate));
    }
    // The name is cut by columns, never inside a character or an escape.
    const std::string_view name = CutShown(file_, kNameColumns);
    const std::string pad(kNameColumns - ShownColumns(name), ' ');
    fmt::print(stderr, "\r\033[K{}{}{} {}{:>10}  {:>10}/s{}", label_, name, pad, bar,
               FormatBytes(static_cast<double>(current_)), FormatBytes(rate), left);
    std::fflush(stderr);
    barShown_ = true;
}

void Reporter::Finish() {
    if (file_.empty()) return;
    if (live_) {
        Draw(true);
        std::fputs("\n", stderr);
        barShown_ = false;
    }
    bytes_ += current_;
    current_ = 0;
    file_.clear();
    name_.clear();
}

} // namespace zvxfer::cli
