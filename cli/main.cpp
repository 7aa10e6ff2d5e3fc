// zvxfer: send and receive files over a terminal line with the zvxfer
// library.  Standard output carries nothing but protocol bytes when it is
// the line; everything for the user goes to standard error.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "bplus_loopback.h"
#include "bplus_terminal.h"
#include "file_open.h"
#include "i18n.h"
#include "json_events.h"
#include "line.h"
#include "loopback.h"
#include "names.h"
#include "partial_file.h"
#include "protocols.h"
#include "serve.h"
#include "shown_text.h"
#include "term.h"
#include "transfer.h"
#include "tty.h"
#include "zmodem_window.h"

namespace zvxfer::cli {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Common {
    std::string protocol;
    bool quiet = false;
    bool verbose = false;
    bool removePartial = false;
    bool skipMissing = false;
};

void OnInterrupt(int) {
    g_interrupted.store(true);
}

Verbosity VerbosityOf(const Common &c) {
    if (c.quiet) return Verbosity::Quiet;
    return c.verbose ? Verbosity::Verbose : Verbosity::Normal;
}

void AddCommon(CLI::App &cmd, Common &c) {
    cmd.add_option("-p,--protocol", c.protocol, _("protocol: ") + ProtocolNames())
        ->required()
        ->check(CLI::IsMember([] {
            std::vector<std::string> names;
            for (const Protocol &p : Protocols()) names.emplace_back(p.name);
            return names;
        }()));
    cmd.add_flag("-q,--quiet", c.quiet, _("show nothing but errors"));
    cmd.add_flag("-v,--verbose", c.verbose, _("also show the library's trace lines"));
}

void AddLine(CLI::App &cmd, LineChoice &line) {
    auto *device =
        cmd.add_option("--line", line.device, _("serial device (default: stdin/stdout)"));
    cmd.add_option("--baud", line.baud, _("speed of the serial device"))->needs(device);
    cmd.add_flag("--rtscts", line.rtsCts, _("RTS/CTS flow control on the serial device"))
        ->needs(device);
    cmd.add_option("--tcp", line.tcp, _("connect to HOST:PORT"))->excludes(device);
}

// The options of both directions.  Only senders wait for replies with a
// time-out that can be set (XMODEM, YMODEM); a receiver refuses --timeout.
void AddTransferOptions(CLI::App &cmd, TransferSettings &s, bool sending) {
    cmd.add_flag("--checksum", s.checksum, _("XMODEM arithmetic checksum instead of CRC-16"));
    cmd.add_flag("--full-path", s.fullPath, _("names travel and are stored with their folders"));
    cmd.add_option("--timeout", s.timeoutMs,
                   sending ? _("XMODEM, YMODEM: how long to wait for each reply of the "
                               "receiver, in milliseconds (default 15000)")
                           : _("not taken by any receiver: each waits as its protocol says "
                               "(the senders' reply time-out)"))
        ->check(CLI::Range(1, 3600000));
    cmd.add_option("--max-errors", s.maxErrors, _("ZMODEM: errors in a row before giving up"))
        ->check(CLI::Range(1, 1000000));
}

// The ZMODEM sender's choices.
void AddZmodemSendOptions(CLI::App &cmd, TransferSettings &s) {
    const std::map<std::string, int32_t> management{
        {"newer-longer", XferOptZmNewerLonger}, {"append", XferOptZmAppend},
        {"replace", XferOptZmReplace},          {"differ", XferOptZmDiffer},
        {"protect", XferOptZmProtect},          {"newer", XferOptZmNewer}};
    cmd.add_flag("--subfolders", s.subfolders, _("wildcards also match in subfolders"));
    cmd.add_flag(
        "--resume", s.resume,
        _("ZMODEM: ask the receiver to resume partial files; B+: continue partial downloads"));
    cmd.add_flag("--no-window", s.noWindow,
                 _("ZMODEM: stream without waiting for acknowledgements (the default)"));
    cmd.add_option("--manage", s.management,
                   _("ZMODEM: receiver's handling of existing files: "
                     "newer-longer|append|replace|differ|protect|newer"))
        ->transform(CLI::CheckedTransformer(management, CLI::ignore_case).description(""))
        ->type_name(_("MODE"));
    cmd.add_option("--window", s.windowBytes,
                   _("ZMODEM: bytes sent before an acknowledgement (4096: the library's default; "
                     "without it the sender streams)"))
        ->check(CLI::Range(1, 1 << 30));
}

constexpr const char *kTextHelp = N_("Kermit: text files (lines travel ending in CR LF)");

// Plain text's own options.  A capture's silence is -1 (no limit: it then
// ends only by Ctrl-C) or 1 ms and more.
struct TextOptions {
    std::vector<CLI::Option *> all; // of every subcommand
    CLI::Option *echo = nullptr;
    CLI::Option *noEcho = nullptr;
    bool echoOn = false, echoOff = false;

