// The B+ service on its own: its checks against the catalogue values, its
// framing and quoting as exact bytes, and whole requests against a small
// scripted terminal kept here (the greeting, ENQ and NAK answers, resume
// points, uploads, and each misbehaviour option doing what it says); then
// sessions with the library's engine.
#include <algorithm>
#include <array>
#include <deque>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

#include "bplus_service.h"
#include "link_pair.h"
#include "temp_tree.h"

namespace zvxfer::host {
namespace {

using namespace bplus_wire;
using Bytes = std::vector<uint8_t>;

Bytes B(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

// ---------------------------------------------------------------- checks

TEST(BPlusServiceChecks, CatalogueValuesCarryAndResumeWords) {
    const Bytes text = B("123456789");
    uint16_t ccitt = 0xFFFF, x25 = 0xFFFF;
    for (uint8_t c : text) ccitt = Crc16CcittUpdate(ccitt, c), x25 = X25Update(x25, c);
    EXPECT_EQ(ccitt, 0x29B1);
    EXPECT_EQ(x25 ^ 0xFFFF, 0x906E);
    EXPECT_EQ(Crc32Of(text.data(), text.size()), 0xCBF43926u);
    // The checksum doubles, then adds, folding each carry back in.
    const struct {
        Bytes in;
        uint8_t sum;
    } sums[] = {{{0x80, 0x00}, 0x01}, {{0xFF, 0xFF}, 0xFF}, {{0x90, 0x90}, 0xB1}};
    for (const auto &c : sums) {
        uint8_t s = 0;
        for (uint8_t b : c.in) s = ChecksumUpdate(s, b);
        EXPECT_EQ(s, c.sum) << testing::PrintToString(c.in);
    }
    // The resume word: CRC-16 CCITT from 0 (the XMODEM value), X.25 from
    // 0xF0B8 for method 2.
    EXPECT_EQ(ResumeCheckWord(1, text.data(), text.size()), 0x31C3);
    EXPECT_EQ(ResumeCheckWord(3, text.data(), text.size()), 0x31C3);
    uint16_t x = 0xF0B8;
    for (uint8_t b : text) x = X25Update(x, b);
    EXPECT_EQ(ResumeCheckWord(2, text.data(), text.size()), x);
    EXPECT_EQ(ResumeCheckWord(2, text.data(), 0), 0xF0B8);
}

// --------------------------------------------------------------- framing

// Undo the quoting of a framed packet's bytes after DLE 'B': sequence
// character, data, ETX and the check bytes, as the receiver reads them.
struct Unframed {
    int seq = -1;
    Bytes data;
    Bytes check;
};

Unframed Unframe(const Bytes &frame, int method) {
    Unframed u;
    std::size_t i = 2;
    u.seq = frame.at(i++) - '0';
    auto next = [&] {
        uint8_t c = frame.at(i++);
        if (c != kDle) return static_cast<int>(c);
        int q = frame.at(i++);
        if (q >= 0x60) q += 0x80;
        return (q & 0x9F) | 0x100; // marked: an ETX read this way is data
    };
    for (;;) {
        const int c = next();
        if (c == kEtx) break;
        u.data.push_back(static_cast<uint8_t>(c & 0xFF));
    }
    const int n = method == 0 ? 1 : method == 3 ? 4 : 2;
    for (int k = 0; k < n; ++k) u.check.push_back(static_cast<uint8_t>(next() & 0xFF));
    EXPECT_EQ(i, frame.size());
    return u;
}

// True when the check bytes fit the sequence character and data.
bool CheckHolds(const Unframed &u, int method) {
    Bytes fed{static_cast<uint8_t>('0' + u.seq)};
    fed.insert(fed.end(), u.data.begin(), u.data.end());
    fed.push_back(kEtx);
    if (method == 0) {
        uint8_t s = 0;
        for (uint8_t b : fed) s = ChecksumUpdate(s, b);
        return u.check[0] == s;
    }
    fed.insert(fed.end(), u.check.begin(), u.check.end());
    uint16_t c16 = 0xFFFF;
    uint32_t c32 = 0xFFFFFFFFu;
    for (uint8_t b : fed) {
        c16 = method == 2 ? X25Update(c16, b) : Crc16CcittUpdate(c16, b);
        c32 = Crc32Update(c32, b);
    }
    return method == 1 ? c16 == 0 : method == 2 ? c16 == 0xF0B8 : c32 == 0xDEBB20E3u;
}

TEST(BPlusServiceFraming, ExactBytesPerMethod) {
    // '1' 'N' 0x03 ETX is checked; the data byte 0x03 travels as DLE 'C'.
    // CRC-16/CCITT-FALSE of 31 4E 03 03 is 0xBD01 (high byte first); X-25
    // is 0xA209 after its final complement (low byte first); CRC-32 is
    // 0xA1F3E26B (least significant byte first); the checksum runs 0x31,
    // 0xB0, 0x64, 0xCB.  Check bytes from 0x20 up go as they are, those
    // below only quoted when the set says so (0x01, 0x09 are not).
    struct Case {
        int method;
        Bytes check; // as on the wire
    };
    const Case cases[] = {
        {0, {0xCB}},
        {1, {0xBD, 0x01}},
        {2, {0x09, 0xA2}},
        {3, {0x6B, 0xE2, 0xF3, 0xA1}},
    };
    for (const Case &c : cases) {
        Bytes expected{kDle, 'B', '1', 'N', kDle, 'C', kEtx};
        expected.insert(expected.end(), c.check.begin(), c.check.end());
        EXPECT_EQ(FramePacket(1, {'N', 0x03}, c.method, QuoteSet::Default()), expected)
            << "method " << c.method;
    }
    // CRC-32 of 32 4E 45 03 is 0x1565A506: its 0x15 goes out as DLE 'U'.
    EXPECT_EQ(FramePacket(2, {'N', 'E'}, 3, QuoteSet::Default()),
              (Bytes{kDle, 'B', '2', 'N', 'E', kEtx, 0x06, 0xA5, 0x65, kDle, 'U'}));
}

TEST(BPlusServiceFraming, QuotingSets) {
    // A quoted byte below 0x20 goes as DLE and the byte + 0x40, one of
    // 0x80..0x9F as DLE and the byte - 0x20.
    const struct {
        uint8_t c;
        Bytes byDefault, byAll;
    } cases[] = {
        {0x15, {kDle, 'U'}, {kDle, 'U'}}, {0x0D, {0x0D}, {kDle, 0x4D}},
        {0x91, {0x91}, {kDle, 0x71}},     {0x41, {0x41}, {0x41}},
        {0xA0, {0xA0}, {0xA0}},
    };
    for (const auto &c : cases) {
        for (bool all : {false, true}) {
            const Bytes frame =
                FramePacket(0, {'N', c.c}, 1, all ? QuoteSet::All() : QuoteSet::Default());
            std::size_t end = 4; // after 'N', up to the ETX that ends the data
            while (frame.at(end) != kEtx) end += frame[end] == kDle ? 2 : 1;
            const Bytes body(frame.begin() + 4, frame.begin() + static_cast<long>(end));
            EXPECT_EQ(body, all ? c.byAll : c.byDefault) << std::hex << int(c.c) << " all " << all;
        }
    }
    EXPECT_EQ(QuoteSet::Default().bits, (std::array<uint8_t, 8>{0x14, 0, 0xD4, 0, 0, 0, 0, 0}));
}

// ----------------------------------------------------- a scripted terminal

// Just enough of a terminal to drive the service: it answers ENQ, takes
// the '+' exchange, acknowledges what it accepts, NAKs bad or out-of-order
// packets, and sends packets of its own.  Reading an empty line is an
// instant time-out, so nothing waits on the clock.
class FakeTerminal : public ServiceLine {
  public:
    struct Options {
        int checkMethod = 1;            // offered in its '+'
        int blockSize = 8;              // offered
        int downloadResume = 0;         // offered
        int fileInfo = 0;               // offered
        bool answerEnq = true;          // DLE '+' '+' DLE '0' to a lone ENQ outside a session
        bool bplus = true;              // greeting: with or without '+' '+'
        std::string resumeText;         // non-empty: the 'T' 'r' text sent for a download
        Bytes upload;                   // the file sent for an upload
        bool silent = false;            // answers nothing at all
        bool nakFirstData = false;      // NAK the first data packet once, though it is good
        int enqsBeforeAck = 0;          // ENQs sent before acknowledging a download request
        bool repeatFirstUpload = false; // the first upload packet goes twice
    };
    explicit FakeTerminal(Options o) : o_(std::move(o)) {}

    int Read(int) override {
        React();
        if (input_.empty()) {
            ++timeouts;
            return kTimeout;
        }
        const uint8_t b = input_.front();
        input_.pop_front();
        return b;
    }
    bool Write(const uint8_t *data, std::size_t length) override {
        written.insert(written.end(), data, data + length);
        pending_.insert(pending_.end(), data, data + length);
        return true;
    }

    Bytes written;               // everything the service wrote
    std::vector<Bytes> accepted; // packets taken, in order
    Bytes received;              // the data of the download
    int naksSent = 0;
    int enqsSeen = 0;
    int repeats = 0;
    int badChecks = 0;
    int timeouts = 0;
    bool restarted = false;
    bool done = false;

  private:
    void Send(const Bytes &b) { input_.insert(input_.end(), b.begin(), b.end()); }
    void Ack() { Send({kDle, static_cast<uint8_t>('0' + counter_)}); }
    void SendPacket(const Bytes &data) {
        counter_ = (counter_ + 1) % 10;
        Send(FramePacket(counter_, data, method_, QuoteSet::Default()));
    }

    // Work through what the service wrote since the last look.
    void React() {
        if (o_.silent) {
            pending_.clear();
            return;
        }
        while (!pending_.empty()) {
            const uint8_t b = pending_.front();
            if (b == kEnq) {
                pending_.pop_front();
                ++enqsSeen;
                if (!inSession_) {
                    if (o_.answerEnq && o_.bplus) Send({kDle, '+', '+'});
                    if (o_.answerEnq) Send({kDle, '0'});
                } else {
                    Ack();
                }
                continue;
            }
            if (b == kNak) {
                pending_.pop_front();
                continue;
            }
            if (b != kDle) {
                pending_.pop_front();
                continue;
            }
            if (pending_.size() < 2) return;
            if (pending_[1] != 'B') {
                if (pending_[1] >= '0' && pending_[1] <= '9') {
                    OnAck(pending_[1] - '0');
                }
                pending_.erase(pending_.begin(), pending_.begin() + 2);
                continue;
            }
            std::size_t end = 0;
            if (!FrameLength(end)) return;
            const Bytes frame(pending_.begin(), pending_.begin() + static_cast<long>(end));
            pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(end));
            OnFrame(frame);
        }
    }

    // The length of the complete frame at the front, if it is all there.
    bool FrameLength(std::size_t &end) const {
        std::size_t i = 3;
        while (i < pending_.size() && pending_[i] != kEtx) i += pending_[i] == kDle ? 2 : 1;
        if (i >= pending_.size()) return false;
        ++i;
        const int n = method_ == 0 ? 1 : method_ == 3 ? 4 : 2;
        for (int k = 0; k < n; ++k) {
            if (i >= pending_.size()) return false;
            i += pending_[i] == kDle ? 2 : 1;
        }
        if (i > pending_.size()) return false;
        end = i;
        return true;
    }

    void OnAck(int digit) {
        if (awaitingPlusAck_ && digit == counter_) {
            awaitingPlusAck_ = false;
            method_ = negotiatedMethod_;
            StartUpload();
        }
    }

    void OnFrame(const Bytes &frame) {
        inSession_ = true;
        Unframed u = Unframe(frame, method_);
        if (!CheckHolds(u, method_)) {
            ++badChecks, ++naksSent;
            Send({kNak});
            return;
        }
        const bool failure = u.data[0] == 'F';
        if (u.seq == counter_ && !failure) {
            ++repeats;
            Ack();
            return;
        }
        if (u.seq != (counter_ + 1) % 10 && !failure) {
            ++naksSent;
            Send({kNak});
            return;
        }
        if (o_.nakFirstData && u.data[0] == 'N' && !nakedOnce_) {
            nakedOnce_ = true;
            ++naksSent;
            Send({kNak});
            return;
        }
        counter_ = u.seq;
        accepted.push_back(u.data);
        const Bytes &d = u.data;
        if (d[0] == '+') {
            // Answer with our own parameters, checksum and all quoted, as a
            // terminal does; switch once the service acknowledges them.
            Bytes own(18, 0);
            own[0] = '+', own[1] = 1, own[2] = 1, own[3] = static_cast<uint8_t>(o_.blockSize);
            own[4] = static_cast<uint8_t>(o_.checkMethod);
            own[7] = 0x14, own[9] = 0xD4;
            own[15] = static_cast<uint8_t>(o_.downloadResume);
            own[17] = static_cast<uint8_t>(o_.fileInfo);
            Bytes theirs = d;
            theirs.resize(18, 0);
            negotiatedMethod_ = std::min<int>(static_cast<int8_t>(theirs[4]), o_.checkMethod);
            resume_ = std::min<int>(static_cast<int8_t>(theirs[15]), o_.downloadResume);
            SendPacket(own);
            awaitingPlusAck_ = true;
        } else if (d[0] == 'T' && d[1] == 'D') {
            if (resume_ != 0 && !o_.resumeText.empty()) {
                Bytes r{'T', 'r'};
                r.insert(r.end(), o_.resumeText.begin(), o_.resumeText.end());
                SendPacket(r);
            } else {
                for (int i = 0; i < o_.enqsBeforeAck; ++i) Send({kEnq});
                Ack();
            }
        } else if (d[0] == 'T' && d[1] == 'U') {
            Ack();
            uploading_ = true;
            StartUpload();
        } else if (d[0] == 'N') {
            received.insert(received.end(), d.begin() + 1, d.end());
            Ack();
        } else if (d[0] == 'T' && d[1] == 'f') {
            restarted = true;
            received.clear();
            Ack();
        } else if (d[0] == 'T' && d[1] == 'C') {
            done = true;
            Ack();
        } else {
            Ack();
        }
    }

    void StartUpload() {
        if (!uploading_ || uploadStarted_) return;
        uploadStarted_ = true;
        for (std::size_t at = 0; at < o_.upload.size(); at += 100) {
            const std::size_t n = std::min<std::size_t>(100, o_.upload.size() - at);
            Bytes p(n + 1, 'N');
            std::copy_n(o_.upload.begin() + static_cast<long>(at), n, p.begin() + 1);
            SendPacket(p);
            if (at == 0 && o_.repeatFirstUpload)
                Send(FramePacket(counter_, p, method_, QuoteSet::Default()));
        }
        SendPacket({'T', 'C', ' '});
    }

    Options o_;
    std::deque<uint8_t> pending_;
    std::deque<uint8_t> input_;
    int counter_ = 0;
    int method_ = 0;
    int negotiatedMethod_ = 0;
    int resume_ = 0;
    bool inSession_ = false;
    bool awaitingPlusAck_ = false;
    bool uploading_ = false;
    bool uploadStarted_ = false;
    bool nakedOnce_ = false;
};

ServiceRequest Down(const std::string &path) {
    ServiceRequest r;
    r.path = path;
    return r;
}

ServiceRequest Up(const std::string &name) {
    ServiceRequest r;
    r.kind = ServiceRequest::Upload;
    r.path = name;
    return r;
}

Bytes Pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 7 + i / 251) & 0xFF);
    return b;
}

