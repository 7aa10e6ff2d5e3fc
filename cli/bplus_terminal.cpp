// The B+ terminal session of the zvxfer program.
#include "bplus_terminal.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fmt/format.h>

#include "i18n.h"
#include "json_events.h"
#include "port_tap.h"
#include "shown_text.h"
#include "transfer.h"

namespace zvxfer::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEnq = 0x05;
constexpr int kDle = 0x10;

// The session in progress (one per process at a time): the library's hooks
// are process-wide, so they find the session here and leave every other
// port to the hooks that were there before.
struct Session {
    XferPort *port = nullptr;
    const BPlusTerminalSettings *settings = nullptr;
    Reporter *reporter = nullptr;
    const std::function<bool()> *lineLost = nullptr;
    std::atomic<int64_t> heardUs{0}; // when the last byte arrived (steady clock)
    bool inTransfer = false;
    BPlusRequestOutcome *request = nullptr; // the one running
    XferIdleFn prevIdle = nullptr;
    XferAbortFn prevAbort = nullptr;
    XferFileOpenFn prevOpen = nullptr;
};
Session *g_session = nullptr;

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
}

void Heard() {
    g_session->heardUs.store(NowUs(), std::memory_order_relaxed);
}

// How long the line may stay silent now before the session gives up.
int64_t SilenceLimitMs(const Session &s, bool anyRequest) {
    const int64_t quiet = s.settings->quietMs;
    if (s.inTransfer) return std::max<int64_t>(quiet, kTransferSilenceMs);
    return anyRequest ? quiet : std::max<int64_t>(quiet, kFirstWaitMs);
}

// The reason to stop the transfer running now, or 0.
int32_t StopCode(const Session &s) {
    if (g_interrupted.load(std::memory_order_relaxed)) return XferErrUserAbort;
    // The host flags a read when the line is gone for good.
    if (s.port->RxBlock.Error != 0 || (s.lineLost && *s.lineLost && (*s.lineLost)()))
        return XferErrLostCarrier;
    const int64_t silentMs = (NowUs() - s.heardUs.load(std::memory_order_relaxed)) / 1000;
    if (silentMs > SilenceLimitMs(s, true)) return XferErrCharTimeout;
    return 0;
}

// A wait of the engine ends at once when the transfer is to stop, so that
// the abort check that follows can end it (the engine itself would wait
// for the service without limit).
int32_t OnIdle(XferPort *port) {
    Session *s = g_session;
    if (s && port == s->port && StopCode(*s) != 0) return -1;
    return s && s->prevIdle ? s->prevIdle(port) : 0;
}

int32_t OnAbort(XferRecord *record) {
    Session *s = g_session;
    if (s && record->Port == s->port) return StopCode(*s);
    return s && s->prevAbort ? s->prevAbort(record) : 0;
}

XferFile OnOpen(XferRecord *record, const char *name, const char *mode) {
    Session *s = g_session;
    if (!s || record->Port != s->port || std::string_view(mode) != "rb")
        return s && s->prevOpen ? s->prevOpen(record, name, mode) : XFER_INVALID_FILE;
    std::string why;
    const std::string path = UploadPath(name ? name : "", s->settings->offered, why);
    if (path.empty()) {
        if (s->request) {
            s->request->upload = true;
            s->request->name = name ? name : "";
            s->request->refused = why;
        }
        return XFER_INVALID_FILE; // the engine tells the service with a failure packet
    }
    if (s->request) s->request->localPath = path;
    return s->prevOpen ? s->prevOpen(record, path.c_str(), mode) : XFER_INVALID_FILE;
}

int32_t OnStatus(XferRecord *record, int32_t level, const char *text) {
    Session *s = g_session;
    if (!s) return 0;
    if (level != 0 && s->request && text) s->request->notice = text;
    s->reporter->Status(*record, level, text);
    return 0;
}

int32_t OnProgress(XferRecord *record) {
    Session *s = g_session;
    if (!s) return 0;
    if (s->request && record->FileName) {
        s->request->upload = record->Sending != 0;
        s->request->name = record->FileName;
        s->request->bytes = static_cast<uint64_t>(record->FilePos < 0 ? 0 : record->FilePos);
    }
    s->reporter->Progress(*record);
    return 0;
}