    // True when one of them was given.
    bool Any() const {
        for (const CLI::Option *o : all)
            if (o->count() > 0) return true;
        return false;
    }
};

const auto kIdleMs = CLI::Validator(
    [](const std::string &text) -> std::string {
        try {
            std::size_t used = 0;
            const long ms = std::stol(text, &used);
            if (used == text.size() && (ms == -1 || (ms >= 1 && ms <= 86400000))) return {};
        } catch (const std::exception &) {
        }
        return _("the idle time is -1 (no limit) or 1 to 86400000 ms, not ") + text;
    },
    "MS|-1");

void AddTextSendOptions(CLI::App &cmd, TransferSettings &s, TextOptions &o) {
    o.all.push_back(cmd.add_option("--line-delay", s.lineDelayMs,
                                   _("ASCII: pause after each line in milliseconds (default 0)"))
                        ->check(CLI::Range(0, 600000)));
    o.all.push_back(
        cmd.add_flag("--drop-lf", s.dropLf, _("ASCII: leave out LF bytes (lines end in CR)")));
}

void AddTextReceiveOptions(CLI::App &cmd, TransferSettings &s, TextOptions &o) {
    o.all.push_back(cmd.add_option("--idle", s.idleMs,
                                   _("ASCII: silence in milliseconds that ends the capture "
                                     "(default 10000; -1: none, Ctrl-C ends it)"))
                        ->check(kIdleMs));
    o.all.push_back(
        cmd.add_flag("--drop-lf", s.dropLf, _("ASCII: leave out the LF bytes that arrive")));
}

bool SameFile(int fd, const struct stat &other) {
    struct stat st {};
    return fstat(fd, &st) == 0 && st.st_dev == other.st_dev && st.st_ino == other.st_ino;
}

// Standard error is the line itself (2>&1 into the line, or the terminal
// that is the line): the echo shown there would go back to the far end.
bool StderrIsTheLine(const LineChoice &line) {
    struct stat err {};
    if (fstat(STDERR_FILENO, &err) != 0 || !line.tcp.empty()) return false;
    if (!line.device.empty()) {
        struct stat device {};
        return stat(line.device.c_str(), &device) == 0 && SameFile(STDERR_FILENO, device);
    }
    return SameFile(STDIN_FILENO, err) || SameFile(STDOUT_FILENO, err);
}

// The echo of an upload is shown by default when standard error is a
// terminal; --echo also sends it to a file or pipe, --no-echo never shows
// it.  It never goes where it would travel back onto the line.
bool ShowsEcho(const TextOptions &o, const LineChoice &line) {
    if (StderrIsTheLine(line)) return false;
    if (o.echoOn) return true;
    if (o.echoOff) return false;
    return isatty(STDERR_FILENO) != 0;
}

// The end of a capture.  Silence is its normal end; with no limit on the
// silence Ctrl-C is, and the capture then counts as complete too.  Any
// other end (a lost line, a file that cannot be written) is a failure.
std::optional<int> ReportCapture(const TransferSettings &s, const Outcome &o, Verbosity verbosity) {
    if (!CaptureEndedNormally(s, o.result)) return std::nullopt;
    const std::string how =
        o.result == XferErrCharTimeout
            ? fmt::format(F_("after {} ms of silence"), s.idleMs.value_or(10000))
            : _("by Ctrl-C");
    if (verbosity != Verbosity::Quiet)
        Note(fmt::format(o.bytes == 1 ? F_("capture ended {}: {} byte captured in {:.1f} s")
                                      : F_("capture ended {}: {} bytes captured in {:.1f} s"),
                         how, o.bytes, o.seconds));
    return kExitOk;
}

void NotAvailable(std::string_view protocol, std::string_view side = {}) {
    const std::string what =
        side.empty() ? std::string(protocol) : fmt::format("{} {}", protocol, side);
    Note(fmt::format(F_("an option given is not available for {}"), what));
}

// The report after the transfer: a summary, or the result code and its text.
// A session that ended cleanly is a success even when no file moved (every
// file skipped by the existing-file policy, or none offered): the summary
// then says so.  A failed transfer is 1, and an option the protocol's entry
// refused is a usage error.
int Report(const TransferSettings &s, const Outcome &o, Verbosity verbosity) {
    if (o.result == PortInvalidParameter) {
        NotAvailable(s.protocol.name, s.sending ? "send" : "receive");
        return kExitUsage;
    }
    if (s.protocol.text && !s.sending)
        if (const std::optional<int> status = ReportCapture(s, o, verbosity)) return *status;
    // The names were checked before the line was opened: a sender that
    // then sent nothing, in a session that otherwise ended well, had every
    // file refused by the receiver (its existing-file policy), like a
    // receiver that skipped them all.
    if (s.sending && o.result == XferErrNoFilesSent && o.failure.empty()) {
        if (verbosity != Verbosity::Quiet)
            Note(_("the session ended cleanly; the receiver skipped every file"));
        return kExitOk;
    }
    // The program's own judgement first: it says more than the result.
    if (!o.failure.empty()) {
        Note(fmt::format(F_("transfer failed: {}"), o.failure));
        return kExitFailed;
    }
    if (o.result < 0) {
        Note(fmt::format(F_("transfer failed: {}"), DescribeResult(o.result)));
        return kExitFailed;
    }
    // A sender whose names were all good but that sent nothing had every
    // file passed over (too large for the protocol): that is no success.
    if (o.result == 0 && s.sending) {
        Note(_("no file was sent"));
        return kExitFailed;
    }
    if (verbosity == Verbosity::Quiet) return kExitOk;
    if (o.result == 0) {
        Note(_("the session ended cleanly; no file was received"));
        return kExitOk;
    }
    const double rate = o.seconds > 0 ? static_cast<double>(o.bytes) / o.seconds : 0;
    const std::string amount = FormatBytes(static_cast<double>(o.bytes));
    const bool one = o.result == 1;
    const auto format = s.sending ? (one ? F_("{} file sent, {} in {:.1f} s ({}/s)")
                                         : F_("{} files sent, {} in {:.1f} s ({}/s)"))
                                  : (one ? F_("{} file received, {} in {:.1f} s ({}/s)")
                                         : F_("{} files received, {} in {:.1f} s ({}/s)"));
    const std::string summary = fmt::format(format, o.result, amount, o.seconds, FormatBytes(rate));
    Note(summary);
    return kExitOk;
}

// How the line gathers what the library writes.  A ZMODEM sender with an
// acknowledgement window has at most a window's worth unconfirmed: its
// subpackets go out two at a time, so the receiver works on them while the
// next are made and its answers keep the window moving (one at a time
// costs the two programs a switch per subpacket when they share a CPU).
// Everything else gathers writes up to the line host's default.
host::LineHostOptions LineOptionsFor(const TransferSettings &s) {
    host::LineHostOptions options;
    if (s.sending && s.protocol.windowedSendFlushAt != 0 &&
        !ChooseZmodemWindow(s.noWindow, s.windowBytes).stream)
        options.flushAt = s.protocol.windowedSendFlushAt;
    return options;
}

// The session's files for its last event.  A file that went whole counts
// as done (the entry's count where it gives one), the file a failure ended
// as failed; a sender's files that did not go in a session that ended
// cleanly were passed over by the receiver (its existing-file policy).
SessionTally Tally(const TransferSettings &s, const Outcome &o, const Reporter &reporter) {
    SessionTally t;
    t.bytes = o.bytes;
    t.failed = reporter.FilesFailed();
    t.skipped = reporter.FilesSkipped();
    const bool clean = o.failure.empty() && (o.result >= 0 || o.result == XferErrNoFilesSent);
    if (!clean) {
        t.done = reporter.FilesEnded() - t.failed - t.skipped;
        return t;
    }
    // A receiver counts what it saw open and close (some entries count a
    // skipped file as received); a sender the entry's count of files that
    // went, and as skipped also the files the library passed over without
    // offering them (too large for the protocol).
    if (!s.sending) {
        t.done = reporter.FilesEnded() - t.failed - t.skipped;
        return t;
    }
    t.done = o.result > 0 ? static_cast<uint64_t>(o.result) : 0;
    if (s.files.size() > t.done + t.skipped) t.skipped = s.files.size() - t.done;
    return t;
}

// A failed receive keeps what arrived: nothing is lost, and a resuming
// sender or another tool can go on from it.  The summary names the file so
// that it is not taken for a complete one; on request a partial file this
// run created is removed instead.  A file that held bytes before (appended
// to) or a name that now holds another file is never touched.
void ReportPartial(const ReceivedFiles &files, bool remove) {
    const std::optional<PartialFile> partial = files.Partial();
    if (!partial) return;
    std::string_view name = partial->name;
    if (name.starts_with("./")) name.remove_prefix(2);
    const std::string shown = ShownText(name);
    if (remove && partial->createdHere) {
        if (std::remove(partial->name.c_str()) == 0) {
            Note(fmt::format(F_("partial file removed: {}"), shown));
            return;
        }
        Note(fmt::format(F_("cannot remove the partial file {}"), shown));
    }
    Note(fmt::format(F_("partial file kept: {} ({} bytes)"), shown, partial->bytes));
}

// Open the line and a port on it with the receive folder `folder` (which
// the port keeps by reference: the caller keeps it alive) and the settings'
// existing-file policy; nullptr (with the reason printed) when either fails.
XferPort *OpenLineAndPort(const TransferSettings &s, const std::string &folder,
                          const LineChoice &choice, const host::LineHostOptions &options,
                          std::unique_ptr<OpenedLine> &line) {
    std::string error;
    line = OpenLine(choice, options, error);
    if (!line) {
        Note(fmt::format(F_("cannot open the line: {}"), error));
        return nullptr;
    }
    XferPort *port = line->host->OpenPort(folder.c_str(), s.policy);
    if (!port) Note(_("cannot open a port"));
    return port;
}

int RunOnLine(TransferSettings &s, const LineChoice &choice, Verbosity verbosity,
              bool removePartial) {
    const std::string folder = FolderText(s.folder);
    std::unique_ptr<OpenedLine> line;
    XferPort *port = OpenLineAndPort(s, folder, choice, LineOptionsFor(s), line);
    if (!port) return kExitFailed;
    // The echo is the upload's progress: no bar is drawn over it.
    Reporter reporter(verbosity, isatty(STDERR_FILENO) != 0 && !s.echo);
    ReceivedFiles files;
    host::LineHost *lineHost = line->host.get();
    const Outcome outcome = RunTransfer(
        port, s, reporter, [lineHost] { return lineHost->Lost(); }, s.sending ? nullptr : &files);
    port->Ops.PortClose(port);
    // The terminal is back (after the drain when the line is our own
    // terminal) before the summary goes to it.
    line.reset();
    const int status = Report(s, outcome, verbosity);
    if (!s.sending && status != kExitOk) ReportPartial(files, removePartial);
    g_sessionTally = Tally(s, outcome, reporter);
    return status;
}

// B+ options, taken by send and receive alike: the service decides the
// direction.  --resume is the send and receive commands' own flag.
void AddBPlusOptions(CLI::App &cmd, BPlusTerminalSettings &b) {
    cmd.add_option("--check-method", b.checkMethod,
                   _("B+: check asked for: 0 checksum, 1 CRC-16, 2 X.25, 3 CRC-32 (default 3)"))
        ->check(CLI::Range(0, 3));
    cmd.add_flag("--file-info", b.fileInfo, _("B+: accept the service's file information"));
    cmd.add_option("--quiet-time", b.quietMs,
                   _("B+: the session ends when the service is silent this long after a "
                     "transfer, in ms (default 5000)"))
        ->check(CLI::Range(100, 3600000));
}

// A B+ session on the line: the terminal answers whatever the service asks.
int RunBPlusOnLine(const TransferSettings &s, BPlusTerminalSettings b, const LineChoice &choice,
                   Verbosity verbosity) {
    const std::string folder = FolderText(s.folder);
    std::unique_ptr<OpenedLine> line;
    XferPort *port = OpenLineAndPort(s, folder, choice, {}, line);
    if (!port) return kExitFailed;
    b.offered = s.sending ? s.files : std::vector<std::string>{};
    b.resume = s.resume;
    Reporter reporter(verbosity, isatty(STDERR_FILENO) != 0);
    host::LineHost *lineHost = line->host.get();
    const BPlusSessionOutcome outcome =
        RunBPlusSession(port, b, reporter, [lineHost] { return lineHost->Lost(); });
    port->Ops.PortClose(port);
    line.reset();
    g_sessionTally = TallyOf(outcome);
    return ReportBPlusSession(outcome, b, verbosity);
}

// Check every name given to send before the line is opened, and replace
// them by what the library is to be given.  A missing, unreadable or
// non-file name stops the run (every one named with the reason) unless
// `skipMissing`.  `exact` keeps the private folders of names holding
// wildcard characters alive for the transfer.  nullopt: go on.
std::optional<int> CheckNames(TransferSettings &s, bool skipMissing, ExactNames &exact) {
    const CheckedNames checked = CheckSendNames(s.files, s.subfolders);
    for (const std::string &problem : checked.problems)
        Note(skipMissing ? fmt::format(F_("left out: {}"), ShownText(problem))
                         : ShownText(problem));
    if (!checked.problems.empty() && !skipMissing) {
        Note(_("nothing was sent (--skip-missing sends the files that are there)"));
        return kExitFailed;
    }
    if (checked.files.empty()) {
        Note(_("no file to send"));
        return kExitFailed;
    }
    if (!s.protocol.batch && !s.protocol.text && checked.files.size() > 1) {
        Note(fmt::format(F_("{} sends one file at a time, not {}"), s.protocol.name,
                         checked.files.size()));
        return kExitUsage;
    }
    // Kermit and B+ take names as they are; the others' lists expand them.
    if (s.protocol.watched || s.protocol.number == CompuServeBPlus) {
        s.files = checked.files;
        return std::nullopt;
    }
    std::string error;
    if (!exact.Build(checked.files, s.fullPath, error)) {
        Note(ShownText(error));
        return kExitFailed;
    }
    s.files = exact.Names();
    return std::nullopt;
}

// The folder a receive writes in must take new files; checked before the
// line is opened, with the system's reason.
bool ReceiveFolderUsable(const TransferSettings &s) {
    std::string folder = s.folder.empty() ? "." : s.folder;
    if (!s.protocol.batch && !s.files.empty()) {
        const std::string &file = s.files[0];
        const std::string base = file.starts_with('/') ? file : FolderText(s.folder) + file;
        const std::size_t slash = base.rfind('/');
        folder = slash == std::string::npos ? "." : base.substr(0, slash + 1);
    }
    struct stat st {};
    int error = 0;
    if (stat(folder.c_str(), &st) != 0)
        error = errno;
    else if (!S_ISDIR(st.st_mode))
        error = ENOTDIR;
    else if (access(folder.c_str(), W_OK | X_OK) != 0)
        error = errno;
    if (error == 0) return true;
    Note(fmt::format(F_("cannot receive into {}: {}"), ShownText(folder), std::strerror(error)));
    return false;
}

// The library's version: the one of the shared library this process runs
// with (its file is named libzvxfer.so.X.Y.Z), else the one built with.
std::string LibraryVersion() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void *>(&PortOpen), &info) != 0 && info.dli_fname) {
        char resolved[PATH_MAX];
        if (realpath(info.dli_fname, resolved)) {
            const std::string_view file = resolved;
            const std::size_t so = file.rfind(".so.");
            if (so != std::string_view::npos) return std::string(file.substr(so + 4));
        }
    }
    return ZVXFER_BUILT_VERSION;
}