struct Fixture {
    test::TempTree tree;
    std::string File(const std::string &name, const Bytes &content) {
        return tree.File(name, std::string(content.begin(), content.end()));
    }
};

BPlusServiceConfig QuickConfig() {
    BPlusServiceConfig c;
    c.readTimeoutMs = 1000; // never reached: the fake line times out at once
    return c;
}

// ------------------------------------------------------------- greeting

TEST(BPlusServiceGreeting, Answers) {
    struct Case {
        const char *name;
        FakeTerminal::Options o;
        bool greeted;
        int enqs;
    };
    FakeTerminal::Options bplus, plain, mute;
    plain.bplus = false;
    mute.answerEnq = false;
    const Case cases[] = {{"B+ terminal", bplus, true, 1},
                          {"terminal without B+", plain, false, 1},
                          {"no answer: three ENQs", mute, false, 3}};
    for (const Case &c : cases) {
        FakeTerminal t(c.o);
        BPlusService service(t, QuickConfig());
        EXPECT_EQ(service.Greet(), c.greeted) << c.name;
        EXPECT_EQ(std::count(t.written.begin(), t.written.end(), kEnq), c.enqs) << c.name;
    }
}

// ------------------------------------------------------------- requests

TEST(BPlusServiceRequests, DownloadPerCheckMethod) {
    for (int method = 0; method < 4; ++method) {
        Fixture f;
        const Bytes content = Pattern(3000);
        FakeTerminal::Options o;
        o.checkMethod = method;
        FakeTerminal t(o);
        BPlusServiceConfig config = QuickConfig();
        config.checkMethod = 3;
        BPlusService service(t, config);
        const auto reports = service.Run({Down(f.File("a.bin", content))});
        ASSERT_EQ(reports.size(), 1u);
        const RequestReport &r = reports[0];
        EXPECT_TRUE(r.ok) << "method " << method << ": " << r.why;
        EXPECT_EQ(r.checkMethod, method);
        EXPECT_EQ(r.bytes, content.size());
        EXPECT_EQ(r.crc32, Crc32Of(content.data(), content.size()));
        EXPECT_EQ(t.received, content) << "method " << method;
        EXPECT_TRUE(t.done);
        EXPECT_EQ(t.badChecks, 0);
        // '+', 'T' 'D' "a.bin", 1025 + 1025 + 950 data, 'T' 'C'.
        ASSERT_EQ(t.accepted.size(), 6u);
        EXPECT_EQ(t.accepted[1], B("TDBa.bin"));
        EXPECT_EQ(t.accepted[2].size(), 1025u);
        EXPECT_EQ(t.accepted[5], B("TC"));
    }
}

