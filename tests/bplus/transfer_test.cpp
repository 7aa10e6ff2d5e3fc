// The B+ terminal side against a scripted service: the exact bytes it puts
// on the line for requests, parameter exchanges, resumes and failures, and
// the files it reads and writes.  The service's packets come from the
// service's own framing code, not from the engine's sender.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "frames.h"
#include "locale/locale.h"
#include "status_log.h"
#include "system_files.h"
#include "temp_tree.h"
#include "test_host.h"

namespace zvxfer::test {
namespace {

using namespace zvxfer::bplus::test;
const wire::QuoteSet kAll = wire::QuoteSet::All();

// The service's first packet: the host has taken DLE 'B' off the line.
Bytes First(const Bytes &data) {
    const Bytes p = Packet(1, data);
    return Bytes(p.begin() + 2, p.end());
}
Bytes First(const std::string &data) {
    return First(B(data));
}

// A transport-parameters packet of `length` bytes: windows 1, the block
// size and check method given, quote level 1, no alternate sequence, the
// quote sets given, then download resume.
Bytes Params(std::size_t length, int block, int check, int downloadResume = 0,
             Bytes quotes = {0x14, 0, 0xD4, 0, 0, 0, 0, 0}) {
    Bytes p = Cat({{'+', 1, 1, static_cast<uint8_t>(block), static_cast<uint8_t>(check), 1, 0},
                   quotes,
                   {static_cast<uint8_t>(downloadResume), 0, 0}});
    p.resize(length);
    return p;
}
// Our answer with the engine's defaults: block 8, the check method asked
// for, quote level byte 1, the default quote set; sent quoting everything.
Bytes Ours(int seq, int check, int downloadResume = 0, int fileInfo = 0) {
    return Packet(seq,
                  Cat({{'+', 1, 1, 8, static_cast<uint8_t>(check), 1, 0},
                       {0x14, 0, 0xD4, 0, 0, 0, 0, 0},
                       {static_cast<uint8_t>(downloadResume), 0, static_cast<uint8_t>(fileInfo)}}),
                  0, kAll);
}
// The resume point a terminal sends for a partial file.
std::string Point(const std::string &partial, int method = 0) {
    return "Tr" + std::to_string(partial.size()) + " " +
           std::to_string(wire::ResumeCheckWord(
               method, reinterpret_cast<const uint8_t *>(partial.data()), partial.size())) +
           " ";
}

// Each step waits until the engine has written its trigger (after what the
// steps before matched), then puts its response on the line.
class Service {
  public:
    explicit Service(TestHost &host) : host_(host) {
        host_.OnRequest([this](TestHost &h, uintptr_t request) { Advance(h, request); });
    }
    ~Service() { host_.OnRequest(nullptr); }
    void On(Bytes trigger, Bytes response) {
        steps_.emplace_back(std::move(trigger), std::move(response));
    }
    std::size_t Pending() const { return steps_.size() - next_; }
    void Clear() {
        steps_.clear();
        next_ = matched_ = 0;
    }