// Installs the session's hooks for its lifetime, the previous ones taken
// from the port's hook record and put back at the end.
class Hooks {
  public:
    Hooks(Session &s) {
        s.prevIdle = s.port->Hooks->IdleFunction;
        s.prevAbort = s.port->Hooks->AbortFunction;
        s.prevOpen = s.port->Hooks->FileOpenFunction;
        session_ = &s;
        g_session = &s;
        SetPortIdleFunctionPtr(OnIdle);
        SetAbortXferFunctionPtr(OnAbort);
        SetXferFileOpenFunctionPtr(OnOpen);
    }
    ~Hooks() {
        if (session_->prevIdle) SetPortIdleFunctionPtr(session_->prevIdle);
        if (session_->prevAbort) SetAbortXferFunctionPtr(session_->prevAbort);
        if (session_->prevOpen) SetXferFileOpenFunctionPtr(session_->prevOpen);
        g_session = nullptr;
    }
    Hooks(const Hooks &) = delete;
    Hooks &operator=(const Hooks &) = delete;

  private:
    Session *session_;
};

int32_t RunEntry(XferPort *port, const std::vector<int32_t> &options) {
    int32_t w[8] = {};
    for (std::size_t i = 0; i < options.size() && i < 8; ++i) w[i] = options[i];
    // Notices are kept even when none is shown: a failure's text is reported.
    return CompuServeBPlusWithOptions(port, OnStatus, OnProgress, w[0], w[1], w[2], w[3], w[4],
                                      w[5], w[6], w[7]);
}

} // namespace