TEST(BPlusServiceRequests, ParametersPacketOffersTheConfiguration) {
    Fixture f;
    FakeTerminal t({});
    BPlusServiceConfig config = QuickConfig();
    config.sendWindow = 2, config.receiveWindow = 3, config.blockSize = 4, config.checkMethod = 2;
    config.downloadResume = 1, config.fileInfo = 1;
    BPlusService service(t, config);
    const auto reports = service.Run({Down(f.File("x", B("hello")))});
    ASSERT_TRUE(reports[0].ok) << reports[0].why;
    EXPECT_EQ(t.accepted[0], (Bytes{'+', 2, 3, 4, 2, 0, 0, 0x14, 0, 0xD4, 0, 0, 0, 0, 0, 1, 0, 1}));
    // The terminal offered no resume and no file information: neither is used.
    EXPECT_EQ(t.accepted[1], B("TDBx"));
    EXPECT_EQ(t.accepted[2], B("Nhello"));
}

TEST(BPlusServiceRequests, SmallBlocksAndFileInformation) {
    Fixture f;
    const Bytes content = Pattern(600);
    FakeTerminal::Options o;
    o.blockSize = 2, o.fileInfo = 1;
    FakeTerminal t(o);
    BPlusServiceConfig config = QuickConfig();
    config.fileInfo = 1;
    BPlusService service(t, config);
    const auto r =
        service.Run({{ServiceRequest::Download, f.File("sz", content), "remote.txt", 'A'}});
    ASSERT_TRUE(r[0].ok) << r[0].why;
    EXPECT_EQ(t.accepted[1], B("TDAremote.txt"));
    EXPECT_EQ(t.accepted[2], B("TIremote.txt 600"));
    EXPECT_EQ(t.accepted[3].size(), 257u); // 2 x 128 + 1
    EXPECT_EQ(t.received, content);
}