  private:
    void Advance(TestHost &h, uintptr_t request) {
        if (request != PORT_READ) return;
        const Bytes written = h.Written();
        for (; next_ < steps_.size(); ++next_) {
            const auto &[trigger, response] = steps_[next_];
            const auto from =
                written.begin() + static_cast<long>(std::min(matched_, written.size()));
            const auto at = std::search(from, written.end(), trigger.begin(), trigger.end());
            if (at == written.end() && !trigger.empty()) return;
            matched_ = static_cast<std::size_t>(at - written.begin()) + trigger.size();
            h.Receive(response);
        }
    }
    TestHost &host_;
    std::vector<std::pair<Bytes, Bytes>> steps_;
    std::size_t next_ = 0, matched_ = 0;
};

// After a failure exchange the engine waits for the service without limit;
// this host stops it once the service has played its whole script.
Service *gScript = nullptr;
int32_t StopWhenScriptDone(XferRecord *) {
    return gScript != nullptr && gScript->Pending() == 0 ? XferErrUserAbort : 0;
}

class BPlusTransfer : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        host_.UseClock([this] { return clock_.Now(); });
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override {
        gScript = nullptr;
        port_->Ops.PortClose(port_);
    }
    void StopAfterScript() {
        gScript = &service_;
        port_->Hooks->AbortFunction = &StopWhenScriptDone;
    }
    // A fresh script and a clean record of what was written.
    void Restart() {
        host_.ClearWritten();
        StatusLines().clear();
        service_.Clear();
    }
    // One call with the given option words (the terminating 0 is added).
    template <typename... Words>
    int32_t Run(Words... words) {
        return CompuServeBPlusWithOptions(port_, CollectStatus, nullptr,
                                          static_cast<int32_t>(words)..., 0);
    }
    std::string File(const std::string &name) {
        std::ifstream in(tree_.Path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    Bytes Written() const { return host_.Written(); }

    FakeClock clock_{FakeClock::kSleepless};
    TempTree tree_;
    const std::string folder_ = tree_.Folder();
    TestHost host_;
    Service service_{host_};
    XferPort *port_ = nullptr;
};

// ASCII and binary requests are served alike, byte for byte: the request
// and each data packet are acknowledged, the file holds every control
// character that came, and a name longer than 63 bytes is cut.
TEST_F(BPlusTransfer, DownloadsOfBothFileTypes) {
    Bytes data{'N'};
    for (int i = 0; i < 256; ++i) data.push_back(static_cast<uint8_t>(i));
    const std::string name(70, 'n');
    for (const char *request : {"TDA", "TDB"}) {
        SCOPED_TRACE(request);
        Restart();
        host_.Receive(First(request + name));
        service_.On(Ack(1), Packet(2, data));
        service_.On(Ack(2), Packet(3, "TC"));
        EXPECT_EQ(Run(), 1);
        EXPECT_EQ(Written(), Cat({Ack(1), Ack(2), Ack(3)}));
        EXPECT_EQ(B(File(name.substr(0, 63))), Bytes(data.begin() + 1, data.end()));
        EXPECT_FALSE(std::filesystem::exists(tree_.Path(name)));
    }
}

// Requests the engine cannot serve get the failure packet 'N' (not
// acknowledged first) and a status line; the engine then reads on until
// its error count ends the call.
TEST_F(BPlusTransfer, UnservableRequestsAreRefused) {
    const struct {
        std::string request;
        int32_t message;
    } cases[] = {{"TDXfile", MsgBPlusBadFileType}, {"TXBfile", MsgBPlusBadDirection}, {"Qfoo", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request);
        Restart();
        host_.Receive(First(c.request));
        service_.On(Packet(2, "FN"), Ack(2));
        EXPECT_EQ(Run(), XferErrTooManyErrors);
        EXPECT_EQ(Head(Written(), 7), Packet(2, "FN"));
        EXPECT_TRUE(c.message == 0 || CountStatus(MessageText(c.message), 1) == 1);
        EXPECT_EQ(service_.Pending(), 0u);
    }
    EXPECT_FALSE(std::filesystem::exists(tree_.Path("file")));
}

// The service's failure packet is acknowledged and its text shown after
// the failure message; stray characters afterwards end the call.
TEST_F(BPlusTransfer, ServiceFailureIsShownWithItsText) {
    host_.Receive(First("TDBgone.bin"));
    service_.On(Ack(1), Cat({Packet(2, "N" + std::string(40, 'd')), Packet(3, "FI disk full"),
                             B("xxxxxxxxxx")}));
    EXPECT_EQ(Run(), XferErrTooManyErrors);
    EXPECT_EQ(Written(), Cat({Ack(1), Ack(2), Ack(3)}));
    const std::string shown = std::string(MessageText(MsgBPlusServiceFailure)) + "disk full";
    ASSERT_EQ(CountStatus(shown, 1), 1);
    for (const std::string &line : StatusLines())
        EXPECT_TRUE(line.find(shown) == std::string::npos || line.ends_with(shown)) << line;
}

// Short '+' packets are padded with zeros: of 7 bytes, resume and file
// information stay off whatever we offer; of 4 bytes, the check method is
// the checksum even when we ask for CRC.  Either way our answer is one
// exact packet, and what follows is checked with the checksum.
TEST_F(BPlusTransfer, ShortParameterPacketsArePadded) {
    for (const auto &[length, check] : {std::pair{7, 0}, std::pair{4, 1}}) {
        SCOPED_TRACE(length);
        Restart();
        host_.Receive(First(Params(length, 4, 1)));
        service_.On(Ours(2, check, 2, 1), Cat({Ack(2), Packet(3, "TDBshort.txt")}));
        // Resume off: the request is acknowledged at once, no 'T' 'r'.
        service_.On(Ack(3), Packet(4, "N\x01\x02"));
        service_.On(Ack(4), Packet(5, "TC"));
        EXPECT_EQ(Run(XferOptBPlusCheckMethod, check, XferOptBPlusResume, XferOptBPlusFileInfo), 1);
        EXPECT_EQ(Written(), Cat({Ours(2, check, 2, 1), Ack(3), Ack(4), Ack(5)}));
        EXPECT_EQ(File("short.txt"), "\x01\x02");
    }
}

// Each exchange starts from the values the last one left: a short packet
// after a full one still turns resume off, whatever the full one held.
TEST_F(BPlusTransfer, ALaterShortExchangeRenegotiatesFromTheCurrentValues) {
    host_.Receive(First(Params(18, 8, 0, 1)));
    service_.On(Ours(2, 0, 2), Cat({Ack(2), Packet(3, Params(7, 8, 0))}));
    service_.On(Ours(4, 0, 1), Cat({Ack(4), Packet(5, "TDBtwice.txt")}));
    service_.On(Ack(5), Packet(6, "TC"));
    tree_.File("twice.txt", "old");
    EXPECT_EQ(Run(XferOptBPlusResume), 1);
    EXPECT_EQ(Written(), Cat({Ours(2, 0, 2), Ours(4, 0, 1), Ack(5), Ack(6)}));
    EXPECT_EQ(File("twice.txt"), "") << "not resumed: the old file is replaced";
}

// Without option 1024 we offer the checksum, so a service offering CRC
// still gets checksum packets; an empty file goes as 'T' 'C' ' ' alone.
TEST_F(BPlusTransfer, ChecksumUnlessAskedOtherwise) {
    tree_.File("up.txt", "hi");
    tree_.File("empty.txt", "");
    host_.Receive(First(Params(18, 8, 1)));
    service_.On(Ours(2, 0), Cat({Ack(2), Packet(3, "TUB" + tree_.Path("up.txt"))}));
    service_.On(Packet(5, "TC "), Ack(5));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Written(), Cat({Ours(2, 0), Ack(3), Packet(4, "Nhi"), Packet(5, "TC ")}));
    Restart();
    host_.Receive(First("TUA" + tree_.Path("empty.txt")));
    service_.On(Packet(2, "TC "), Ack(2));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Written(), Cat({Ack(1), Packet(2, "TC ")}));
}

// With option 1024 = 1 and a service offering block size 4 and CRC-16:
// our '+' itself goes out with the checksum, then the upload uses packets
// of at most 513 data bytes with CRC and quotes what the service's quote
// set adds (0x0D and 0x91 here).
TEST_F(BPlusTransfer, NegotiatedBlockSizeCheckAndQuotesApplyAfterOurParameters) {
    std::string content(600, 'a');
    content[10] = '\r';
    content[20] = static_cast<char>(0x91);
    content[30] = '\x03';
    tree_.File("big.bin", content);
    host_.Receive(First(Params(18, 4, 1, 0, {0, 0x04, 0, 0, 0, 0, 0x40, 0})));
    wire::QuoteSet quotes = wire::QuoteSet::Default();
    quotes.Add(0x0D);
    quotes.Add(0x91);
    service_.On(Ours(2, 1), Cat({Ack(2), Packet(3, "TUB" + tree_.Path("big.bin"), 1, quotes)}));
    const Bytes done = Packet(6, "TC ", 1, quotes);
    service_.On(done, Ack(6));
    EXPECT_EQ(Run(XferOptBPlusCheckMethod, 1), 1);
    EXPECT_EQ(Written(),
              Cat({Ours(2, 1), Ack(3), Packet(4, "N" + content.substr(0, 512), 1, quotes),
                   Packet(5, "N" + content.substr(512), 1, quotes), done}));
}

// With download resume agreed, the request is answered with the resume
// point (the partial file's length and check word) and the data that
// follow are appended; 'T' 'f' makes the engine start the file afresh.
TEST_F(BPlusTransfer, ResumeSendsTheResumePointAndAppends) {
    const struct {
        int check;
        bool restart;
        const char *expected;
    } cases[] = {{0, false, "hello, world"}, {2, false, "hello, world"}, {1, true, ", world"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.check);
        Restart();
        tree_.File("part.txt", "hello");
        host_.Receive(First(Params(18, 8, c.check, 1)));
        service_.On(Ours(2, c.check, 2), Cat({Ack(2), Packet(3, "TDBpart.txt", c.check)}));
        const Bytes resume = Packet(4, Point("hello", c.check), c.check);
        service_.On(resume, Cat({Ack(4), Packet(5, c.restart ? "Tf" : "N", c.check)}));
        service_.On(Ack(5), Packet(6, "N, world", c.check));
        service_.On(Ack(6), Packet(7, "TC", c.check));
        EXPECT_EQ(Run(XferOptBPlusCheckMethod, c.check, XferOptBPlusResume), 1);
        EXPECT_EQ(Written(), Cat({Ours(2, c.check, 2), resume, Ack(5), Ack(6), Ack(7)}));
        EXPECT_EQ(File("part.txt"), c.expected);
    }
}

// A resumed file is continued beneath the receive folder only: a symlink
// in its place is not followed, and the request is refused.
TEST_F(BPlusTransfer, ResumeDoesNotFollowALink) {
    TempTree elsewhere;
    const std::string target = elsewhere.File("secret.txt", "keep");
    if (!zvxfer::test::MakeSymlink(target, tree_.Path("link.txt")))
        GTEST_SKIP() << "this system makes no symbolic links for this process";
    host_.Receive(First(Params(18, 8, 0, 1)));
    service_.On(Ours(2, 0, 2), Cat({Ack(2), Packet(3, "TDBlink.txt")}));
    service_.On(Packet(4, "FC"), Ack(4));
    StopAfterScript();
    EXPECT_EQ(Run(XferOptBPlusResume), XferErrUserAbort);
    EXPECT_EQ(CountStatus(MessageText(MsgNameTooLong), 1), 1);
    std::ifstream in(target);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "keep");
}