std::string UploadPath(const std::string &asked, const std::vector<std::string> &offered,
                       std::string &why) {
    if (asked.empty()) {
        why = _("the service gave no name");
        return {};
    }
    if (asked.front() == '/' || asked.front() == '\\') {
        why = _("an absolute path");
        return {};
    }
    // ".." as any component, with either separator.
    std::size_t start = 0;
    while (start <= asked.size()) {
        const std::size_t end = asked.find_first_of("/\\", start);
        const std::string part =
            asked.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (part == "..") {
            why = _("a path that leaves the folder");
            return {};
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    for (const std::string &file : offered) {
        const std::size_t slash = file.find_last_of('/');
        const std::string base = slash == std::string::npos ? file : file.substr(slash + 1);
        if (asked == base || (asked == file && file.front() != '/')) return file;
    }
    why = _("not a file named on the command line");
    return {};
}

std::vector<int32_t> BPlusOptionWords(const BPlusTerminalSettings &s) {
    std::vector<int32_t> words{XferOptBPlusCheckMethod, s.checkMethod};
    if (s.fileInfo) words.push_back(XferOptBPlusFileInfo);
    if (s.resume) words.push_back(XferOptBPlusResume);
    words.push_back(XferOptEnd);
    return words;
}

BPlusSessionOutcome RunBPlusSession(XferPort *port, const BPlusTerminalSettings &settings,
                                    Reporter &reporter, std::function<bool()> lineLost) {
    BPlusSessionOutcome outcome;
    Session session;
    session.port = port;
    session.settings = &settings;
    session.reporter = &reporter;
    session.lineLost = &lineLost;
    session.heardUs = NowUs();
    const Clock::time_point begun = Clock::now();
    const std::vector<int32_t> words = BPlusOptionWords(settings);
    {
        Hooks hooks(session);
        // Every byte read, by the engine or here, counts as the service heard.
        PortTap tap(port, [](bool written, const uint8_t *, std::size_t length) {
            if (!written && length != 0) Heard();
        });
        int previous = -1;
        for (;;) {
            if (g_interrupted.load()) {
                outcome.ended = "interrupted";
                break;
            }
            if (lineLost && lineLost()) {
                outcome.ended = "lost";
                break;
            }
            const int64_t silentMs = (NowUs() - session.heardUs.load()) / 1000;
            if (silentMs > SilenceLimitMs(session, !outcome.requests.empty())) {
                outcome.ended = "quiet";
                break;
            }
            // An empty read waits a few milliseconds for input inside the port.
            const int32_t r = port->Ops.ReadChar(port);
            if (r == PortGeneralError) {
                outcome.ended = "lost";
                break;
            }
            if (r < 0) continue;
            if (!tap.Ok()) Heard();
            const int c = r & 0x7F;
            if (c == kEnq) {
                CompuServeBPlusRespond(port, 1);
            } else if (previous == kDle && c == 'B') {
                outcome.requests.emplace_back();
                session.request = &outcome.requests.back();
                session.inTransfer = true;
                const Clock::time_point started = Clock::now();
                const int32_t result = RunEntry(port, words);
                session.request->seconds =
                    std::chrono::duration<double>(Clock::now() - started).count();
                session.inTransfer = false;
                session.request->result = result;
                // An upload's byte count includes each packet's type byte:
                // the file's size is what moved.
                std::error_code ec;
                if (session.request->upload && !session.request->localPath.empty()) {
                    const auto size = std::filesystem::file_size(session.request->localPath, ec);
                    if (!ec && result == 1) {
                        session.request->bytes = size;
                        reporter.SetFileBytes(size);
                    }
                }
                session.request = nullptr;
                reporter.Finish(result < 0 ? result : 0);
                Heard();
                previous = -1;
                continue;
            }
            previous = c;
        }
    }
    outcome.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    return outcome;
}

SessionTally TallyOf(const BPlusSessionOutcome &outcome) {
    SessionTally t;
    for (const BPlusRequestOutcome &r : outcome.requests) {
        const bool ok = r.refused.empty() && r.result == 1;
        ++(ok ? t.done : t.failed);
        t.bytes += ok ? r.bytes : 0;
    }
    return t;
}

int ReportBPlusSession(const BPlusSessionOutcome &o, const BPlusTerminalSettings &s,
                       Verbosity verbosity) {
    bool allOk = !o.requests.empty();
    uint64_t bytes = 0;
    int uploads = 0, downloads = 0;
    for (const BPlusRequestOutcome &r : o.requests) {
        const std::string name = ShownText(r.name);
        if (!r.refused.empty()) {
            Note(fmt::format(F_("refused the service's upload request for {}: {}"), name,
                             r.refused));
            allOk = false;
            continue;
        }
        if (r.result != 1) {
            allOk = false;
            const std::string file = name.empty() ? _("(no file)") : name;
            Note(
                r.upload
                    ? fmt::format(F_("upload of {} failed: {}"), file, DescribeResult(r.result))
                    : fmt::format(F_("download of {} failed: {}"), file, DescribeResult(r.result)));
            if (!r.notice.empty()) Note(ShownText(r.notice));
            continue;
        }
        bytes += r.bytes;
        ++(r.upload ? uploads : downloads);
        if (verbosity == Verbosity::Verbose)
            Note(r.upload ? fmt::format(F_("sent {}: {} bytes"), name, r.bytes)
                          : fmt::format(F_("received {}: {} bytes"), name, r.bytes));
    }
    const std::string ended =
        o.ended == "quiet"
            ? fmt::format(F_("nothing for {} s"), std::max(s.quietMs, kFirstWaitMs) / 1000)
        : o.ended == "lost"        ? _("the line was lost")
        : o.ended == "interrupted" ? _("interrupted")
                                   : o.ended;
    if (o.requests.empty())
        Note(fmt::format(F_("the service made no request ({})"), ended));
    else if (!allOk && (o.ended == "lost" || o.ended == "interrupted"))
        Note(fmt::format(F_("the session ended: {}"), ended));
    if (allOk && verbosity != Verbosity::Quiet) {
        const double rate = o.seconds > 0 ? static_cast<double>(bytes) / o.seconds : 0;
        // TRANSLATORS: files received, files sent, the bytes, the time, the rate.
        Note(fmt::format(P_("{} file received, {} sent, {} in {:.1f} s ({}/s)",
                            "{} files received, {} sent, {} in {:.1f} s ({}/s)", downloads),
                         downloads, uploads, FormatBytes(static_cast<double>(bytes)), o.seconds,
                         FormatBytes(rate)));
    }
    return allOk ? 0 : 1;
}

} // namespace zvxfer::cli