// The line as the session's first event describes it.
std::string LineText(const LineChoice &line) {
    if (!line.tcp.empty()) return "tcp " + line.tcp;
    if (line.device.empty()) return "stdin/stdout";
    return line.baud != 0 ? fmt::format("{} {}", line.device, line.baud) : line.device;
}

// The session's last event, with the exit status it ends with.
int EndSession(int status) {
    JsonSessionEnd(g_sessionTally, status);
    return status;
}

// Usage errors start with the program's name, like its other messages.
std::string UsageMessage(const CLI::App *, const CLI::Error &e) {
    return fmt::format("zvxfer: {}\n{}\n", e.what(), _("Run with --help for more information."));
}

constexpr std::string_view kSubcommands[] = {"send", "receive", "loopback", "serve", "term"};

int Main(int argc, char **argv) {
    CLI::App app{_("zvxfer: send and receive files over a terminal line")};
    app.require_subcommand(1);
    app.failure_message(UsageMessage);
    app.set_version_flag(
        "--version",
        fmt::format(F_("zvxfer {}, library {}"), ZVXFER_BUILT_VERSION, LibraryVersion()),
        _("show the program's and the library's version"));
    const std::string cancelNote =
        _("When this program runs on the far end of a terminal session, the terminal "
          "itself is the line: Ctrl-C is then a byte on the line, not a signal.  To "
          "cancel a transfer there, type Ctrl-X five times, as with rz and sz.");
    app.footer(cancelNote);
    bool json = false;
    app.add_flag("--json", json,
                 _("write the transfer's events to standard error as JSON lines instead of "
                   "the progress display (see zvxfer(1))"));
    // --json may also follow the subcommand.
    app.fallthrough();
    if (argc > 1 && argv[1][0] != '-' &&
        std::find(std::begin(kSubcommands), std::end(kSubcommands), argv[1]) ==
            std::end(kSubcommands)) {
        Note(fmt::format(F_("unknown subcommand '{}': use send, receive, loopback, serve or term"),
                         ShownText(argv[1])));
        return kExitUsage;
    }
    const std::map<std::string, int32_t> policies{{"overwrite", XFER_EXISTING_OVERWRITE},
                                                  {"rename", XFER_EXISTING_RENAME},
                                                  {"skip", XFER_EXISTING_SKIP}};
    Common common;
    LineChoice line;
    TransferSettings settings;
    LoopbackSettings loop;
    TextOptions text;
    BPlusTerminalSettings bplus;

    auto *send = app.add_subcommand("send", _("send files over the line"));
    send->footer(cancelNote);
    AddCommon(*send, common);
    AddLine(*send, line);
    AddTransferOptions(*send, settings, true);
    AddZmodemSendOptions(*send, settings);
    AddTextSendOptions(*send, settings, text);
    text.echo = send->add_flag("--echo", text.echoOn,
                               _("ASCII: show the far end's echo on standard error "
                                 "(default: when it is a terminal)"));
    text.noEcho =
        send->add_flag("--no-echo", text.echoOff, _("ASCII: do not show the far end's echo"))
            ->excludes(text.echo);
    text.all.push_back(text.echo);
    text.all.push_back(text.noEcho);
    CLI::Option *textSend = send->add_flag("--text", settings.textFiles, _(kTextHelp));
    AddBPlusOptions(*send, bplus);
    send->add_flag("--skip-missing", common.skipMissing,
                   _("send the files that are there when a name is missing, unreadable or "
                     "a folder (default: send nothing)"));
    send->add_option("FILE", settings.files,
                     _("files to send; a name that exists is that file, otherwise '*' and '?' "
                       "are wildcards"))
        ->required();

    auto *receive = app.add_subcommand("receive", _("receive files from the line"));
    receive->footer(cancelNote);
    AddCommon(*receive, common);
    AddLine(*receive, line);
    AddTransferOptions(*receive, settings, false);
    receive->add_option("-d,--dir", settings.folder, _("folder the files land in"))
        ->check(CLI::ExistingDirectory);
    receive->add_flag(
        "--resume", settings.resume,
        _("ZMODEM: accepted, the receiver starts at 0; B+: continue a partial download"));
    receive->add_flag("--pacing", settings.pacing, _("ZMODEM: pause 70 ms per data subpacket"));
    receive
        ->add_option("--existing", settings.policy,
                     _("when a file exists: overwrite|rename|skip (default rename)"))
        ->transform(CLI::CheckedTransformer(policies, CLI::ignore_case).description(""))
        ->type_name(_("POLICY"));
    receive->add_flag("--remove-partial", common.removePartial,
                      _("remove the file a failed receive left incomplete (default: keep it)"));
    AddTextReceiveOptions(*receive, settings, text);
    CLI::Option *textReceive = receive->add_flag("--text", settings.textFiles, _(kTextHelp));
    AddBPlusOptions(*receive, bplus);
    receive->add_option("FILE", settings.files, _("file to write (XMODEM, ASCII: required)"))
        ->expected(0, 1);

    auto *loopback = app.add_subcommand(
        "loopback", _("send files to ourselves over a simulated line and verify them"));
    AddCommon(*loopback, common);
    AddLoopbackOptions(*loopback, loop);
    AddZmodemSendOptions(*loopback, loop.sendOptions);
    AddTextSendOptions(*loopback, loop.sendOptions, text);
    text.all.push_back(loopback
                           ->add_option("--idle", loop.idleMs,
                                        _("ASCII: silence that ends the capture (default: from "
                                          "the line's latency and the line delay)"))
                           ->check(CLI::Range(1, 86400000)));
    loopback
        ->add_option("--check-method", bplus.checkMethod,
                     _("B+: check the terminal asks for, 0-3 (default 3)"))
        ->check(CLI::Range(0, 3));
    CLI::Option *textLoopback =
        loopback->add_flag("--text", loop.sendOptions.textFiles, _(kTextHelp));
    loopback->add_option("FILE", loop.files, _("files to send"))->required();

    // The service end of a B+ session (a test partner for terminals).
    ServeSettings serve;
    auto *serveCommand = AddServeCommand(app, serve);

    // A terminal session with transfers from its menu.
    TermSettings term;
    auto *termCommand = AddTermCommand(app, term);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int code = app.exit(e);
        return code == 0 ? kExitOk : kExitUsage;
    }
    if (json) EnableJson();
    if (serveCommand->parsed()) {
        JsonSessionStart(serve.protocol, "serve", LineText(serve.line), ZVXFER_BUILT_VERSION);
        return EndSession(RunServe(serve));
    }
    if (termCommand->parsed()) return RunTerm(term);

    const Protocol protocol = *FindProtocol(common.protocol);
    const Verbosity verbosity = VerbosityOf(common);
    std::signal(SIGPIPE, SIG_IGN);
    host::TtyRestoreOnExit();
    std::signal(SIGINT, OnInterrupt); // Ctrl-C cancels the transfer properly
    InstallHooks();

    const bool bplusOptions = send->count("--check-method") + send->count("--file-info") +
                                  send->count("--quiet-time") + receive->count("--check-method") +
                                  receive->count("--file-info") + receive->count("--quiet-time") >
                              0;
    if (protocol.number != CompuServeBPlus && bplusOptions) {
        NotAvailable(protocol.name);
        return kExitUsage;
    }
    const bool textFiles = textSend->count() + textReceive->count() + textLoopback->count() > 0;
    if ((!protocol.text && text.Any()) || (!protocol.textFiles && textFiles)) {
        NotAvailable(protocol.name);
        return kExitUsage;
    }
    if (loopback->parsed()) {
        loop.protocol = protocol;
        JsonSessionStart(protocol.name, "loopback", "simulated", ZVXFER_BUILT_VERSION);
        if (protocol.number == CompuServeBPlus)
            return EndSession(RunBPlusLoopback(loop, bplus.checkMethod, verbosity));
        return EndSession(RunLoopback(loop, verbosity));
    }
    settings.protocol = protocol;
    settings.sending = send->parsed();
    if (settings.sending && protocol.text) settings.echo = ShowsEcho(text, line);
    if (settings.sending && QuotedNames(settings.files).empty()) {
        Note(_("a file name cannot hold a double quote"));
        return kExitUsage;
    }
    if (!settings.sending && !protocol.batch && settings.files.empty()) {
        Note(fmt::format(F_("{} receive needs the FILE to write"), protocol.name));
        return kExitUsage;
    }
    ExactNames exact;
    if (settings.sending) {
        if (const std::optional<int> status = CheckNames(settings, common.skipMissing, exact))
            return *status;
        // This process only reads files: it opens them without a lock.  A
        // B+ service may ask a sending terminal for a download too.
        if (protocol.number != CompuServeBPlus) InstallSendOnlyFileOpen();
    } else if (!ReceiveFolderUsable(settings)) {
        return kExitFailed;
    }
    JsonSessionStart(protocol.name, settings.sending ? "send" : "receive", LineText(line),
                     ZVXFER_BUILT_VERSION);
    if (protocol.number == CompuServeBPlus)
        return EndSession(RunBPlusOnLine(settings, bplus, line, verbosity));
    return EndSession(RunOnLine(settings, line, verbosity, common.removePartial));
}

} // namespace
} // namespace zvxfer::cli

int main(int argc, char **argv) {
    zvxfer::cli::SetUpLanguage();
    return zvxfer::cli::Main(argc, argv);
}
