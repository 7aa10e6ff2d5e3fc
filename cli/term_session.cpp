// The terminal session's loop.  One thread polls the user's terminal, the
// line and a pipe its signal handlers write to (window size changes, the
// command's exit).  While the menu or a question is on the bottom line, the
// line's bytes are held and shown when it closes, so that the remote's
// screen is never drawn over the question.
#include "term_session.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <wordexp.h>

#include "i18n.h"
#include "line_host.h"
#include "names.h"
#include "partial_file.h"
#include "progress.h"
#include "protocols.h"
#include "shown_text.h"
#include "term_menu.h"
#include "term_screen.h"
#include "transfer.h"

namespace zvxfer::cli {
namespace {

// Received bytes held while the menu is open; beyond this the line is not
// read until it closes (the far end waits on its own flow control).
constexpr std::size_t kHoldMax = 1 << 20;

int g_signalPipe[2] = {-1, -1};

void OnSignal(int signal) {
    const int saved = errno;
    const auto byte = static_cast<uint8_t>(signal);
    (void)!write(g_signalPipe[1], &byte, 1);
    errno = saved;
}

// Write all of `bytes` to a descriptor, waiting when it is full; false when
// it is gone.
bool WriteAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd p{fd, POLLOUT, 0};
            poll(&p, 1, 1000);
        } else {
            return false;
        }
    }
    return true;
}

int StatusOf(int wait) {
    if (WIFEXITED(wait)) return WEXITSTATUS(wait);
    if (WIFSIGNALED(wait)) return 128 + WTERMSIG(wait);
    return 1;
}

// The words of an answer as the shell would make them: `~` and wildcards
// expanded, quotes removed; command substitution refused.  nullopt with
// the reason when the text cannot be taken.
std::optional<std::vector<std::string>> Words(const std::string &text, std::string &error) {
    wordexp_t words{};
    const int rc = wordexp(text.c_str(), &words, WRDE_NOCMD);
    if (rc != 0) {
        error = rc == WRDE_CMDSUB ? _("commands are not run in names")
                                  : _("the names cannot be read (check the quotes)");
        if (rc == WRDE_NOSPACE) wordfree(&words);
        return std::nullopt;
    }
    std::vector<std::string> list(words.we_wordv, words.we_wordv + words.we_wordc);
    wordfree(&words);
    return list;
}

// Reads the user's keys while a transfer runs: Ctrl-C or the escape key
// cancel it (the far end then gets the protocol's cancel); other keys are
// dropped, they would go nowhere.
class CancelKeys {
  public:
    explicit CancelKeys(uint8_t escape)
        : thread_([this, escape] {
              while (!stop_.load()) {
                  pollfd p{STDIN_FILENO, POLLIN, 0};
                  if (poll(&p, 1, 100) <= 0) continue;
                  char buffer[256];
                  const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
                  if (n <= 0) return;
                  for (ssize_t i = 0; i < n; ++i)
                      if (buffer[i] == 0x03 || static_cast<uint8_t>(buffer[i]) == escape)
                          g_interrupted.store(true);
              }
          }) {}
    ~CancelKeys() {
        stop_.store(true);
        thread_.join();
    }

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TransferSettings SettingsFor(const Protocol &protocol, bool sending) {
    TransferSettings s;
    s.protocol = protocol;
    s.sending = sending;
    return s;
}

enum class Question {
    None,
    CaptureFile,
    SendProtocol,
    SendFiles,
    ReceiveProtocol,
    ReceiveFile,
    UploadFile
};

class Session {
  public:
    Session(const SessionLine &line, const SessionSettings &settings)
        : line_(line), settings_(settings), keys_(settings.escape) {}
    ~Session() {
        if (capture_) std::fclose(capture_);
    }
    SessionEnd Run();

