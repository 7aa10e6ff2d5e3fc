// Progress and status display of the zvxfer program (standard error only:
// standard output may be the line itself).
#include "progress.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "i18n.h"
#include "json_events.h"
#include "shown_text.h"
#include "term_screen.h"

namespace zvxfer::cli {
namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
// Progress events come at most this often per file: a front end redraws
// from them, and a log of a long transfer stays readable.
constexpr auto kProgressEvery = std::chrono::milliseconds(250);
constexpr int kBarMax = 30, kBarMin = 5;
constexpr std::size_t kNameColumns = 24, kNameMin = 8;

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

std::string_view LibraryResultText(int32_t code) {
#define ZVXFER_CLI_TEXT(value, name, text)                                                         \
    if (code == (value)) return text;
    XFER_RESULT_MAP(ZVXFER_CLI_TEXT)
    PORT_RESULT_MAP(ZVXFER_CLI_TEXT)
#undef ZVXFER_CLI_TEXT
    return "Unknown error code";
}

namespace {

// A file's size in an event: null while it is unknown.
JsonEvent &Size(JsonEvent &event, int32_t size) {
    return size > 0 ? event.Number("size", size) : event.Null("size");
}

} // namespace

JsonEvent Reporter::Event(std::string_view kind) const {
    JsonEvent event(kind);
    if (!side_.empty()) event.Text("side", side_);
    return event;
}

Reporter::Reporter(Verbosity verbosity, bool live, std::string label, std::string side)
    : verbosity_(verbosity), live_(live && verbosity != Verbosity::Quiet && !JsonOn()),
      label_(label.empty() ? std::string() : label + ": "), json_(JsonOn()),
      side_(side.empty() ? label : side) {}

Reporter::~Reporter() {
    ClearBar();
}

double Reporter::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - begun_).count();
}

void Reporter::Line(const std::string &text) {
    if (bottom_) {
        Put(label_ + text);
        return;
    }
    ClearBar();
    std::fputs((label_ + text + "\n").c_str(), stderr);
    if (live_ && !file_.empty()) Draw(true);
}

void Reporter::Put(const std::string &text) {
    const std::string shown(
        CutShown(text, static_cast<std::size_t>(std::max(1, TerminalColumns() - 1))));
    if (bottom_)
        std::fputs(BottomLineBytes(shown, TerminalRows()).c_str(), stderr);
    else
        fmt::print(stderr, "\r\033[K{}", shown);
    std::fflush(stderr);
    barShown_ = true;
}

void Reporter::ClearBar() {
    // The bottom line is replaced by what comes next, never blanked.
    if (!barShown_ || bottom_) return;
    std::fputs("\r\033[K", stderr);
    barShown_ = false;
}

// Notices and trace lines quote names and bytes from the line: shown
// escaped, like every name.
void Reporter::Status(const XferRecord &, int32_t level, const char *text) {
    if (!Shows(level)) return;
    if (json_) {
        Event("notice").Number("level", level).Text("text", text ? text : "").Emit();
        return;
    }
    Line(ShownText(text ? text : ""));
}

void Reporter::StartFile(const XferRecord &record) {
    Finish();
    name_ = Shown(record.FileName);
    file_ = ShownText(name_);
    size_ = record.FileSize;
    fileBegun_ = Clock::now();
    if (json_) {
        emitted_ = fileBegun_;
        Size(Event("file_start").Text("name", name_), size_).Emit();
        return;
    }
    if (verbosity_ != Verbosity::Quiet && !live_)
        Line(size_ > 0 ? fmt::format("{} ({})", file_, FormatBytes(size_)) : file_);
}

void Reporter::Progress(const XferRecord &record) {
    // A file is in progress once the record has an open file.  The Kermit
    // engine keeps its files to itself: its file is in progress once the
    // record counts one (before that the name is the send list or empty).
    const bool open =
        record.Protocol == Kermit ? record.FileCount > 0 : record.File != XFER_INVALID_FILE;
    if (!open && record.SkipFile == 1 && record.FileName && json_) EmitSkipped(record);
    if (!open || !record.FileName) return;
    sending_ = record.Sending != 0;
    const std::string_view shown = Shown(record.FileName);
    const uint64_t pos = record.FilePos > 0 ? static_cast<uint64_t>(record.FilePos) : 0;
    // A position that moves back is a restart within the file (ZMODEM
    // after a damaged subpacket), not a new file.
    if (shown != name_) StartFile(record);
    current_ = pos;
    if (record.FileSize > size_) size_ = record.FileSize;
    if (json_) EmitProgress(Clock::now());
    if (live_) Draw(false);
}

// A receiver passes over a file that its existing-file policy keeps out:
// the file never opens, so it starts and ends in one go, once for each
// name.
void Reporter::EmitSkipped(const XferRecord &record) {
    const std::string_view name = Shown(record.FileName);
    if (name == skipped_) return;
    Finish();
    skipped_ = name;
    ++filesEnded_;
    ++filesSkipped_;
    Size(Event("file_start").Text("name", name), record.FileSize).Emit();
    JsonEvent end = Event("file_end");
    end.Text("name", name)
        .Number("result", 0)
        .Text("text", LibraryResultText(0))
        .Number("bytes", 0);
    Size(end, record.FileSize).Flag("skipped", true).Emit();
}

// The rate of the file so far: it waits for a tenth of a second of data.
void Reporter::EmitProgress(Clock::time_point now) {
    if (now - emitted_ < kProgressEvery) return;
    emitted_ = now;
    const double elapsed = std::chrono::duration<double>(now - fileBegun_).count();
    JsonEvent event = Event("progress");
    Size(event.Text("name", name_).Number("bytes", current_), size_)
        .Real("rate", elapsed > 0.1 ? std::round(static_cast<double>(current_) / elapsed) : 0)
        .Emit();
}

