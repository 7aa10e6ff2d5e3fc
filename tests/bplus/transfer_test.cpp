// The B+ terminal side against a scripted service: the exact bytes it puts
// on the line for requests, parameter exchanges, resumes and failures, and
// the files it reads and writes.  The service's packets come from a small
// encoder of its own here, not from the engine's sender.
#include <gtest/gtest.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fake_clock.h"
#include "locale/locale.h"
#include "status_log.h"
#include "temp_tree.h"
#include "test_host.h"

namespace zvxfer::test {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t DLE = 0x10, ETX = 0x03, NAK = 0x15;

Bytes Str(const std::string &s) {
    return Bytes(s.begin(), s.end());
}
template <typename... Parts>
Bytes Cat(const Parts &...parts) {
    Bytes out;
    (out.insert(out.end(), parts.begin(), parts.end()), ...);
    return out;
}

// ---- the wire, written out independently -----------------------------------

// The control characters quoted before any parameters are exchanged.
const std::set<int> kDefaultQuotes = {0x03, 0x05, 0x10, 0x11, 0x13, 0x15};

struct Encoding {
    int method = 0;                        // 0 checksum, 1 CRC-16 CCITT
    bool quoteAll = false;                 // every control character quoted
    std::set<int> quotes = kDefaultQuotes; // else these
};

void PutQuoted(Bytes &out, uint8_t c, const Encoding &e) {
    if (c < 0x20 && (e.quoteAll || e.quotes.count(c))) {
        out.insert(out.end(), {DLE, static_cast<uint8_t>(c + 0x40)});
    } else if (c >= 0x80 && c <= 0x9F && (e.quoteAll || e.quotes.count(c))) {
        out.insert(out.end(), {DLE, static_cast<uint8_t>(c - 0x20)});
    } else {
        out.push_back(c);
    }
}

uint16_t Ccitt(uint16_t crc, uint8_t b) {
    crc ^= static_cast<uint16_t>(b << 8);
    for (int i = 0; i < 8; ++i)
        crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
    return crc;
}
uint16_t Ccitt(const Bytes &data, uint16_t crc = 0) {
    for (uint8_t b : data) crc = Ccitt(crc, b);
    return crc;
}

// A packet as either side puts it on the line.
Bytes Packet(int seq, const Bytes &data, const Encoding &e = {}) {
    Bytes covered = Cat(Bytes{static_cast<uint8_t>('0' + seq)}, data, Bytes{ETX});
    Bytes out{DLE, 'B', covered[0]};
    for (uint8_t b : data) PutQuoted(out, b, e);
    out.push_back(ETX);
    if (e.method == 0) {
        unsigned s = 0;
        for (uint8_t b : covered) {
            s <<= 1;
            if (s > 255) s = (s & 255) + 1;
            s += b;
            if (s > 255) s = (s & 255) + 1;
        }
        PutQuoted(out, static_cast<uint8_t>(s), e);
    } else {
        const uint16_t crc = Ccitt(covered, 0xFFFF);
        for (uint8_t b : {static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)}) {
            if (b < 0x20)
                PutQuoted(out, b, e);
            else
                out.push_back(b);
        }
    }
    return out;
}
Bytes Packet(int seq, const std::string &data, const Encoding &e = {}) {
    return Packet(seq, Str(data), e);
}
// The service's first packet: the host has taken DLE 'B' off the line.
Bytes First(int seq, const Bytes &data, const Encoding &e = {}) {
    Bytes p = Packet(seq, data, e);
    return Bytes(p.begin() + 2, p.end());
}
Bytes Ack(int seq) {
    return {DLE, static_cast<uint8_t>('0' + seq)};
}