  private:
    void ReadLine();
    void ReadUser();
    void WriteQueued();
    void Signals();
    void PassWindowSize();
    void LineClosed();
    void EndChild(bool hangUp);
    void OnKey(const KeyEvent &key);
    void Choose(MenuItem item);
    void Answered(std::string answer);
    void Ask(Question question, std::string prompt, std::string initial = {});
    void HideBottom();
    void Say(const std::string &text);
    void Transfer(TransferSettings s);
    void Send(const std::string &answer);
    std::optional<Protocol> ProtocolAnswer(const std::string &answer);

    SessionLine line_;
    SessionSettings settings_;
    TermKeys keys_;
    std::string outgoing_; // typed bytes not yet on the line
    std::string held_;     // received while the bottom line is in use
    bool bottomShown_ = false;
    Question question_ = Question::None;
    std::string prompt_;
    std::optional<Protocol> protocol_;
    std::FILE *capture_ = nullptr;
    std::string captureName_;
    uint64_t captured_ = 0;
    bool done_ = false;
    bool inputEnded_ = false;
    bool lineClosed_ = false;
    bool childDone_ = false;
    int status_ = 0;
};

void Session::Say(const std::string &text) {
    const std::string line = "zvxfer: " + text;
    const auto columns = static_cast<std::size_t>(std::max(1, TerminalColumns() - 1));
    WriteAll(STDOUT_FILENO, BottomLineBytes(CutShown(line, columns), TerminalRows()));
}

void Session::Ask(Question question, std::string prompt, std::string initial) {
    question_ = question;
    prompt_ = std::move(prompt);
    keys_.Ask(initial);
    WriteAll(STDOUT_FILENO, QuestionBytes(prompt_ + ShownText(initial), TerminalRows(), true));
    bottomShown_ = true;
}

void Session::HideBottom() {
    if (!bottomShown_) return;
    bottomShown_ = false;
    WriteAll(STDOUT_FILENO, EndQuestionBytes(TerminalRows()));
    if (!held_.empty()) WriteAll(STDOUT_FILENO, held_);
    held_.clear();
}

void Session::PassWindowSize() {
    winsize size{};
    if (line_.child > 0 && ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0)
        ioctl(line_.fd, TIOCSWINSZ, &size);
}

// The command's status once it has ended.  A command the user quits is
// hung up at once and killed a second later; after the line closed the
// command gets a second to exit by itself before it is hung up, and
// another before it is killed.
void Session::EndChild(bool hangUp) {
    if (line_.child <= 0 || childDone_) return;
    int wait = 0;
    if (hangUp) kill(-line_.child, SIGHUP);
    for (int i = 0; i < 100; ++i) {
        if (waitpid(line_.child, &wait, WNOHANG) == line_.child) {
            childDone_ = true;
            if (!hangUp) status_ = StatusOf(wait);
            return;
        }
        if (i == 50) kill(-line_.child, hangUp ? SIGKILL : SIGHUP);
        usleep(20000);
    }
    kill(-line_.child, SIGKILL);
    waitpid(line_.child, &wait, 0);
    childDone_ = true;
    if (!hangUp) status_ = StatusOf(wait);
}

void Session::LineClosed() {
    HideBottom();
    done_ = true;
    lineClosed_ = true;
    EndChild(false);
}

void Session::ReadLine() {
    char buffer[64 * 1024];
    const ssize_t n = read(line_.fd, buffer, sizeof buffer);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        LineClosed();
        return;
    }
    const std::string_view bytes(buffer, static_cast<std::size_t>(n));
    if (capture_) {
        std::fwrite(bytes.data(), 1, bytes.size(), capture_);
        std::fflush(capture_);
        captured_ += bytes.size();
    }
    if (bottomShown_)
        held_ += bytes;
    else
        WriteAll(STDOUT_FILENO, bytes);
}

void Session::WriteQueued() {
    while (!outgoing_.empty()) {
        const ssize_t n = write(line_.fd, outgoing_.data(), outgoing_.size());
        if (n > 0) {
            outgoing_.erase(0, static_cast<std::size_t>(n));
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        } else {
            outgoing_.clear();
            LineClosed();
            return;
        }
    }
}