TEST(BPlusServiceRequests, ResumePoints) {
    const Bytes content = Pattern(2000);
    const uint16_t word500 = ResumeCheckWord(1, content.data(), 500);
    struct Case {
        const char *name;
        std::string text;
        bool restarted;
        uint64_t bytes;
    };
    const Case cases[] = {
        {"matching word", "500 " + std::to_string(word500) + " ", false, 1500},
        {"wrong word", "500 " + std::to_string(word500 ^ 1) + " ", true, 2000},
        {"point past the end", "2001 0 ", true, 2000},
        {"whole file", "2000 " + std::to_string(ResumeCheckWord(1, content.data(), 2000)) + " ",
         false, 0},
    };
    for (const Case &c : cases) {
        Fixture f;
        FakeTerminal::Options o;
        o.downloadResume = 2, o.resumeText = c.text;
        FakeTerminal t(o);
        BPlusServiceConfig config = QuickConfig();
        config.downloadResume = 1;
        BPlusService service(t, config);
        const auto r = service.Run({Down(f.File("r", content))});
        ASSERT_TRUE(r[0].ok) << c.name << ": " << r[0].why;
        EXPECT_EQ(r[0].restarted, c.restarted) << c.name;
        EXPECT_EQ(t.restarted, c.restarted) << c.name;
        EXPECT_EQ(r[0].bytes, c.bytes) << c.name;
        const Bytes tail(content.end() - static_cast<long>(c.bytes), content.end());
        EXPECT_EQ(t.received, tail) << c.name;
    }
}