// A transport-parameters packet of `length` bytes: windows 1, the block
// size and check method given, quote level 1, no alternate sequence, the
// quote sets given, then the resume and file-information bytes.
Bytes Params(std::size_t length, int block, int check, Bytes low = {0x14, 0, 0xD4, 0},
             Bytes high = {0, 0, 0, 0}, int downloadResume = 0) {
    Bytes p = Cat(Bytes{'+', 1, 1, static_cast<uint8_t>(block), static_cast<uint8_t>(check), 1, 0},
                  low, high, Bytes{static_cast<uint8_t>(downloadResume), 0, 0});
    p.resize(length);
    return p;
}
// What the engine answers with its defaults: block 8, the check method it
// asks for, quote level byte 1, the default quote set.
Bytes OwnParams(int check, int downloadResume = 0, int fileInfo = 0) {
    return Cat(Bytes{'+', 1, 1, 8, static_cast<uint8_t>(check), 1, 0},
               Bytes{0x14, 0, 0xD4, 0, 0, 0, 0, 0},
               Bytes{static_cast<uint8_t>(downloadResume), 0, static_cast<uint8_t>(fileInfo)});
}
const Encoding kQuoteAll{0, true, {}};

// ---- the scripted service ---------------------------------------------------

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

class BPlusTransfer : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        host_.UseClock([this] { return clock_.Now(); });
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

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

// ---- downloads ----------------------------------------------------------------

// ASCII and binary requests are served alike, byte for byte: the request is
// acknowledged, each data packet too, and the file holds what came, every
// control character included.
TEST_F(BPlusTransfer, DownloadsOfBothFileTypesAreIdentical) {
    Bytes data;
    for (int i = 0; i < 256; ++i) data.push_back(static_cast<uint8_t>(i));
    std::vector<Bytes> lines;
    for (char type : {'A', 'B'}) {
        SCOPED_TRACE(type);
        host_.ClearWritten();
        Service service(host_);
        host_.Receive(First(1, Str(std::string("TD") + type + "get.bin")));
        service.On(Ack(1), Packet(2, Cat(Str("N"), data)));
        service.On(Ack(2), Packet(3, "TC"));
        EXPECT_EQ(Run(), 1);
        EXPECT_EQ(Written(), Cat(Ack(1), Ack(2), Ack(3)));
        EXPECT_EQ(File("get.bin"), std::string(data.begin(), data.end()));
        lines.push_back(Written());
    }
    EXPECT_EQ(lines[0], lines[1]);
}

// A request names a file of at most 63 bytes; a longer name is cut.
TEST_F(BPlusTransfer, LongRequestNameIsCutTo63) {
    const std::string name(70, 'n');
    host_.Receive(First(1, Str("TDB" + name)));
    service_.On(Ack(1), Packet(2, "Nxyz"));
    service_.On(Ack(2), Packet(3, "TC"));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(File(name.substr(0, 63)), "xyz");
    EXPECT_FALSE(std::filesystem::exists(tree_.Path(name)));
}

// Requests the engine cannot serve get the failure packet 'N' (not
// acknowledged first), a status line, and the call ends on its own once the
// service has nothing more to say.
TEST_F(BPlusTransfer, UnservableRequestsAreRefused) {
    const struct {
        std::string request;
        int32_t message;
    } cases[] = {{"TDXfile", MsgBPlusBadFileType}, {"TXBfile", MsgBPlusBadDirection}, {"Qfoo", 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request);
        StatusLines().clear();
        host_.ClearWritten();
        Service service(host_);
        host_.Receive(First(1, Str(c.request)));
        service.On(Packet(2, "FN"), Ack(2));
        EXPECT_EQ(Run(), XferErrTooManyErrors);
        const Bytes w = Written();
        const Bytes refusal = Packet(2, "FN");
        ASSERT_GE(w.size(), refusal.size());
        EXPECT_EQ(Bytes(w.begin(), w.begin() + static_cast<long>(refusal.size())), refusal);
        if (c.message != 0) {
            EXPECT_EQ(CountStatus(MessageText(c.message), 1), 1);
        }
        EXPECT_EQ(service.Pending(), 0u);
    }
    EXPECT_FALSE(std::filesystem::exists(tree_.Path("file")));
}

