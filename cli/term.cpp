// `zvxfer term`: options, opening the line or starting the command on a
// pty, the user's terminal made raw and restored on every way out.
#include "term.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "i18n.h"
#include "progress.h"
#include "shown_text.h"
#include "tcp.h"
#include "term_menu.h"
#include "term_session.h"
#include "transfer.h"
#include "tty.h"

namespace zvxfer::cli {

CLI::App *AddTermCommand(CLI::App &app, TermSettings &s) {
    auto *cmd = app.add_subcommand(
        "term", _("a terminal session on a serial line, a TCP connection or a command, with "
                  "transfers from a menu (escape key, Ctrl-] by default)"));
    cmd->footer(_("In the session the escape key opens a menu on the bottom line: quit, capture "
                  "to a file, break, send, receive, ASCII upload.  Pressed twice, the key itself "
                  "is sent.  While a transfer runs, Ctrl-C or the escape key cancels it."));
    auto *device = cmd->add_option("--line", s.line.device, _("serial device"));
    cmd->add_option("--baud", s.line.baud, _("speed of the serial device"))->needs(device);
    cmd->add_flag("--rtscts", s.line.rtsCts, _("RTS/CTS flow control on the serial device"))
        ->needs(device);
    auto *tcp = cmd->add_option("--tcp", s.line.tcp, _("connect to HOST:PORT"))->excludes(device);
    cmd->add_option("--escape", s.escape,
                    _("the key that opens the menu, as ^X (default ^]); pressed twice it is sent"))
        ->check(CLI::Validator(
            [](const std::string &text) -> std::string {
                if (ParseEscapeKey(text)) return {};
                return _("the escape key is a control key written ^X, not ") + text;
            },
            "^X"));
    cmd->add_option("-d,--dir", s.folder, _("folder received files land in"))
        ->check(CLI::ExistingDirectory);
    const std::map<std::string, int32_t> policies{{"overwrite", XFER_EXISTING_OVERWRITE},
                                                  {"rename", XFER_EXISTING_RENAME},
                                                  {"skip", XFER_EXISTING_SKIP}};
    cmd->add_option("--existing", s.policy,
                    _("when a received file exists: overwrite|rename|skip (default rename)"))
        ->transform(CLI::CheckedTransformer(policies, CLI::ignore_case).description(""))
        ->type_name(_("POLICY"));
    cmd->add_option("COMMAND", s.command,
                    _("after --: the command to run on a pseudo-terminal (e.g. -- ssh host)"))
        ->excludes(device)
        ->excludes(tcp);
    return cmd;
}

namespace {

// A crash still gives the user's terminal back before the process dies.
void OnCrash(int signal) {
    host::TtyRestoreAll();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// Start the command on a new pty whose settings and size are those of the
// user's terminal as it was before the session made it raw.  The master's
// fd, or -1 with the reason in `error`.
int StartCommand(const std::vector<std::string> &command, const termios *settings,
                 const winsize *size, pid_t &child, int &slaveFd, std::string &error) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        error = std::strerror(errno);
        if (master >= 0) close(master);
        return -1;
    }
    const char *name = ptsname(master);
    if (!name) {
        error = std::strerror(errno);
        close(master);
        return -1;
    }
    const int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) {
        error = std::strerror(errno);
        close(master);
        return -1;
    }
    if (size) ioctl(master, TIOCSWINSZ, size);
    std::vector<char *> argv;
    for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    child = fork();
    if (child < 0) {
        error = std::strerror(errno);
        close(master);
        close(slave);
        return -1;
    }
    if (child == 0) {
        // The command's own session with the pty as its controlling terminal.
        setsid();
        ioctl(slave, TIOCSCTTY, 0);
        if (settings) tcsetattr(slave, TCSANOW, settings);
        dup2(slave, 0);
        dup2(slave, 1);
        dup2(slave, 2);
        if (slave > 2) close(slave);
        close(master);
        for (const int s : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD, SIGWINCH})
            std::signal(s, SIG_DFL);
        execvp(argv[0], argv.data());
        const std::string text =
            fmt::format("zvxfer: {}: {}\r\n", ShownText(command[0]), std::strerror(errno));
        (void)!write(2, text.data(), text.size());
        _exit(127);
    }
    slaveFd = slave;
    return master;
}

} // namespace

int RunTerm(const TermSettings &s) {
    SessionSettings session;
    session.escape = ParseEscapeKey(s.escape).value_or(0x1d);
    session.folder = s.folder;
    session.policy = s.policy;
    std::signal(SIGPIPE, SIG_IGN);
    host::TtyRestoreOnExit();
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(signal, OnCrash);
    InstallHooks();

    const bool terminal = isatty(STDIN_FILENO) != 0;
    termios userSettings{};
    winsize size{};
    const bool haveSettings = terminal && tcgetattr(STDIN_FILENO, &userSettings) == 0;
    const bool haveSize = terminal && ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0;

    SessionLine line;
    std::string error;
    if (!s.command.empty()) {
        line.fd = StartCommand(s.command, haveSettings ? &userSettings : nullptr,
                               haveSize ? &size : nullptr, line.child, line.slave, error);
    } else if (!s.line.device.empty()) {
        line.fd = host::TtyOpen(s.line.device.c_str(), {s.line.baud, s.line.rtsCts}, &error);
        line.serial = true;
    } else if (!s.line.tcp.empty()) {
        line.fd = host::TcpConnect(s.line.tcp, &error);
    } else {
        Note(_("term needs --line DEVICE, --tcp HOST:PORT or -- COMMAND"));
        return 2;
    }
    if (line.fd < 0) {
        Note(fmt::format(F_("cannot open the line: {}"), error));
        return 1;
    }
    if (terminal)
        Note(fmt::format(F_("connected; {} opens the menu"), EscapeKeyName(session.escape)));
    if (terminal && !host::TtyMakeRaw(STDIN_FILENO, {}, &error)) {
        Note(fmt::format(F_("cannot set up the terminal: {}"), error));
        close(line.fd);
        return 1;
    }
    const SessionEnd end = RunSession(line, session);
    if (line.serial) host::TtyRestore(line.fd);
    close(line.fd);
    if (line.slave >= 0) close(line.slave);
    if (terminal) host::TtyRestore(STDIN_FILENO);
    if (s.command.empty() && end.lineClosed) Note(_("the line closed; the session ended"));
    return end.status;
}

} // namespace zvxfer::cli