TEST(BPlusServiceRequests, Upload) {
    Bytes content = Pattern(450);
    content[3] = kDle, content[4] = kEtx, content[5] = kEnq, content[6] = 0x91;
    // Plain, and with the first data packet sent twice: the repeat is
    // acknowledged again (no NAK) and not written twice.
    for (bool repeat : {false, true}) {
        Fixture f;
        FakeTerminal::Options o;
        o.upload = content;
        o.repeatFirstUpload = repeat;
        FakeTerminal t(o);
        BPlusServiceConfig config = QuickConfig();
        config.folder = f.tree.Folder();
        BPlusService service(t, config);
        const auto r = service.Run({Up("up.bin")});
        ASSERT_TRUE(r[0].ok) << r[0].why;
        EXPECT_EQ(r[0].bytes, content.size());
        EXPECT_EQ(r[0].crc32, Crc32Of(content.data(), content.size()));
        std::ifstream in(f.tree.Path("up.bin"), std::ios::binary);
        const Bytes stored((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(stored, content) << "repeat " << repeat;
        EXPECT_EQ(t.accepted[1], B("TUBup.bin"));
        EXPECT_EQ(std::count(t.written.begin(), t.written.end(), kNak), 0) << "repeat " << repeat;
        // After the request (3): data 4 (twice when repeated), 5..8, 'T' 'C' 9.
        Bytes acks{kDle, '4'};
        if (repeat) acks.insert(acks.end(), {kDle, '4'});
        for (uint8_t d : {'5', '6', '7', '8', '9'}) acks.insert(acks.end(), {kDle, d});
        const Bytes tail(t.written.end() - static_cast<long>(acks.size()), t.written.end());
        EXPECT_EQ(tail, acks) << "repeat " << repeat;
    }
}

TEST(BPlusServiceRequests, SilentTerminalEndsAfterTheErrorLimit) {
    Fixture f;
    FakeTerminal::Options o;
    o.silent = true;
    FakeTerminal t(o);
    BPlusServiceConfig config = QuickConfig();
    config.greet = false;
    config.maxErrors = 4;
    BPlusService service(t, config);
    const auto r = service.Run({Down(f.File("s", B("abc")))});
    EXPECT_FALSE(r[0].ok);
    EXPECT_EQ(r[0].why, "too many errors");
    EXPECT_EQ(r[0].errors, 4u);
    // Each time-out with the '+' unacknowledged is a resend request.
    Bytes enqEnq{kEnq, kEnq};
    EXPECT_NE(std::search(t.written.begin(), t.written.end(), enqEnq.begin(), enqEnq.end()),
              t.written.end());
}

TEST(BPlusServiceRequests, NakBringsAResendRequest) {
    // A NAK makes the service ask for the last acknowledgement (ENQ ENQ);
    // the second alike answer resends what follows it.  Stop-and-wait, and
    // running two packets ahead (the 'T' 'C' behind the refused data is out
    // of order for the terminal then, and is NAKed as well).
    for (int ahead : {0, 2}) {
        Fixture f;
        const Bytes content = Pattern(100);
        FakeTerminal::Options o;
        o.nakFirstData = true;
        FakeTerminal t(o);
        BPlusServiceConfig config = QuickConfig();
        config.extraAhead = ahead;
        BPlusService service(t, config);
        const auto r = service.Run({Down(f.File("n", content))});
        ASSERT_TRUE(r[0].ok) << r[0].why;
        EXPECT_EQ(t.naksSent, ahead == 0 ? 1 : 2);
        EXPECT_EQ(r[0].resends, ahead == 0 ? 1u : 2u);
        EXPECT_EQ(t.repeats, 0);
        const Bytes enqEnq{kEnq, kEnq};
        EXPECT_NE(std::search(t.written.begin(), t.written.end(), enqEnq.begin(), enqEnq.end()),
                  t.written.end());
        EXPECT_EQ(t.received, content);
    }
}

TEST(BPlusServiceRequests, AnswersEnqWithItsCounter) {
    // The download request goes out as packet 3 (after the service's '+'
    // as 1 and the terminal's as 2); every ENQ then gets DLE '3', so ENQ
    // ENQ gets it twice.
    for (int enqs : {0, 1, 2}) {
        Fixture f;
        FakeTerminal::Options o;
        o.enqsBeforeAck = enqs;
        FakeTerminal t(o);
        BPlusService service(t, QuickConfig());
        ASSERT_TRUE(service.Run({Down(f.File("e", B("abc")))})[0].ok);
        int answers = 0;
        for (std::size_t i = 0; i + 1 < t.written.size(); ++i)
            answers += t.written[i] == kDle && t.written[i + 1] == '3';
        EXPECT_EQ(answers, enqs);
    }
}

// --------------------------------------------------------- misbehaviour

TEST(BPlusServiceFaults, EachOptionDoesWhatItSays) {
    struct Case {
        const char *name;
        ServiceFault fault;
        bool ok;
        std::function<void(const FakeTerminal &, const RequestReport &)> check;
    };
    const Bytes content = Pattern(2500); // three data packets: packets 3, 4, 5
    const Case cases[] = {
        {"drop packet",
         {ServiceFault::DropPacket, 3},
         true,
         [](const FakeTerminal &t, const RequestReport &r) {
             // Nothing came back: the time-out's resend request brings it.
             EXPECT_EQ(t.naksSent, 0);
             EXPECT_EQ(r.errors, 1u);
             EXPECT_EQ(r.resends, 1u);
         }},
        {"damage packet",
         {ServiceFault::DamagePacket, 4},
         true,
         [](const FakeTerminal &t, const RequestReport &r) {
             EXPECT_EQ(t.badChecks, 1);
             EXPECT_GE(r.resends, 1u);
         }},
        {"repeat packet",
         {ServiceFault::RepeatPacket, 3},
         true,
         [](const FakeTerminal &t, const RequestReport &) { EXPECT_EQ(t.repeats, 1); }},
        {"fail at the second data packet",
         {ServiceFault::FailAt, 2, 'I'},
         false,
         [&](const FakeTerminal &t, const RequestReport &r) {
             EXPECT_EQ(r.failureCode, 'I');
             ASSERT_GE(t.accepted.size(), 4u);
             EXPECT_EQ(t.accepted[3], B("FI Service failure"));
             EXPECT_EQ(t.received.size(), 1024u);
         }},
        {"silent from the third packet",
         {ServiceFault::SilentFrom, 3},
         false,
         [](const FakeTerminal &t, const RequestReport &r) {
             EXPECT_EQ(r.why, "too many errors");
             EXPECT_TRUE(t.received.empty());
         }},
    };
    for (const Case &c : cases) {
        Fixture f;
        FakeTerminal t({});
        BPlusServiceConfig config = QuickConfig();
        config.faults = {c.fault};
        BPlusService service(t, config);
        const auto r = service.Run({Down(f.File("m", content))});
        EXPECT_EQ(r[0].ok, c.ok) << c.name << ": " << r[0].why;
        if (c.ok) {
            EXPECT_EQ(t.received, content) << c.name;
        }
        c.check(t, r[0]);
    }
}

TEST(BPlusServiceFaults, Acknowledgements) {
    // An upload of two packets: the service's acknowledgements are '2' (the
    // terminal's '+'), '4' and '5' (data), '6' ('T' 'C'); the third changes.
    struct Case {
        ServiceFault::What what;
        Bytes tail; // what the service wrote last
    };
    const Case cases[] = {
        {ServiceFault::DropAck, {kDle, '4', kDle, '6'}}, // '5' missing
        {ServiceFault::DamageAck, {kDle, '4', kDle, 'x', kDle, '6'}},
        {ServiceFault::RepeatAck, {kDle, '4', kDle, '5', kDle, '5', kDle, '6'}},
    };
    for (const Case &c : cases) {
        Fixture f;
        FakeTerminal::Options o;
        o.upload = Pattern(150);
        FakeTerminal t(o);
        BPlusServiceConfig config = QuickConfig();
        config.folder = f.tree.Folder();
        config.faults = {{c.what, 3}};
        BPlusService service(t, config);
        const auto r = service.Run({Up("a")});
        EXPECT_TRUE(r[0].ok) << r[0].why;
        const Bytes tail(t.written.end() - static_cast<long>(c.tail.size()), t.written.end());
        EXPECT_EQ(tail, c.tail) << c.what;
    }
}

// ------------------------------------------------ against our own engine
//
// Whole sessions with the library's engine are run by the B+ pair tests of
// the zvxfer program; here only what the fake terminal cannot show: how the
// engine reads short parameter packets, the service's misbehaviour as the
// engine meets it, and the service lingering for a terminal's last question.

namespace engine {

std::mutex gLogMutex;
std::vector<std::string> gLog; // the engine's status lines and the service's events

int32_t Status(XferRecord *, int32_t level, const char *text) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLog.push_back("terminal " + std::to_string(level) + " " + text);
    return 0;
}

void Note(const std::string &line) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLog.push_back("service " + line);
}

std::string Log() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    std::string all;
    for (const std::string &line : gLog) all += line + "\n";
    gLog.clear();
    return all;
}