// The service's failure packet is acknowledged and its text shown after
// message 28267; stray characters afterwards end the call.
TEST_F(BPlusTransfer, ServiceFailureIsShownWithItsText) {
    host_.Receive(First(1, Str("TDBgone.bin")));
    service_.On(Ack(1), Cat(Packet(2, "N" + std::string(40, 'd')), Packet(3, "FI disk full"),
                            Str("xxxxxxxxxx")));
    EXPECT_EQ(Run(), XferErrTooManyErrors);
    EXPECT_EQ(Written(), Cat(Ack(1), Ack(2), Ack(3)));
    const std::string shown = std::string(MessageText(MsgBPlusServiceFailure)) + "disk full";
    ASSERT_EQ(CountStatus(shown, 1), 1);
    for (const std::string &line : StatusLines()) {
        if (line.find(shown) != std::string::npos) {
            EXPECT_TRUE(line.ends_with(shown)) << line;
        }
    }
}

// ---- parameter exchanges --------------------------------------------------

// Short '+' packets are padded with zeros: of 7 bytes, resume and file
// information stay off whatever we offer; of 4 bytes, the check method is
// the checksum even when we ask for CRC.  Either way our answer (quote
// level byte 1, every control character quoted, checksum) is one exact
// packet, and what follows is checked with the checksum.
TEST_F(BPlusTransfer, ShortParameterPacketsArePadded) {
    const struct {
        const char *name;
        std::size_t length;
        int check; // what we ask for
        Bytes answer;
    } cases[] = {
        {"7 bytes", 7, 0, OwnParams(0, 2, 1)},
        {"4 bytes", 4, 1, OwnParams(1, 2, 1)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        host_.ClearWritten();
        Service service(host_);
        host_.Receive(First(1, Params(c.length, 4, 1)));
        service.On(Packet(2, c.answer, kQuoteAll), Cat(Ack(2), Packet(3, "TDBshort.txt")));
        // Resume off: the request is acknowledged at once, no 'T' 'r'.
        service.On(Ack(3), Packet(4, "N\x01\x02"));
        service.On(Ack(4), Packet(5, "TC"));
        EXPECT_EQ(Run(XferOptBPlusCheckMethod, c.check, XferOptBPlusResume, XferOptBPlusFileInfo),
                  1);
        EXPECT_EQ(Written(), Cat(Packet(2, c.answer, kQuoteAll), Ack(3), Ack(4), Ack(5)));
        EXPECT_EQ(File("short.txt"), "\x01\x02");
    }
}

// Each exchange starts from the values the last one left: a short packet
// after a full one still turns resume off, whatever the full one held.
TEST_F(BPlusTransfer, ALaterShortExchangeRenegotiatesFromTheCurrentValues) {
    host_.Receive(First(1, Params(18, 8, 0, {0x14, 0, 0xD4, 0}, {0, 0, 0, 0}, 1)));
    const Bytes first = Packet(2, OwnParams(0, 2), kQuoteAll);
    const Bytes second = Packet(4, OwnParams(0, 1), kQuoteAll); // resume agreed at 1 so far
    service_.On(first, Cat(Ack(2), Packet(3, Params(7, 8, 0))));
    service_.On(second, Cat(Ack(4), Packet(5, "TDBtwice.txt")));
    service_.On(Ack(5), Packet(6, "TC"));
    tree_.File("twice.txt", "old");
    EXPECT_EQ(Run(XferOptBPlusResume), 1);
    EXPECT_EQ(Written(), Cat(first, second, Ack(5), Ack(6)));
    EXPECT_EQ(File("twice.txt"), "") << "not resumed: the old file is replaced";
}

// Without option 1024 we offer the checksum, so a service offering CRC
// still gets checksum packets.
TEST_F(BPlusTransfer, ChecksumUnlessAskedOtherwise) {
    host_.Receive(First(1, Params(18, 8, 1)));
    service_.On(Packet(2, OwnParams(0), kQuoteAll),
                Cat(Ack(2), Packet(3, "TUB" + tree_.Path("up.txt"))));
    service_.On(Ack(3), Bytes{});
    tree_.File("up.txt", "hi");
    service_.On(Packet(5, "TC "), Ack(5));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Written(),
              Cat(Packet(2, OwnParams(0), kQuoteAll), Ack(3), Packet(4, "Nhi"), Packet(5, "TC ")));
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
    host_.Receive(First(1, Params(18, 4, 1, {0, 0x04, 0, 0}, {0, 0, 0x40, 0})));
    const Bytes ours = Packet(2, OwnParams(1), kQuoteAll); // checksum
    Encoding crc{1, false, kDefaultQuotes};
    crc.quotes.insert({0x0D, 0x91});
    service_.On(ours, Cat(Ack(2), Packet(3, "TUB" + tree_.Path("big.bin"), crc)));
    const Bytes n1 = Packet(4, Cat(Str("N"), Str(content.substr(0, 512))), crc);
    const Bytes n2 = Packet(5, Cat(Str("N"), Str(content.substr(512))), crc);
    const Bytes done = Packet(6, "TC ", crc);
    service_.On(done, Ack(6));
    EXPECT_EQ(Run(XferOptBPlusCheckMethod, 1), 1);
    EXPECT_EQ(Written(), Cat(ours, Ack(3), n1, n2, done));
}