void Session::ReadUser() {
    char buffer[4096];
    const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n == 0 && !isatty(STDIN_FILENO)) {
        // Input from a file or pipe has ended: the session goes on showing
        // the line until it closes.
        inputEnded_ = true;
        return;
    }
    if (n <= 0) {
        // The user's terminal is gone: so is the session.
        done_ = true;
        status_ = 1;
        EndChild(true);
        return;
    }
    keys_.Feed(std::string_view(buffer, static_cast<std::size_t>(n)),
               [this](const KeyEvent &key) { OnKey(key); });
    WriteQueued();
}

void Session::OnKey(const KeyEvent &key) {
    if (done_) return;
    switch (key.kind) {
    case KeyEvent::ToLine:
        outgoing_ += key.bytes;
        break;
    case KeyEvent::OpenMenu: {
        const std::string name = EscapeKeyName(settings_.escape);
        const std::string menu =
            fmt::format(F_("zvxfer: q quit, c capture {}, b break, s send, r receive, "
                           "a ASCII upload, {} sends {}, other keys return"),
                        capture_ ? _("off") : _("on"), name, name);
        const auto columns = static_cast<std::size_t>(std::max(1, TerminalColumns() - 1));
        WriteAll(STDOUT_FILENO, QuestionBytes(CutShown(menu, columns), TerminalRows(), true));
        bottomShown_ = true;
        break;
    }
    case KeyEvent::Choose:
        HideBottom();
        Choose(key.item);
        break;
    case KeyEvent::Edit: {
        const auto columns = static_cast<std::size_t>(std::max(1, TerminalColumns() - 1));
        std::string shown = ShownText(key.bytes);
        // The end of a long answer stays in view.
        const std::size_t room = columns > prompt_.size() + 1 ? columns - prompt_.size() - 1 : 1;
        if (shown.size() > room) shown = shown.substr(shown.size() - room);
        WriteAll(STDOUT_FILENO, QuestionBytes(prompt_ + shown, TerminalRows(), false));
        break;
    }
    case KeyEvent::Answer:
        HideBottom();
        Answered(key.bytes);
        break;
    case KeyEvent::Cancel:
        HideBottom();
        question_ = Question::None;
        break;
    }
}

void Session::Choose(MenuItem item) {
    switch (item) {
    case MenuItem::Close:
        return;
    case MenuItem::Quit:
        done_ = true;
        EndChild(true);
        return;
    case MenuItem::Capture:
        if (capture_) {
            std::fclose(capture_);
            capture_ = nullptr;
            Say(fmt::format(F_("capture off: {}, {} bytes"), ShownText(captureName_), captured_));
            return;
        }
        Ask(Question::CaptureFile, _("capture the session to file: "));
        return;
    case MenuItem::Break:
        if (!line_.serial) {
            Say(_("a break is sent on serial lines only"));
            return;
        }
        Say(tcsendbreak(line_.fd, 0) == 0 ? _("break sent") : _("the break could not be sent"));
        return;
    case MenuItem::Send:
        Ask(Question::SendProtocol, _("send with protocol: "), "zmodem");
        return;
    case MenuItem::Receive:
        Ask(Question::ReceiveProtocol, _("receive with protocol: "), "zmodem");
        return;
    case MenuItem::Upload:
        Ask(Question::UploadFile, _("ASCII upload of the file: "));
        return;
    }
}

std::optional<Protocol> Session::ProtocolAnswer(const std::string &answer) {
    const std::optional<Protocol> p = FindProtocol(answer);
    if (!p) {
        Say(fmt::format(F_("unknown protocol '{}': {}"), ShownText(answer), ProtocolNames()));
        return std::nullopt;
    }
    if (p->number == CompuServeBPlus) {
        Say(_("a B+ transfer is started by the service, not from the menu"));
        return std::nullopt;
    }
    return p;
}