// A terminal program in terminal mode: ENQ gets the B+ answer, DLE 'B'
// hands the line to the engine (asking for check method `method`); one
// engine call per request.
int32_t Terminal(XferPort *port, int requests, int method, std::vector<int32_t> &results) {
    PortServiceLine line(port);
    int previous = -1;
    while (static_cast<int>(results.size()) < requests) {
        int b = line.Read(20000);
        if (b < 0) return b;
        if (b == kEnq) {
            CompuServeBPlusRespond(port, 1);
        } else if (previous == kDle && b == 'B') {
            results.push_back(CompuServeBPlusWithOptions(
                port, Status, nullptr, XferOptBPlusCheckMethod, method, XferOptEnd));
            b = -1;
        }
        previous = b;
    }
    return 0;
}

struct Session {
    std::vector<RequestReport> reports;
    std::vector<int32_t> terminalResults;
    bool timedOut = false;
};

Session Run(BPlusServiceConfig config, const std::vector<ServiceRequest> &requests, int method,
            const std::string &terminalFolder) {
    LinkConfig link;
    link.b.receiveFolder = terminalFolder;
    link.hangUpOnExit = true;
    link.deadlineMs = 120000;
    config.readTimeoutMs = std::min(config.readTimeoutMs, 5000);
    config.log = Note;
    Session s;
    LinkPair pair(link);
    const LinkResult r = pair.Run(
        [&](XferPort *port) {
            PortServiceLine line(port);
            BPlusService service(line, config);
            s.reports = service.Run(requests);
            return 0;
        },
        [&](XferPort *port) {
            return Terminal(port, static_cast<int>(requests.size()), method, s.terminalResults);
        });
    s.timedOut = r.timedOut;
    return s;
}