// An empty file is uploaded as the transfer-complete packet alone.
TEST_F(BPlusTransfer, EmptyUploadSendsOnlyTransferComplete) {
    tree_.File("empty.txt", "");
    host_.Receive(First(1, Str("TUA" + tree_.Path("empty.txt"))));
    service_.On(Packet(2, "TC "), Ack(2));
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(Written(), Cat(Ack(1), Packet(2, "TC ")));
}

// ---- resume ---------------------------------------------------------------------

// With download resume agreed, the request is answered with the resume
// point: the partial file's length and its CRC-16 CCITT from 0, whichever
// check the link uses; the data that follow are appended.  'T' 'f' makes
// the engine start the file afresh.
TEST_F(BPlusTransfer, ResumeSendsTheResumePointAndAppends) {
    const struct {
        const char *name;
        int check;
        bool restart;
        const char *expected;
    } cases[] = {
        {"checksum", 0, false, "hello, world"},
        {"crc", 1, false, "hello, world"},
        {"restarted", 1, true, ", world"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        host_.ClearWritten();
        tree_.File("part.txt", "hello");
        Service service(host_);
        const Encoding e{c.check, false, kDefaultQuotes};
        host_.Receive(First(1, Params(18, 8, c.check, {0x14, 0, 0xD4, 0}, {0, 0, 0, 0}, 1)));
        const Bytes ours = Packet(2, OwnParams(c.check, 2), kQuoteAll);
        service.On(ours, Cat(Ack(2), Packet(3, "TDBpart.txt", e)));
        const std::string point = "Tr5 " + std::to_string(Ccitt(Str("hello"))) + " ";
        const Bytes resume = Packet(4, point, e);
        service.On(resume, Cat(Ack(4), c.restart ? Packet(5, "Tf", e) : Packet(5, "N", e)));
        service.On(Ack(5), Packet(6, "N, world", e));
        service.On(Ack(6), Packet(7, "TC", e));
        EXPECT_EQ(Run(XferOptBPlusCheckMethod, c.check, XferOptBPlusResume), 1);
        EXPECT_EQ(Written(), Cat(ours, resume, Ack(5), Ack(6), Ack(7)));
        EXPECT_EQ(File("part.txt"), c.expected);
    }
}

// A resumed file is continued beneath the receive folder only: a symlink
// in its place is not followed, and the request is refused.
TEST_F(BPlusTransfer, ResumeDoesNotFollowALink) {
    TempTree elsewhere;
    const std::string target = elsewhere.File("secret.txt", "keep");
    std::filesystem::create_symlink(target, tree_.Path("link.txt"));
    host_.Receive(First(1, Params(18, 8, 0, {0x14, 0, 0xD4, 0}, {0, 0, 0, 0}, 1)));
    service_.On(Packet(2, OwnParams(0, 2), kQuoteAll), Cat(Ack(2), Packet(3, "TDBlink.txt")));
    service_.On(Packet(4, "FC"), Ack(4));
    EXPECT_EQ(Run(XferOptBPlusResume), XferErrTooManyErrors);
    EXPECT_EQ(CountStatus(MessageText(MsgNameTooLong), 1), 1);
    std::ifstream in(target);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "keep");
}