void Session::Answered(std::string answer) {
    const Question question = question_;
    question_ = Question::None;
    std::string error;
    switch (question) {
    case Question::None:
        return;
    case Question::CaptureFile: {
        const auto words = Words(answer, error);
        if (!words || words->size() != 1) {
            Say(words ? _("give one file name") : error);
            return;
        }
        capture_ = std::fopen((*words)[0].c_str(), "ab");
        if (!capture_) {
            Say(fmt::format(F_("cannot write {}: {}"), ShownText((*words)[0]),
                            std::strerror(errno)));
            return;
        }
        captureName_ = (*words)[0];
        captured_ = 0;
        Say(fmt::format(F_("capture on: {}"), ShownText(captureName_)));
        return;
    }
    case Question::SendProtocol:
        protocol_ = ProtocolAnswer(answer);
        if (protocol_) Ask(Question::SendFiles, _("files to send: "));
        return;
    case Question::SendFiles:
        Send(answer);
        return;
    case Question::UploadFile:
        protocol_ = FindProtocol("ascii");
        Send(answer);
        return;
    case Question::ReceiveProtocol: {
        protocol_ = ProtocolAnswer(answer);
        if (!protocol_) return;
        if (!protocol_->batch) {
            Ask(Question::ReceiveFile, _("file to write: "));
            return;
        }
        TransferSettings s = SettingsFor(*protocol_, false);
        Transfer(s);
        return;
    }
    case Question::ReceiveFile: {
        const auto words = Words(answer, error);
        if (!words || words->size() != 1) {
            Say(words ? _("give one file name") : error);
            return;
        }
        TransferSettings s = SettingsFor(*protocol_, false);
        s.files = *words;
        Transfer(s);
        return;
    }
    }
}

// The names are checked and expanded as `zvxfer send` does, after the
// shell's rules (`~`, wildcards, quotes) made words of the answer.
void Session::Send(const std::string &answer) {
    std::string error;
    const auto words = Words(answer, error);
    if (!words) {
        Say(error);
        return;
    }
    if (words->empty()) {
        Say(_("no file to send"));
        return;
    }
    TransferSettings s = SettingsFor(*protocol_, true);
    const CheckedNames checked = CheckSendNames(*words, false);
    if (!checked.problems.empty()) {
        Say(ShownText(checked.problems.front()));
        return;
    }
    if (!s.protocol.batch && checked.files.size() > 1) {
        Say(fmt::format(F_("{} sends one file at a time, not {}"), s.protocol.name,
                        checked.files.size()));
        return;
    }
    ExactNames exact;
    if (s.protocol.watched) {
        s.files = checked.files;
    } else if (!exact.Build(checked.files, false, error)) {
        Say(ShownText(error));
        return;
    } else {
        s.files = exact.Names();
    }
    Transfer(s);
}

// One transfer on the session's line, with the program's transfer code: a
// line host on the same descriptor for its length, the progress on the
// bottom line, then a one-line summary and the session goes on.
void Session::Transfer(TransferSettings s) {
    // What was typed before goes out first.
    while (!outgoing_.empty() && !done_) {
        WriteQueued();
        if (!outgoing_.empty()) {
            pollfd p{line_.fd, POLLOUT, 0};
            poll(&p, 1, 1000);
        }
    }
    if (done_) return;
    const std::string folder = FolderText(settings_.folder);
    s.folder = settings_.folder;
    s.policy = settings_.policy;
    ReceivedFiles files;
    Outcome outcome;
    uint64_t filesEnded = 0;
    bool lost = false;
    {
        host::LineHost host(line_.fd, line_.fd, {});
        if (!host.Ok()) {
            Say(_("cannot watch the line"));
            return;
        }
        XferPort *port = host.OpenPort(folder.c_str(), s.policy);
        if (!port) {
            Say(_("cannot open a port"));
            return;
        }
        Reporter reporter(Verbosity::Normal, true);
        reporter.UseBottomLine();
        {
            CancelKeys cancel(settings_.escape);
            outcome = RunTransfer(
                port, s, reporter, [&host] { return host.Lost(); }, s.sending ? nullptr : &files);
        }
        port->Ops.PortClose(port);
        filesEnded = reporter.FilesEnded() - reporter.FilesFailed();
        lost = host.Lost();
    }
    const bool cancelled = g_interrupted.exchange(false);
    std::string summary;
    if (!outcome.failure.empty()) {
        summary = fmt::format(F_("transfer failed: {}"), outcome.failure);
    } else if (outcome.result < 0 &&
               !(s.protocol.text && CaptureEndedNormally(s, outcome.result))) {
        summary = cancelled
                      ? _("transfer cancelled")
                      : fmt::format(F_("transfer failed: {}"), DescribeResult(outcome.result));
    } else {
        const uint64_t count =
            s.sending && outcome.result > 0 ? static_cast<uint64_t>(outcome.result) : filesEnded;
        const double rate =
            outcome.seconds > 0 ? static_cast<double>(outcome.bytes) / outcome.seconds : 0;
        const bool one = count == 1;
        const auto format = s.sending ? (one ? F_("{} file sent, {} in {:.1f} s ({}/s)")
                                             : F_("{} files sent, {} in {:.1f} s ({}/s)"))
                                      : (one ? F_("{} file received, {} in {:.1f} s ({}/s)")
                                             : F_("{} files received, {} in {:.1f} s ({}/s)"));
        summary = fmt::format(format, count, FormatBytes(static_cast<double>(outcome.bytes)),
                              outcome.seconds, FormatBytes(rate));
    }
    if (const std::optional<PartialFile> partial = files.Partial();
        partial && !summary.empty() && outcome.result < 0)
        summary += fmt::format(F_("; partial file kept: {}"), ShownText(partial->name));
    Say(summary);
    if (lost) LineClosed();
}