Bytes ReadAll(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

} // namespace engine

TEST(BPlusServiceWithEngine, MisbehaviourTheEngineRecoversFrom) {
    // A dropped packet is noticed by the service's own time-out (1 s here).
    struct Case {
        const char *name;
        ServiceFault fault;
        int ahead;
    };
    const Case cases[] = {
        {"damaged data packet", {ServiceFault::DamagePacket, 4}, 0},
        {"damaged data packet, two ahead", {ServiceFault::DamagePacket, 4}, 2},
        {"damaged parameters", {ServiceFault::DamagePacket, 1}, 0},
        {"repeated data packet", {ServiceFault::RepeatPacket, 3}, 0},
        {"dropped data packet", {ServiceFault::DropPacket, 3}, 0},
        {"dropped data packet, two ahead", {ServiceFault::DropPacket, 3}, 2},
        {"repeated acknowledgement", {ServiceFault::RepeatAck, 1}, 0},
    };
    const Bytes content = Pattern(6000);
    for (const Case &c : cases) {
        Fixture f;
        const std::string source = f.File("src/m.bin", content);
        BPlusServiceConfig config;
        config.faults = {c.fault};
        config.extraAhead = c.ahead;
        config.readTimeoutMs = 1000;
        const engine::Session s = engine::Run(config, {Down(source)}, 1, f.tree.Dir("t") + "/");
        const std::string log = engine::Log();
        ASSERT_FALSE(s.timedOut) << c.name << "\n" << log;
        EXPECT_TRUE(s.reports[0].ok) << c.name << ": " << s.reports[0].why << "\n" << log;
        EXPECT_EQ(s.terminalResults, (std::vector<int32_t>{1})) << c.name << "\n" << log;
        EXPECT_EQ(engine::ReadAll(f.tree.Path("t/m.bin")), content) << c.name;
    }
}