// ---- failures and aborts ------------------------------------------------------

// A file to upload that cannot be opened: the request is acknowledged, then
// failure 'M' and its status line.
TEST_F(BPlusTransfer, MissingUploadIsReportedToTheService) {
    host_.Receive(First(1, Str("TUB" + tree_.Path("none.txt"))));
    service_.On(Packet(2, "FM"), Ack(2));
    EXPECT_EQ(Run(), XferErrTooManyErrors);
    const Bytes expected = Cat(Ack(1), Packet(2, "FM"));
    const Bytes w = Written();
    ASSERT_GE(w.size(), expected.size());
    EXPECT_EQ(Bytes(w.begin(), w.begin() + static_cast<long>(expected.size())), expected);
    EXPECT_EQ(CountStatus(MessageText(MsgBPlusCannotOpenToSend), 1), 1);
}

int32_t AbortOnceDataCame(XferRecord *r) {
    return r->FilePos > 0 ? XferErrUserAbort : 0;
}

// The host's abort during a download sends failure 'A'; the call ends with
// the abort code.
TEST_F(BPlusTransfer, AbortDuringDownloadTellsTheService) {
    port_->Hooks->AbortFunction = &AbortOnceDataCame;
    host_.Receive(First(1, Str("TDBstop.bin")));
    service_.On(Ack(1), Packet(2, "Nabc"));
    service_.On(Packet(3, "FA"), Ack(3));
    EXPECT_EQ(Run(), XferErrUserAbort);
    port_->Hooks->AbortFunction = nullptr;
    const Bytes expected = Cat(Ack(1), Ack(2), Packet(3, "FA"));
    const Bytes w = Written();
    ASSERT_GE(w.size(), expected.size());
    EXPECT_EQ(Bytes(w.begin(), w.begin() + static_cast<long>(expected.size())), expected);
    EXPECT_EQ(CountStatus(MessageText(MsgTransferCancelled), 1), 1);
}

// ---- entries ------------------------------------------------------------------

TEST_F(BPlusTransfer, RespondPutsItsAnswerOnTheLine) {
    const struct {
        int32_t flag;
        Bytes expected;
    } cases[] = {{1, {DLE, '+', '+', DLE, '0'}}, {0, {DLE, '0'}}, {7, {DLE, '+', '+', DLE, '0'}}};
    for (const auto &c : cases) {
        host_.ClearWritten();
        EXPECT_EQ(CompuServeBPlusRespond(port_, c.flag), port_->Status);
        EXPECT_EQ(Written(), c.expected) << c.flag;
    }
}

// Codes outside the entry's list are refused before anything is sent;
// option 1005 is taken.
TEST_F(BPlusTransfer, UnknownOptionIsRefusedBeforeAnything) {
    host_.Receive(First(1, Str("TDBx")));
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
    host_.Receive(First(1, Params(18, 8, 0, {0x14, 0, 0xD4, 0}, {0, 0, 0, 0}, 1)));
    service_.On(Packet(2, OwnParams(0, 2), kQuoteAll), Cat(Ack(2), Packet(3, "TDBg.txt")));
    const Bytes resume = Packet(4, "Tr2 " + std::to_string(Ccitt(Str("ab"))) + " ");
    service_.On(resume, Cat(Ack(4), Packet(5, "Nc")));
    service_.On(Ack(5), Packet(6, "TC"));
    EXPECT_EQ(CLFileReceive(port_, CompuServeBPlus, nullptr, 0, CLSetFileTransferOptions(list),
                            CollectStatus, nullptr),
              1);
    EXPECT_EQ(File("g.txt"), "abc");
}

} // namespace
} // namespace zvxfer::test
