// The `serve` subcommand: a B+ service on the chosen line, each request's
// outcome reported on standard error.
#include "serve.h"

#include <csignal>
#include <fmt/format.h>

#include "bplus_service.h"
#include "i18n.h"
#include "json_events.h"
#include "shown_text.h"
#include "transfer.h"
#include "tty.h"

namespace zvxfer::cli {

namespace {

void OnServeInterrupt(int) {
    g_interrupted.store(true);
}

host::BPlusServiceConfig ConfigOf(const ServeSettings &s) {
    host::BPlusServiceConfig c;
    c.checkMethod = s.checkMethod;
    c.blockSize = s.blockSize;
    c.sendWindow = c.receiveWindow = s.window;
    c.extraAhead = s.ahead;
    c.downloadResume = s.resume ? 1 : 0;
    c.fileInfo = s.fileInfo ? 1 : 0;
    c.greet = !s.noGreeting;
    c.readTimeoutMs = s.timeoutMs;
    c.maxErrors = s.maxErrors;
    c.lingerMs = s.lingerMs;
    c.folder = s.folder;
    using F = host::ServiceFault;
    const std::pair<F::What, int> faults[] = {
        {F::DropPacket, s.dropPacket},     {F::DamagePacket, s.damagePacket},
        {F::RepeatPacket, s.repeatPacket}, {F::DropAck, s.dropAck},
        {F::DamageAck, s.damageAck},       {F::RepeatAck, s.repeatAck},
        {F::SilentFrom, s.silentFrom},     {F::FailAt, s.failAt}};
    for (const auto &[what, at] : faults)
        if (at > 0) c.faults.push_back({what, at, s.failCode});
    if (s.verbose) c.log = [](const std::string &line) { Note(line, "zvxfer serve"); };
    return c;
}

std::string Describe(const host::RequestReport &r) {
    const bool download = r.request.kind == host::ServiceRequest::Download;
    const std::string path = ShownText(r.request.path);
    if (!r.ok)
        return download ? fmt::format(F_("download {}: failed: {}"), path, r.why)
                        : fmt::format(F_("upload {}: failed: {}"), path, r.why);
    // TRANSLATORS: the bytes, the file's CRC-32 and the check method's number.
    const std::string details = fmt::format(F_("{} bytes, file CRC-32 {:08X}, check method {}"),
                                            r.bytes, r.crc32, r.checkMethod);
    std::string text = download ? fmt::format(F_("download {}: {}"), path, details)
                                : fmt::format(F_("upload {}: {}"), path, details);
    if (r.resumePoint >= 0)
        text += r.restarted ? fmt::format(F_(", resume point {} refused: restarted"), r.resumePoint)
                            : fmt::format(F_(", resumed at {}"), r.resumePoint);
    if (r.resends != 0)
        text += fmt::format(P_(", {} packet resent", ", {} packets resent", r.resends), r.resends);
    return text;
}

} // namespace

CLI::App *AddServeCommand(CLI::App &app, ServeSettings &s) {
    auto *cmd = app.add_subcommand("serve", _("be the service end of a B+ session on the line"));
    cmd->add_option("-p,--protocol", s.protocol, _("protocol: bplus"))
        ->required()
        ->check(CLI::IsMember({"bplus"}));
    cmd->add_flag("-q,--quiet", s.quiet, _("show nothing but failures"));
    cmd->add_flag("-v,--verbose", s.verbose, _("show every event of the service"));
    auto *device =
        cmd->add_option("--line", s.line.device, _("serial device (default: stdin/stdout)"));
    cmd->add_option("--baud", s.line.baud, _("speed of the serial device"))->needs(device);
    cmd->add_option("--tcp", s.line.tcp, _("connect to HOST:PORT"))->excludes(device);
    cmd->add_option("--download", s.downloads, _("a file the service sends (repeatable)"))
        ->check(CLI::ExistingFile);
    cmd->add_option("--upload", s.uploads, _("a name the service asks the terminal to send"));
    cmd->add_option("-d,--dir", s.folder, _("folder uploads land in"))
        ->check(CLI::ExistingDirectory);
    cmd->add_option("--check-method", s.checkMethod,
                    _("offered check: 0 checksum, 1 CRC-16, 2 X.25, 3 CRC-32"))
        ->check(CLI::Range(0, 3));
    cmd->add_option("--block-size", s.blockSize, _("offered packet size in 128-byte units"))
        ->check(CLI::Range(1, 8));
    cmd->add_option("--window", s.window, _("offered window"))->check(CLI::Range(1, 2));
    cmd->add_option("--ahead", s.ahead,
                    _("packets sent beyond the window before waiting for an acknowledgement "
                      "(default 1)"))
        ->check(CLI::Range(0, 4));
    cmd->add_flag("--resume", s.resume, _("offer download resume"));
    cmd->add_flag("--file-info", s.fileInfo, _("offer file information before the data"));
    cmd->add_flag("--no-greeting", s.noGreeting, _("start without ENQ"));
    cmd->add_option("--timeout", s.timeoutMs, _("read time-out in milliseconds"))
        ->check(CLI::Range(100, 600000));
    cmd->add_option("--max-errors", s.maxErrors, _("errors before a request fails"))
        ->check(CLI::Range(1, 1000));
    cmd->add_option("--linger", s.lingerMs,
                    _("after the last request, answer the terminal until quiet this long (ms)"))
        ->check(CLI::Range(0, 600000));
    const auto packet = CLI::Range(1, 1000000);
    cmd->add_option("--drop-packet", s.dropPacket, _("do not send packet N the first time"))
        ->check(packet);
    cmd->add_option("--damage-packet", s.damagePacket, _("damage packet N the first time"))
        ->check(packet);
    cmd->add_option("--repeat-packet", s.repeatPacket, _("send packet N twice"))->check(packet);
    cmd->add_option("--drop-ack", s.dropAck, _("do not send acknowledgement N"))->check(packet);
    cmd->add_option("--damage-ack", s.damageAck, _("damage acknowledgement N"))->check(packet);
    cmd->add_option("--repeat-ack", s.repeatAck, _("send acknowledgement N twice"))->check(packet);
    cmd->add_option("--silent-from", s.silentFrom, _("write nothing from packet N on"))
        ->check(packet);
    cmd->add_option("--fail-at", s.failAt,
                    _("send a failure packet instead of data packet N of a download"))
        ->check(packet);
    cmd->add_option("--fail-code", s.failCode, _("the failure packet's code letter (default A)"));
    return cmd;
}

int RunServe(const ServeSettings &s) {
    std::vector<host::ServiceRequest> requests;
    for (const std::string &file : s.downloads) {
        host::ServiceRequest r;
        r.path = file;
        requests.push_back(r);
    }
    for (const std::string &name : s.uploads) {
        host::ServiceRequest r;
        r.kind = host::ServiceRequest::Upload;
        r.path = name;
        requests.push_back(r);
    }
    if (requests.empty()) {
        Note(_("give at least one --download or --upload"), "zvxfer serve");
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    host::TtyRestoreOnExit();
    std::signal(SIGINT, OnServeInterrupt);

    std::string error;
    auto line = OpenLine(s.line, {}, error);
    if (!line) {
        Note(fmt::format(F_("cannot open the line: {}"), error), "zvxfer serve");
        return 1;
    }
    XferPort *port = line->host->OpenPort();
    if (!port) {
        Note(_("cannot open a port"), "zvxfer serve");
        return 1;
    }
    std::vector<host::RequestReport> reports;
    {
        host::PortServiceLine serviceLine(port, [] { return g_interrupted.load(); });
        host::BPlusService service(serviceLine, ConfigOf(s));
        reports = service.Run(requests);
    }
    port->Ops.PortClose(port);
    line.reset();
    if (g_interrupted.load()) Note(_("interrupted"), "zvxfer serve");
    bool allOk = true;
    for (const host::RequestReport &r : reports) {
        allOk = allOk && r.ok;
        ++(r.ok ? g_sessionTally.done : g_sessionTally.failed);
        g_sessionTally.bytes += r.bytes;
        if (!r.ok || !s.quiet) Note(Describe(r), "zvxfer serve");
    }
    return allOk ? 0 : 1;
}

} // namespace zvxfer::cli