void Session::Signals() {
    uint8_t signals[64];
    const ssize_t n = read(g_signalPipe[0], signals, sizeof signals);
    for (ssize_t i = 0; i < n; ++i) {
        if (signals[i] == SIGWINCH) PassWindowSize();
        if (signals[i] != SIGCHLD || line_.child <= 0 || childDone_) continue;
        int wait = 0;
        if (waitpid(line_.child, &wait, WNOHANG) != line_.child) continue;
        childDone_ = true;
        status_ = StatusOf(wait);
        // What the command wrote last is still in the pty: shown before the end.
        HideBottom();
        char buffer[64 * 1024];
        ssize_t got;
        while ((got = read(line_.fd, buffer, sizeof buffer)) > 0) {
            if (capture_) std::fwrite(buffer, 1, static_cast<std::size_t>(got), capture_);
            WriteAll(STDOUT_FILENO, std::string_view(buffer, static_cast<std::size_t>(got)));
        }
        done_ = true;
    }
}

SessionEnd Session::Run() {
    const int flags = fcntl(line_.fd, F_GETFL);
    fcntl(line_.fd, F_SETFL, flags | O_NONBLOCK);
    while (!done_) {
        pollfd fds[3] = {{inputEnded_ ? -1 : STDIN_FILENO, POLLIN, 0},
                         {line_.fd,
                          static_cast<short>((held_.size() < kHoldMax ? POLLIN : 0) |
                                             (outgoing_.empty() ? 0 : POLLOUT)),
                          0},
                         {g_signalPipe[0], POLLIN, 0}};
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[2].revents & POLLIN) Signals();
        if (!done_ && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) ReadLine();
        if (!done_ && (fds[1].revents & POLLOUT)) WriteQueued();
        if (!done_ && (fds[0].revents & (POLLIN | POLLHUP | POLLERR))) ReadUser();
    }
    fcntl(line_.fd, F_SETFL, flags);
    return {status_, lineClosed_};
}

} // namespace

SessionEnd RunSession(const SessionLine &line, const SessionSettings &settings) {
    if (pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return {1, false};
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGWINCH, &action, nullptr);
    sigaction(SIGCHLD, &action, nullptr);
    // The command may have ended before the handler was there.
    OnSignal(SIGCHLD);
    const SessionEnd end = Session(line, settings).Run();
    std::signal(SIGWINCH, SIG_DFL);
    std::signal(SIGCHLD, SIG_DFL);
    close(g_signalPipe[0]);
    close(g_signalPipe[1]);
    return end;
}

} // namespace zvxfer::cli