int TerminalColumns() {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

std::string BarLine(const std::string &label, std::string_view name, uint64_t done, uint64_t size,
                    double rate, int columns) {
    const std::size_t width = columns > 1 ? static_cast<std::size_t>(columns - 1) : 1;
    // The figures in the order shown, each with its rank: when the line is
    // short the highest rank goes first (the percentage repeats the bar).
    struct Figure {
        int rank;
        std::string text;
    };
    std::vector<Figure> figures;
    const double part = size > 0 ? std::min(1.0, static_cast<double>(done) / size) : 0;
    if (size > 0) figures.push_back({3, fmt::format("{:.0f}%", part * 100)});
    figures.push_back({0, size > 0 ? fmt::format("{}/{}", FormatBytes(static_cast<double>(done)),
                                                 FormatBytes(static_cast<double>(size)))
                                   : FormatBytes(static_cast<double>(done))});
    if (rate > 0) figures.push_back({1, fmt::format("{}/s", FormatBytes(rate))});
    if (size > 0 && rate > 0 && done < size)
        figures.push_back(
            {2, fmt::format(F_("{} left"),
                            FormatDuration((size - static_cast<double>(done)) / rate))});
    const auto columnsOf = [](const std::string &text) { return ShownColumns(text); };
    std::string tail;
    for (;;) {
        tail.clear();
        for (const Figure &f : figures) tail += (tail.empty() ? "" : " ") + f.text;
        if (columnsOf(label) + kNameMin + 1 + columnsOf(tail) <= width || figures.size() == 1)
            break;
        figures.erase(
            std::max_element(figures.begin(), figures.end(),
                             [](const Figure &a, const Figure &b) { return a.rank < b.rank; }));
    }
    std::size_t room = width - std::min(width, columnsOf(label) + columnsOf(tail) + 1);
    // The name takes what it needs up to its share; the bar what is left.
    const std::string_view shownName = CutShown(name, std::min(room, kNameColumns));
    std::string line = label + std::string(shownName) +
                       std::string(std::min(room, kNameColumns) - ShownColumns(shownName), ' ');
    room -= std::min(room, kNameColumns);
    if (size > 0 && room >= static_cast<std::size_t>(kBarMin) + 3) {
        const int inner = std::min<int>(kBarMax, static_cast<int>(room) - 3);
        const int filled = static_cast<int>(part * inner);
        line += fmt::format(" [{}{}]", std::string(filled, '#'), std::string(inner - filled, '.'));
    }
    line += " " + tail;
    // Whatever was kept, the line never reaches the last column.
    return std::string(CutShown(line, width));
}

void Reporter::Draw(bool force) {
    const auto now = Clock::now();
    if (!force && now - drawn_ < kRedraw) return;
    drawn_ = now;
    const double elapsed = std::chrono::duration<double>(now - fileBegun_).count();
    // While the file runs the rate waits for a tenth of a second of data;
    // the final line (forced) divides whatever time it took.
    const double rate =
        (elapsed > 0.1 || (force && elapsed > 0)) ? static_cast<double>(current_) / elapsed : 0;
    const uint64_t size = size_ > 0 ? static_cast<uint64_t>(size_) : 0;
    Put(BarLine(label_, file_, current_, size, rate, TerminalColumns()));
}

void Reporter::Waiting(double seconds) {
    if (json_) {
        // One event for each whole second waited, from the first.
        const long whole = seconds < 0 ? -1 : static_cast<long>(seconds);
        if (whole >= 1 && whole != waitedShown_) {
            Event("waiting").Number("seconds", static_cast<int64_t>(whole)).Emit();
        }
        waitedShown_ = whole;
        return;
    }
    if (verbosity_ == Verbosity::Quiet) return;
    if (seconds < 0) {
        if (waitedShown_ >= 0 && live_) ClearBar();
        waitedShown_ = -1;
        return;
    }
    const long whole = static_cast<long>(seconds);
    if (whole < 1 || whole == waitedShown_) return;
    if (!live_) {
        // A log gets the wait once, not a line per second.
        if (!waitShown_ && whole >= 2) {
            Line(std::string("zvxfer: ") + _("waiting for the receiver"));
            waitShown_ = true;
        }
        return;
    }
    waitedShown_ = whole;
    const std::string text = label_ + fmt::format(F_("waiting for the receiver ({} s)"), whole);
    Put(text);
}

void Reporter::Finish(int32_t result, std::string_view reason) {
    if (file_.empty()) return;
    ++filesEnded_;
    // A file a sender ended without error before all its bytes went was
    // passed over by the receiver.
    const bool skipped =
        result >= 0 && sending_ && size_ > 0 && current_ < static_cast<uint64_t>(size_);
    if (result < 0) ++filesFailed_;
    if (skipped) ++filesSkipped_;
    skipped_.clear();
    if (json_) {
        JsonEvent event = Event("file_end");
        event.Text("name", name_)
            .Number("result", result)
            .Text("text", LibraryResultText(result))
            .Number("bytes", current_);
        Size(event, size_).Flag("skipped", skipped);
        if (!reason.empty()) event.Text("reason", reason);
        event.Emit();
    }
    if (live_) {
        Draw(true);
        if (!bottom_) std::fputs("\n", stderr);
        barShown_ = false;
    }
    bytes_ += current_;
    current_ = 0;
    file_.clear();
    name_.clear();
}

} // namespace zvxfer::cli
