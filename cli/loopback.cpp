// The loopback run: a sender and a receiver on two threads joined by the
// link simulator, followed by a byte-for-byte check of every file.
#include "loopback.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "i18n.h"
#include "json_events.h"
#include "link_pair.h"
#include "names.h"
#include "transfer.h"

namespace zvxfer::cli {
namespace fs = std::filesystem;

namespace {

std::vector<char> ReadAll(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

long ModTime(const fs::path &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_mtime) : -1;
}

// A Kermit text file as this program writes it after receiving it from
// itself: the sender puts a CR before every LF, and the receiver keeps it.
std::vector<char> AsTextCopy(const std::vector<char> &bytes) {
    std::vector<char> text;
    text.reserve(bytes.size() + bytes.size() / 16);
    for (char c : bytes) {
        if (c == '\n') text.push_back('\r');
        text.push_back(c);
    }
    return text;
}

// A verdict as a JSON event, when events are asked for; false when the
// human line is wanted instead.
bool VerdictEvent(const fs::path &name, bool ok, std::size_t bytes) {
    if (!JsonOn()) return false;
    JsonEvent("verify")
        .Text("name", name.filename().string())
        .Flag("ok", ok)
        .Number("bytes", static_cast<uint64_t>(bytes))
        .Emit();
    return true;
}

// One file's verdict: the received copy must hold exactly the original's
// bytes (XMODEM carries no size: its last block may add zero padding; a
// Kermit text file gains a CR before each LF), and its time where the
// protocol carries one.
bool Verify(const fs::path &original, const fs::path &copy, const Protocol &protocol,
            bool textFiles) {
    const std::vector<char> a = textFiles ? AsTextCopy(ReadAll(original)) : ReadAll(original);
    std::vector<char> b = ReadAll(copy);
    std::string note;
    bool ok = fs::exists(copy);
    if (ok && !protocol.batch && b.size() > a.size()) {
        const bool zeros = std::all_of(b.begin() + static_cast<long>(a.size()), b.end(),
                                       [](char c) { return c == 0; });
        if (zeros) {
            note = fmt::format(F_(" (+{} padding)"), b.size() - a.size());
            b.resize(a.size());
        }
    }
    ok = ok && a == b;
    if (ok && protocol.carriesTime) {
        ok = ModTime(original) == ModTime(copy);
        note += ok ? _(", time kept") : _(", time differs");
    }
    if (!VerdictEvent(original, ok, a.size()))
        fmt::print(stderr, F_("{} {}  {} bytes{}\n"), ok ? _("ok    ") : _("FAILED"),
                   original.filename().string(), a.size(), note);
    return ok;
}

// A capture's verdict: it holds every original's bytes, one file after
// the other in the order given, without the LF bytes when the sender left
// them out.
bool VerifyCapture(const std::vector<fs::path> &originals, const fs::path &capture, bool dropLf) {
    std::vector<char> expected;
    for (const fs::path &original : originals) {
        const std::vector<char> bytes = ReadAll(original);
        for (char c : bytes)
            if (!dropLf || c != '\n') expected.push_back(c);
    }
    const bool ok = fs::exists(capture) && ReadAll(capture) == expected;
    const std::string files =
        fmt::format(P_("{} file", "{} files", originals.size()), originals.size());
    if (!VerdictEvent(capture, ok, expected.size()))
        fmt::print(stderr,
                   dropLf ? F_("{} {}  {} bytes, {} in order without LF\n")
                          : F_("{} {}  {} bytes, {} in order\n"),
                   ok ? _("ok    ") : _("FAILED"), capture.filename().string(), expected.size(),
                   files);
    return ok;
}

} // namespace

std::string FreshFolder(const char *what) {
    std::string pattern =
        (fs::temp_directory_path() / (std::string("zvxfer-") + what + "-XXXXXX")).string();
    return mkdtemp(pattern.data()) ? pattern : std::string();
}

host::LinkConfig SimulatedLink(const LoopbackSettings &s, const std::string &receiveFolder) {
    host::LinkConfig config;
    for (host::LineConfig *line : {&config.aToB, &config.bToA}) {
        line->bytesPerSecond = s.baud / 10;
        line->latencyMs = s.latencyMs;
        line->bitErrorRate = s.bitErrorRate;
    }
    config.seed = s.seed;
    config.b.receiveFolder = FolderText(receiveFolder);
    config.b.policy = XFER_EXISTING_OVERWRITE;
    return config;
}

void AddLoopbackOptions(CLI::App &cmd, LoopbackSettings &s) {
    cmd.add_option("--baud", s.baud, "line speed in bit/s, 8N1 (default: unlimited)");
    cmd.add_option("--latency", s.latencyMs, "one-way latency in milliseconds");
    cmd.add_option("--ber", s.bitErrorRate, "bit-error rate, e.g. 1e-5")
        ->check(CLI::Range(0.0, 0.01));
    cmd.add_option("--seed", s.seed, "seed of the line's errors (to replay a run)");
    cmd.add_option("-d,--dir", s.folder,
                   _("folder for the received files (default: a new one, removed afterwards)"))
        ->check(CLI::ExistingDirectory);
    cmd.add_flag("--keep", s.keep, _("keep the new folder with the received files"));
}

namespace {

// The fresh folder of a run and the copies in it go when the run ends,
// unless they were asked to stay.
struct FreshFolderRemoval {
    std::string folder;
    ~FreshFolderRemoval() {
        if (folder.empty()) return;
        std::error_code ec;
        fs::remove_all(folder, ec);
    }
};

} // namespace

int RunLoopback(const LoopbackSettings &s, Verbosity verbosity) {
    // The names are checked and expanded as `send` does it; the files then
    // go to the library by their exact names.
    const CheckedNames checked = CheckSendNames(s.files, s.sendOptions.subfolders);
    for (const std::string &problem : checked.problems) Note(problem);
    if (!checked.problems.empty() || checked.files.empty()) return 1;
    std::vector<fs::path> originals(checked.files.begin(), checked.files.end());
    if (!s.protocol.batch && !s.protocol.text && originals.size() > 1) {
        Note(fmt::format(F_("{} moves one file at a time"), s.protocol.name));
        return 2;
    }
    ExactNames exact;
    std::string error;
    if (!s.protocol.watched && !exact.Build(checked.files, s.sendOptions.fullPath, error)) {
        Note(error);
        return 1;
    }
    const std::string folder = s.folder.empty() ? FreshFolder("loopback") : s.folder;
    if (folder.empty()) {
        Note(_("cannot make a folder for the received files"));
        return 1;
    }
    FreshFolderRemoval removal{s.folder.empty() && !s.keep ? folder : std::string()};

    host::LinkConfig config = SimulatedLink(s, folder);

    TransferSettings sender = s.sendOptions;
    sender.protocol = s.protocol;
    sender.files = s.protocol.watched ? checked.files : exact.Names();
    TransferSettings receiver;
    receiver.protocol = s.protocol;
    receiver.sending = false;
    receiver.folder = folder;
    receiver.textFiles = sender.textFiles;
    if (!s.protocol.batch) receiver.files = {originals[0].filename().string()};
    // The capture ends once the line has been quiet for longer than any gap
    // the sender leaves: a line delay, and a round trip of the line.
    if (s.protocol.text)
        receiver.idleMs =
            s.idleMs.value_or(static_cast<int32_t>(2000 + sender.lineDelayMs + 2 * s.latencyMs));

    const bool live = isatty(STDERR_FILENO) != 0;
    Reporter sendReport(verbosity == Verbosity::Verbose ? verbosity : Verbosity::Quiet, false,
                        "send");
    Reporter receiveReport(verbosity, live, "receive");
    host::LinkPair link(config);
    Outcome sent, received;
    link.Run(
        [&](XferPort *port) {
            sent = RunTransfer(port, sender, sendReport, {});
            return sent.result;
        },
        [&](XferPort *port) {
            received = RunTransfer(port, receiver, receiveReport, {});
            return received.result;
        });

    // The session's files are the receiver's.
    g_sessionTally.bytes = received.bytes;
    g_sessionTally.failed = std::max(sendReport.FilesFailed(), receiveReport.FilesFailed());
    g_sessionTally.done = received.result > 0 && received.failure.empty()
                              ? static_cast<uint64_t>(received.result)
                              : receiveReport.FilesEnded() - receiveReport.FilesFailed();
    // A capture ends by silence.
    const bool receivedOk =
        received.result >= 0 || (s.protocol.text && received.result == XferErrCharTimeout);
    if (sent.result < 0 || !receivedOk) {
        Note(fmt::format(F_("loopback failed: send {}, receive {}"), DescribeResult(sent.result),
                         DescribeResult(received.result)));
        return 1;
    }
    for (const Outcome *o : {&sent, &received})
        if (!o->failure.empty()) {
            Note(fmt::format(F_("loopback failed: {}: {}"),
                             o == &sent ? _("sender") : _("receiver"), o->failure));
            return 1;
        }
    bool all = true;
    if (s.protocol.text) {
        all = VerifyCapture(originals, fs::path(folder) / receiver.files[0], sender.dropLf);
    } else {
        // A Kermit copy is under the name the receiver wrote it as.
        for (std::size_t i = 0; i < originals.size(); ++i) {
            const fs::path name = received.written.size() == originals.size()
                                      ? fs::path(received.written[i]).filename()
                                      : originals[i].filename();
            all =
                Verify(originals[i], fs::path(folder) / name, s.protocol, sender.textFiles) && all;
        }
    }
    const double rate = received.seconds > 0 ? received.bytes / received.seconds : 0;
    // A capture's time includes the silence that ended it.
    const std::string what = s.protocol.text
                                 ? fmt::format(F_("capture of {} file(s) {}"), originals.size(),
                                               all ? _("verified") : _("differs"))
                                 : fmt::format(F_("{} of {} file(s) verified"),
                                               all ? originals.size() : 0, originals.size());
    const std::string where = removal.folder.empty()
                                  ? fmt::format(F_("in {}"), folder)
                                  : fmt::format(F_("in {} (now removed)"), folder);
    Note(fmt::format("{} {}; {} in {:.2f} s ({}/s)", what, where,
                     FormatBytes(static_cast<double>(received.bytes)), received.seconds,
                     FormatBytes(rate)));
    // What the line carried: the share of the forward bytes that were file
    // data is the protocol's wire efficiency.
    const uint64_t forward = link.Counters(host::LinkPair::AtoB).offered;
    const uint64_t back = link.Counters(host::LinkPair::BtoA).offered;
    Note(fmt::format(
        F_("line carried {} bytes forward and {} back; file/line {:.3f}"), forward, back,
        forward ? static_cast<double>(received.bytes) / static_cast<double>(forward) : 0.0));
    return all ? 0 : 1;
}

} // namespace zvxfer::cli
