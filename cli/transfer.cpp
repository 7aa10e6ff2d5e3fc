// Running one transfer for the zvxfer program through the generic entries.
#include "transfer.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <utility>

#include "echo_text.h"
#include "i18n.h"
#include "json_events.h"
#include "kermit_watch.h"
#include "port_tap.h"
#include "start_watch.h"
#include "zmodem_window.h"

namespace zvxfer::cli {

std::atomic<bool> g_interrupted{false};

namespace {

// The library's callbacks carry only the record; each transfer thread keeps
// its reporter and line here.
thread_local Reporter *t_reporter = nullptr;
thread_local const std::function<bool()> *t_lineLost = nullptr;
thread_local ReceivedFiles *t_files = nullptr;
thread_local std::vector<std::string> *t_written = nullptr; // Kermit receive
thread_local EchoText *t_echo = nullptr;
thread_local bool t_echoMidLine = false;    // the last echo shown did not end a line
thread_local StartWatch *t_start = nullptr; // an XMODEM/YMODEM sender before its first block

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The echo goes out a line at a time, and whatever is pending at each
// abort check (the library makes one before it takes in the echo after a
// line and while it waits), so a prompt without a line end shows too.
// At the end an unfinished echo line is ended, so that the summary starts
// a line of its own.
void ShowEcho(bool final) {
    if (!t_echo) return;
    std::string shown = t_echo->Take(final);
    if (!shown.empty()) t_echoMidLine = shown.back() != '\n';
    if (final && t_echoMidLine) {
        shown += '\n';
        t_echoMidLine = false;
    }
    if (shown.empty()) return;
    if (JsonOn()) {
        JsonEvent("echo").Text("text", shown).Emit();
        return;
    }
    std::fwrite(shown.data(), 1, shown.size(), stderr);
    std::fflush(stderr);
}

void OnEcho(uint8_t byte) {
    if (!t_echo) return;
    t_echo->Add(byte);
    if (byte == '\n' || byte == '\r') ShowEcho(false);
}

int32_t StatusLine(XferRecord *record, int32_t level, const char *text) {
    if (!t_reporter) return 0;
    // A notice starts a line of its own, after the echo shown so far.
    if (t_reporter->Shows(level)) ShowEcho(false);
    if (t_echoMidLine && t_reporter->Shows(level)) {
        std::fputc('\n', stderr);
        t_echoMidLine = false;
    }
    t_reporter->Status(*record, level, text);
    return 0;
}

int32_t OnProgress(XferRecord *record) {
    ShowEcho(false);
    if (t_files) t_files->Seen(*record);
    // The Kermit engine counts a file as it opens it, with its local name.
    if (t_written && !record->Sending && record->FileName &&
        record->FileCount > static_cast<int32_t>(t_written->size()))
        t_written->push_back(record->FileName);
    if (t_reporter) t_reporter->Progress(*record);
    return 0;
}

int32_t OnAbortCheck(XferRecord *) {
    if (g_interrupted.load(std::memory_order_relaxed)) return XferErrUserAbort;
    if (t_start && !t_start->Started()) {
        const double now = Now();
        if (!t_start->Verdict(now).empty()) return XferErrUserAbort;
        if (t_reporter) t_reporter->Waiting(t_start->Waited(now));
    }
    if (t_lineLost && *t_lineLost && (*t_lineLost)()) return XferErrLostCarrier;
    return 0;
}

std::vector<int32_t> OptionWords(const TransferSettings &s) {
    std::vector<int32_t> words;
    if (s.protocol.streaming) words.push_back(XferOptStreaming);
    if (s.checksum) words.push_back(XferOptChecksum);
    if (s.fullPath) words.push_back(XferOptFullPath);
    if (s.timeoutMs) {
        words.push_back(XferOptSendTimeout);
        words.push_back(*s.timeoutMs);
    }
    // Subfolders are searched by the program itself when it expands the
    // names (the library is given exact files).
    if (s.resume) words.push_back(XferOptZmResume);
    if (s.pacing) words.push_back(XferOptZmPacing);
    if (s.management) words.push_back(*s.management);
    if (s.maxErrors) {
        words.push_back(XferOptMaxErrors);
        words.push_back(*s.maxErrors);
    }
    if (s.sending && s.protocol.number == Zmodem)
        AppendWindowWords(ChooseZmodemWindow(s.noWindow, s.windowBytes), words);
    else if (s.noWindow || s.windowBytes)
        AppendWindowWords({s.noWindow, s.windowBytes}, words); // refused where not taken
    if (s.idleMs) {
        words.push_back(XferOptReceiveTimeout);
        words.push_back(*s.idleMs);
    }
    if (s.textFiles) words.push_back(XferOptKermitTextMode);
    words.push_back(XferOptEnd);
    return words;
}

struct ThreadBinding {
    ThreadBinding(Reporter &reporter, const std::function<bool()> &lost, ReceivedFiles *files,
                  EchoText *echo) {
        t_reporter = &reporter;
        t_lineLost = &lost;
        t_files = files;
        t_echo = echo;
    }
    ~ThreadBinding() {
        ShowEcho(true);
        t_reporter = nullptr;
        t_lineLost = nullptr;
        t_files = nullptr;
        t_echo = nullptr;
    }
};

} // namespace

std::string FolderText(const std::string &folder) {
    if (folder.empty()) return "./";
    return folder.back() == '/' ? folder : folder + "/";
}

std::string QuotedNames(const std::vector<std::string> &files) {
    std::string list;
    for (const std::string &f : files) {
        if (f.find('"') != std::string::npos) return {};
        list += "\"" + f + "\"";
    }
    return list;
}

void InstallHooks() {
    SetAbortXferFunctionPtr(OnAbortCheck);
}

bool CaptureEndedNormally(const TransferSettings &s, int32_t result) {
    if (!s.protocol.text || s.sending) return false;
    const bool noLimit = s.idleMs && *s.idleMs < 0;
    return result == XferErrCharTimeout || (result == XferErrUserAbort && noLimit);
}

std::string DescribeResult(int32_t code) {
#define ZVXFER_CLI_TEXT(value, name, text)                                                         \
    if (code == (value)) return std::to_string(code) + " " + ResultText(code, text);
    XFER_RESULT_MAP(ZVXFER_CLI_TEXT)
    PORT_RESULT_MAP(ZVXFER_CLI_TEXT)
#undef ZVXFER_CLI_TEXT
    return std::to_string(code) + " " + ResultText(code, "Unknown error code");
}

// Each protocol runs through its own entry, so an option the protocol does
// not take is refused (-7) instead of being dropped the way the generic
// option block drops what a protocol has no slot for; the block also has
// no room for every ZMODEM option (file management 7, "protect").
int32_t RunEntry(XferPort *port, const TransferSettings &s, std::vector<int32_t> words) {
    if (words.size() > kEntryWords || s.protocol.run == nullptr) return PortInvalidParameter;
    words.resize(kEntryWords, XferOptEnd);
    const XferStatusFn status = t_reporter && t_reporter->WantsStatus() ? &StatusLine : nullptr;
    std::string names = QuotedNames(s.files);
    std::string file;
    if (!s.sending && !s.files.empty())
        file = s.files[0].starts_with('/') ? s.files[0] : FolderText(s.folder) + s.files[0];
    EntryCall call{port, s.sending, names.data(), file.data(), status, OnProgress, words.data()};
    call.echo = s.sending && s.echo ? &OnEcho : nullptr;
    call.dropLf = s.dropLf;
    call.lineDelayMs = s.lineDelayMs;
    return s.protocol.run(call);
}

namespace {

// After Ctrl-C the Kermit engine is given this long to close the batch on
// its own (a discarding Z, then B) while the far end answers.  Then the
// line is cut: every read reports a lost connection, so its retries fail at
// once instead of waiting out their time-outs one by one.
constexpr auto kInterruptGrace = std::chrono::seconds(2);

// Five CAN bytes in a row from the far end cancel a transfer, as they do
// for the XMODEM family and ZMODEM.  The Kermit engine has no such cancel,
// but Kermit packets never hold a raw CAN (control bytes travel prefixed):
// a run of them is a person at the far terminal cancelling (the line is
// then their terminal, where Ctrl-C is no signal).  The line is cut at
// once, so the engine ends without waiting out its retries.
constexpr int kCancelRun = 5;

class CancelRun {
  public:
    void Read(const uint8_t *data, std::size_t length) {
        for (std::size_t i = 0; i < length; ++i) {
            run_ = data[i] == 0x18 ? run_ + 1 : 0;
            if (run_ >= kCancelRun) seen_ = true;
        }
    }
    bool Seen() const { return seen_; }