// A file to upload that cannot be opened: the request is acknowledged,
// then failure 'M' and its status line.
TEST_F(BPlusTransfer, MissingUploadIsReportedToTheService) {
    host_.Receive(First("TUB" + tree_.Path("none.txt")));
    service_.On(Packet(2, "FM"), Ack(2));
    StopAfterScript();
    EXPECT_EQ(Run(), XferErrUserAbort);
    EXPECT_EQ(Head(Written(), 11), Cat({Ack(1), Packet(2, "FM")}));
    EXPECT_EQ(CountStatus(MessageText(MsgBPlusCannotOpenToSend), 1), 1);
}

// The host's abort during a download sends failure 'A'; the abort stays
// the outcome even though the failure exchange ends on the error count.
TEST_F(BPlusTransfer, AbortDuringDownloadTellsTheService) {
    port_->Hooks->AbortFunction = [](XferRecord *r) {
        static int asked = 0; // the host answers once
        return r->FilePos > 0 && asked++ == 0 ? int32_t{XferErrUserAbort} : 0;
    };
    host_.Receive(First("TDBstop.bin"));
    service_.On(Ack(1), Packet(2, "Nabc"));
    service_.On(Packet(3, "FA"), Ack(3));
    EXPECT_EQ(Run(), XferErrUserAbort);
    port_->Hooks->AbortFunction = nullptr;
    EXPECT_EQ(Head(Written(), 13), Cat({Ack(1), Ack(2), Packet(3, "FA")}));
    EXPECT_EQ(CountStatus(MessageText(MsgTransferCancelled), 1), 1);
}

