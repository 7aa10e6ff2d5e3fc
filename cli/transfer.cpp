// Running one transfer for the zvxfer program through the generic entries.
#include "transfer.h"

#include <utility>

namespace zvxfer::cli {

std::atomic<bool> g_interrupted{false};

namespace {

// The library's callbacks carry only the record; each transfer thread keeps
// its reporter and line here.
thread_local Reporter *t_reporter = nullptr;
thread_local const std::function<bool()> *t_lineLost = nullptr;

int32_t OnStatus(XferRecord *record, int32_t level, const char *text) {
    if (t_reporter) t_reporter->Status(*record, level, text);
    return 0;
}

int32_t OnProgress(XferRecord *record) {
    if (t_reporter) t_reporter->Progress(*record);
    return 0;
}

int32_t OnAbortCheck(XferRecord *) {
    if (g_interrupted.load(std::memory_order_relaxed)) return XferErrUserAbort;
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
    words.push_back(XferOptEnd);
    return words;
}

struct ThreadBinding {
    ThreadBinding(Reporter &reporter, const std::function<bool()> &lost) {
        t_reporter = &reporter;
        t_lineLost = &lost;
    }
    ~ThreadBinding() {
        t_reporter = nullptr;
        t_lineLost = nullptr;
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

void InstallHooks() { SetAbortXferFunctionPtr(OnAbortCheck); }

std::string DescribeResult(int32_t code) {
#define ZVXFER_CLI_TEXT(value, name, text)                                                         \
    if (code == (value)) return std::to_string(code) + " " + (text);
    XFER_RESULT_MAP(ZVXFER_CLI_TEXT)
    PORT_RESULT_MAP(ZVXFER_CLI_TEXT)
#undef ZVXFER_CLI_TEXT
    return std::to_string(code) + " Unknown error code";
}

Outcome RunTransfer(XferPort *port, const TransferSettings &s, Reporter &reporter,
                    std::function<bool()> lineLost) {
    ThreadBinding binding(reporter, lineLost);
    const std::vector<int32_t> words = OptionWords(s);
    FileTransferOptions *block = CLSetFileTransferOptions(words.data());
    Outcome outcome;
    if (!block) {
        outcome.result = XferErrNoBuffer;
        return outcome;
    }
    if (s.sending) {
        std::string names = QuotedNames(s.files);
        outcome.result = CLFileSend(port, s.protocol.number, names.data(), 0, 0, block, OnStatus,
                                    OnProgress);
    } else {
        std::string name;
        if (!s.files.empty())
            name = s.files[0].starts_with('/') ? s.files[0] : FolderText(s.folder) + s.files[0];
        outcome.result = CLFileReceive(port, s.protocol.number, name.data(), 0, block, OnStatus,
                                       OnProgress);
    }
    reporter.Finish();
    outcome.bytes = reporter.Bytes();
    outcome.seconds = reporter.Seconds();
    return outcome;
}

} // namespace zvxfer::cli