TEST(BPlusServiceWithEngine, ShortParameterPackets) {
    // The engine reads the bytes left out as zeros: four bytes leave the
    // check method at the checksum, seven keep it.
    struct Case {
        int length;
        int method;
    };
    for (const Case c : {Case{4, 0}, Case{7, 3}, Case{18, 3}}) {
        Fixture f;
        const Bytes content = Pattern(2100);
        const std::string source = f.File("src/p.bin", content);
        BPlusServiceConfig config;
        config.checkMethod = 3;
        config.parametersLength = c.length;
        const engine::Session s = engine::Run(config, {Down(source)}, 3, f.tree.Dir("t") + "/");
        const std::string log = engine::Log();
        ASSERT_FALSE(s.timedOut) << log;
        EXPECT_TRUE(s.reports[0].ok) << c.length << ": " << s.reports[0].why << "\n" << log;
        EXPECT_EQ(s.reports[0].checkMethod, c.method) << c.length;
        EXPECT_EQ(engine::ReadAll(f.tree.Path("t/p.bin")), content) << c.length;
    }
}

TEST(BPlusServiceWithEngine, LastAcknowledgementLostInAnUpload) {
    // The engine runs ahead, so a lost acknowledgement of a data packet is
    // covered by the next one; the one of its 'T' 'C' (the seventh: its
    // '+', five data packets, 'T' 'C') is not.  The service, done, lingers:
    // after its read time-out (15 s) the engine asks for the last
    // acknowledgement (ENQ ENQ), gets it twice and ends well.
    Fixture f;
    const Bytes up = Pattern(5000);
    const std::string upPath = f.File("terminal/u.bin", up);
    BPlusServiceConfig config;
    config.folder = f.tree.Dir("landed");
    config.lingerMs = 30000;
    config.faults = {{ServiceFault::DropAck, 7}};
    const engine::Session s = engine::Run(config, {Up(upPath)}, 2, f.tree.Folder());
    const std::string log = engine::Log();
    ASSERT_FALSE(s.timedOut) << log;
    EXPECT_TRUE(s.reports[0].ok) << s.reports[0].why << "\n" << log;
    EXPECT_EQ(s.terminalResults, (std::vector<int32_t>{1})) << log;
    EXPECT_EQ(engine::ReadAll(f.tree.Path("landed/u.bin")), up);
    EXPECT_NE(log.find("acknowledgement 7 dropped"), std::string::npos) << log;
}

} // namespace
} // namespace zvxfer::host
