// The B+ loopback run: the service on end A offers every file for download
// and then asks for every one as an upload; the terminal on end B answers.
#include "bplus_loopback.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>

#include "bplus_service.h"
#include "bplus_terminal.h"
#include "i18n.h"
#include "json_events.h"
#include "link_pair.h"

namespace zvxfer::cli {
namespace fs = std::filesystem;

namespace {

std::vector<char> ReadAll(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

// One copy's verdict: "ok" (exact), "failed" (the transfer said it failed)
// or "DAMAGED" (reported good, yet it differs: a damage the check missed).
// `side` names the direction in the JSON event ("download", "upload").
bool Same(const fs::path &original, const fs::path &copy, const char *what, const char *side,
          bool reportedGood) {
    const bool exact = fs::exists(copy) && ReadAll(original) == ReadAll(copy);
    const char *verdict = exact ? _("ok") : reportedGood ? _("DAMAGED") : _("failed");
    if (JsonOn()) {
        JsonEvent("verify")
            .Text("side", side)
            .Text("name", original.filename().string())
            .Flag("ok", exact)
            .Number("bytes", static_cast<uint64_t>(fs::file_size(original)))
            .Emit();
        return exact;
    }
    // TRANSLATORS: a copy's verdict (ok, DAMAGED, failed), its direction
    // (download, upload), the file's name and size.
    fmt::print(stderr, F_("{:<7} {:<8} {}  {} bytes\n"), verdict, what,
               original.filename().string(), fs::file_size(original));
    return exact;
}

} // namespace

int RunBPlusLoopback(const LoopbackSettings &s, int32_t checkMethod, Verbosity verbosity) {
    std::vector<fs::path> originals;
    for (const std::string &f : s.files) {
        if (!fs::is_regular_file(f)) {
            Note(fmt::format(F_("not a file: {}"), f));
            return 2;
        }
        originals.emplace_back(f);
    }
    const std::string folder = s.folder.empty() ? FreshFolder("bplus") : s.folder;
    std::error_code ec;
    const fs::path down = fs::path(folder) / "downloaded", up = fs::path(folder) / "uploaded";
    fs::create_directories(down, ec);
    fs::create_directories(up, ec);
    if (folder.empty() || ec) {
        Note(_("cannot make the folders for the copies"));
        return 1;
    }

    host::LinkConfig config = SimulatedLink(s, down.string());
    // The terminal's session ends once the service is done with it.
    config.hangUpOnExit = true;

    host::BPlusServiceConfig service;
    service.checkMethod = 3; // the terminal's choice decides
    // One packet beyond the window keeps the line busy during a download;
    // more would cost the terminal an error for every packet that follows a
    // damaged one.
    service.extraAhead = 1;
    service.folder = up.string();
    service.readTimeoutMs = static_cast<int>(3000 + 4 * s.latencyMs);
    std::vector<host::ServiceRequest> requests;
    for (const fs::path &f : originals) {
        host::ServiceRequest r;
        r.path = f.string();
        requests.push_back(r);
    }
    for (const fs::path &f : originals) {
        host::ServiceRequest r;
        r.kind = host::ServiceRequest::Upload;
        r.path = f.filename().string();
        requests.push_back(r);
    }
    BPlusTerminalSettings terminal;
    terminal.offered = s.files;
    terminal.checkMethod = checkMethod;
    terminal.quietMs = static_cast<int32_t>(1000 + 4 * s.latencyMs);

    std::vector<host::RequestReport> reports;
    BPlusSessionOutcome session;
    Reporter reporter(verbosity, isatty(STDERR_FILENO) != 0, _("terminal"), "terminal");
    host::LinkPair link(config);
    link.Run(
        [&](XferPort *port) {
            host::PortServiceLine line(port);
            host::BPlusService bplus(line, service);
            reports = bplus.Run(requests);
            return 0;
        },
        [&](XferPort *port) {
            session = RunBPlusSession(port, terminal, reporter, {});
            return 0;
        });

    const int status = ReportBPlusSession(session, terminal, Verbosity::Quiet);
    g_sessionTally = TallyOf(session);
    bool all = status == 0 && reports.size() == requests.size();
    for (const host::RequestReport &r : reports)
        if (!r.ok) {
            Note(fmt::format(F_("service: {} failed: {}"), r.request.path, r.why));
            all = false;
        }
    for (const fs::path &f : originals) {
        const std::string name = f.filename().string();
        bool downloadGood = false, uploadGood = false;
        for (const BPlusRequestOutcome &r : session.requests)
            if (!r.upload && r.result == 1 && fs::path(r.name).filename() == name)
                downloadGood = true;
        for (const host::RequestReport &r : reports)
            if (r.request.kind == host::ServiceRequest::Upload && r.ok && r.request.path == name)
                uploadGood = true;
        all = Same(f, down / name, _("download"), "download", downloadGood) && all;
        all = Same(f, up / name, _("upload"), "upload", uploadGood) && all;
    }
    // Each request's time and, on a line of limited speed, the share of the
    // line's capacity that was file data.
    uint64_t bytes = 0;
    for (const BPlusRequestOutcome &r : session.requests) {
        bytes += r.bytes;
        const double capacity = r.seconds * (s.baud / 10.0);
        // TRANSLATORS: upload or download, the file, its size, the time and
        // either its rate or its share of the line's capacity.
        const std::string text = fmt::format(
            F_("{} {}: {} bytes in {:.2f} s{}"), r.upload ? _("upload") : _("download"),
            fs::path(r.name).filename().string(), r.bytes, r.seconds,
            s.baud != 0 && capacity > 0
                ? fmt::format(F_(", file/line {:.3f}"), static_cast<double>(r.bytes) / capacity)
                : fmt::format(", {}/s", FormatBytes(r.seconds > 0 ? r.bytes / r.seconds : 0)));
        Note(text);
    }
    Note(fmt::format(P_("{} of {} transfer verified in {}; {} in {:.2f} s",
                        "{} of {} transfers verified in {}; {} in {:.2f} s", requests.size()),
                     all ? requests.size() : 0, requests.size(), folder,
                     FormatBytes(static_cast<double>(bytes)), session.seconds));
    const uint64_t forward = link.Counters(host::LinkPair::AtoB).offered;
    const uint64_t back = link.Counters(host::LinkPair::BtoA).offered;
    Note(fmt::format(F_("line carried {} bytes service to terminal and {} back"), forward, back));
    return all ? 0 : 1;
}

} // namespace zvxfer::cli