  private:
    int run_ = 0;
    bool seen_ = false;
};

// A Kermit entry returns 0 whatever happened: the outcome is judged from
// the packets that passed the line.  The file count becomes the result, so
// that a good batch reads like any other protocol's.
int32_t RunWatched(XferPort *port, const TransferSettings &s, const std::function<bool()> &lost,
                   Outcome &outcome) {
    KermitWatch watch(s.sending);
    CancelRun cancel;
    int32_t result;
    t_written = &outcome.written;
    std::optional<std::chrono::steady_clock::time_point> cutAt;
    const auto cut = [&cutAt, &cancel] {
        if (cancel.Seen()) return true;
        if (!g_interrupted.load(std::memory_order_relaxed)) return false;
        const auto now = std::chrono::steady_clock::now();
        if (!cutAt) cutAt = now + kInterruptGrace;
        return now >= *cutAt;
    };
    {
        PortTap tap(
            port,
            [&watch, &cancel](bool written, const uint8_t *data, std::size_t length) {
                if (written) {
                    watch.Written(data, length);
                } else {
                    watch.Read(data, length);
                    cancel.Read(data, length);
                }
            },
            cut);
        if (!tap.Ok()) return XferErrNoBuffer;
        result = RunEntry(port, s, OptionWords(s));
    }
    t_written = nullptr;
    if (result != 0) return result;
    const KermitWatch::Verdict verdict = watch.Judge(static_cast<int>(s.files.size()));
    if (verdict.ok) return verdict.files;
    outcome.failure = verdict.why;
    outcome.failureCode = PortGeneralError;
    if (cancel.Seen()) {
        outcome.failure = fmt::format(F_("cancelled from the far end ({})"), verdict.why);
        outcome.failureCode = XferErrRemoteAbort;
    } else if (g_interrupted.load()) {
        outcome.failure = fmt::format(F_("interrupted ({})"), verdict.why);
        outcome.failureCode = XferErrUserAbort;
    } else if (lost && lost()) {
        outcome.failure = fmt::format(F_("the line was lost ({})"), verdict.why);
        outcome.failureCode = XferErrLostCarrier;
    }
    return verdict.files;
}

// An XMODEM/YMODEM sender with the line watched until its first block: a
// wait is shown, and a receiver asking only for another mode ends the
// transfer with advice instead of the sender's long time-out.
int32_t RunStartWatched(XferPort *port, const TransferSettings &s, Outcome &outcome) {
    StartWatch watch(std::string(s.protocol.name), s.protocol.streaming, s.checksum, Now());
    int32_t result;
    {
        PortTap tap(port, [&watch](bool written, const uint8_t *data, std::size_t length) {
            if (written)
                watch.Written(data, length);
            else
                watch.Read(data, length, Now());
        });
        if (!tap.Ok()) return XferErrNoBuffer;
        t_start = &watch;
        result = RunEntry(port, s, OptionWords(s));
        t_start = nullptr;
    }
    if (t_reporter) t_reporter->Waiting(-1);
    const std::string verdict = watch.Verdict(Now());
    if (result < 0 && !verdict.empty() && !g_interrupted.load()) {
        outcome.failure = verdict;
        outcome.failureCode = result;
        // The sender never started, so it sent no cancel: the receiver
        // would go on asking until its own time-out.  Two CAN in a row end
        // an XMODEM/YMODEM receiver; a few more survive a lost byte.
        static const uint8_t cancel[8] = {0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18};
        port->Ops.WriteBuffer(port, cancel, sizeof cancel);
    }
    return result;
}

} // namespace

Outcome RunTransfer(XferPort *port, const TransferSettings &s, Reporter &reporter,
                    std::function<bool()> lineLost, ReceivedFiles *files) {
    EchoText echo;
    Outcome outcome;
    {
        ThreadBinding binding(reporter, lineLost, files, &echo);
        if (s.protocol.watched)
            outcome.result = RunWatched(port, s, lineLost, outcome);
        else if (StartWatch::Applies(s))
            outcome.result = RunStartWatched(port, s, outcome);
        else
            outcome.result = RunEntry(port, s, OptionWords(s));
    }
    // The file in progress at the end ended with the transfer: its result
    // is the entry's failure, or the program's judgement of it.
    // A sender whose every file the receiver passed over ends with
    // "no files were sent": its last file was skipped, not failed.
    const bool allSkipped =
        s.sending && outcome.result == XferErrNoFilesSent && outcome.failure.empty();
    if (outcome.result < 0 && !allSkipped && !CaptureEndedNormally(s, outcome.result))
        reporter.Finish(outcome.result, outcome.failure);
    else if (!outcome.failure.empty())
        reporter.Finish(outcome.failureCode, outcome.failure);
    else
        reporter.Finish(0);
    outcome.bytes = reporter.Bytes();
    outcome.seconds = reporter.Seconds();
    return outcome;
}

} // namespace zvxfer::cli