TEST_F(BPlusTransfer, RespondPutsItsAnswerOnTheLine) {
    for (const int32_t flag : {1, 0, 7}) {
        host_.ClearWritten();
        EXPECT_EQ(CompuServeBPlusRespond(port_, flag), port_->Status);
        EXPECT_EQ(Written(), flag ? (Bytes{DLE, '+', '+', DLE, '0'}) : (Bytes{DLE, '0'})) << flag;
    }
}

// Codes outside the entry's list are refused before anything is sent;
// option 1005 is taken.
TEST_F(BPlusTransfer, UnknownOptionIsRefusedBeforeAnything) {
    host_.Receive(First("TDBx"));
    EXPECT_EQ(Run(1012), PortInvalidParameter);
    EXPECT_EQ(Run(XferOptZmWindowSize, 1024), PortInvalidParameter);
    EXPECT_TRUE(Written().empty());
    service_.On(Ack(1), Packet(2, "TC"));
    EXPECT_EQ(Run(XferOptFullPath, XferOptNone), 1);
    EXPECT_EQ(File("x"), "");
}

// The generic receive entry runs B+ for protocol 5 with the block's options.
TEST_F(BPlusTransfer, GenericEntryRunsBPlus) {
    const int32_t list[] = {XferOptBPlusResume, 0};
    tree_.File("g.txt", "ab");
    host_.Receive(First(Params(18, 8, 0, 1)));
    service_.On(Ours(2, 0, 2), Cat({Ack(2), Packet(3, "TDBg.txt")}));
    service_.On(Packet(4, Point("ab")), Cat({Ack(4), Packet(5, "Nc")}));
    service_.On(Ack(5), Packet(6, "TC"));
    EXPECT_EQ(CLFileReceive(port_, CompuServeBPlus, nullptr, 0, CLSetFileTransferOptions(list),
                            CollectStatus, nullptr),
              1);
    EXPECT_EQ(File("g.txt"), "abc");
}

} // namespace
} // namespace zvxfer::test
