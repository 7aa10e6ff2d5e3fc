// The B+ service: wire helpers, the port line and the request driver.
#include "bplus_service.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <iterator>
#include <optional>
#include <utility>

namespace zvxfer::host {

namespace bplus_wire {

uint8_t ChecksumUpdate(uint8_t sum, uint8_t byte) {
    unsigned s = sum * 2u;
    if (s > 255) s = (s & 255) + 1;
    s += byte;
    if (s > 255) s = (s & 255) + 1;
    return static_cast<uint8_t>(s);
}

uint16_t Crc16CcittUpdate(uint16_t crc, uint8_t byte) {
    crc ^= static_cast<uint16_t>(byte << 8);
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021)
                             : static_cast<uint16_t>(crc << 1);
    return crc;
}

uint16_t X25Update(uint16_t crc, uint8_t byte) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0x8408)
                        : static_cast<uint16_t>(crc >> 1);
    return crc;
}

uint32_t Crc32Update(uint32_t crc, uint8_t byte) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    return crc;
}

uint32_t Crc32Of(const uint8_t *data, std::size_t length) {
    uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < length; ++i) crc = Crc32Update(crc, data[i]);
    return ~crc;
}

uint16_t ResumeCheckWord(int checkMethod, const uint8_t *data, std::size_t length) {
    uint16_t word = checkMethod == 2 ? 0xF0B8 : 0;
    for (std::size_t i = 0; i < length; ++i)
        word = checkMethod == 2 ? X25Update(word, data[i]) : Crc16CcittUpdate(word, data[i]);
    return word;
}

QuoteSet QuoteSet::Default() {
    QuoteSet set;
    for (uint8_t c : {0x03, 0x05, 0x10, 0x11, 0x13, 0x15}) set.Add(c);
    return set;
}

QuoteSet QuoteSet::All() {
    QuoteSet set;
    set.bits.fill(0xFF);
    return set;
}

bool QuoteSet::Quotes(uint8_t c) const {
    if (c < 0x20) return (bits[c / 8] & (0x80 >> (c % 8))) != 0;
    if (c >= 0x80 && c <= 0x9F) {
        const int k = c - 0x80;
        return (bits[4 + k / 8] & (0x80 >> (k % 8))) != 0;
    }
    return false;
}

void QuoteSet::Add(uint8_t c) {
    if (c < 0x20) bits[c / 8] |= static_cast<uint8_t>(0x80 >> (c % 8));
    if (c >= 0x80 && c <= 0x9F) {
        const int k = c - 0x80;
        bits[4 + k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
    }
}

QuoteSet QuoteSet::Union(const QuoteSet &other) const {
    QuoteSet set = *this;
    for (std::size_t i = 0; i < bits.size(); ++i) set.bits[i] |= other.bits[i];
    return set;
}

namespace {

void PutQuoted(std::vector<uint8_t> &out, uint8_t c, const QuoteSet &quote) {
    if (quote.Quotes(c)) {
        out.push_back(kDle);
        out.push_back(c < 0x20 ? static_cast<uint8_t>(c + 0x40) : static_cast<uint8_t>(c - 0x20));
    } else {
        out.push_back(c);
    }
}

// CRC check bytes travel quoted only when they are control characters
// below 0x20; 0x80..0x9F go as they are.
void PutCheckByte(std::vector<uint8_t> &out, uint8_t c, const QuoteSet &quote) {
    if (c < 0x20)
        PutQuoted(out, c, quote);
    else
        out.push_back(c);
}

} // namespace

void RunningChecks::Feed(uint8_t b) {
    sum = ChecksumUpdate(sum, b);
    crc16 = method == 2 ? X25Update(crc16, b) : Crc16CcittUpdate(crc16, b);
    crc32 = Crc32Update(crc32, b);
}

std::vector<uint8_t> FramePacket(int seq, const std::vector<uint8_t> &data, int checkMethod,
                                 const QuoteSet &quote) {
    std::vector<uint8_t> out{kDle, 'B'};
    bplus_wire::RunningChecks checks{checkMethod};
    const auto seqChar = static_cast<uint8_t>('0' + seq);
    out.push_back(seqChar);
    checks.Feed(seqChar);
    for (uint8_t b : data) {
        PutQuoted(out, b, quote);
        checks.Feed(b);
    }
    out.push_back(kEtx);
    checks.Feed(kEtx);
    switch (checkMethod) {
    case 0:
        PutQuoted(out, checks.sum, quote);
        break;
    case 1:
        PutCheckByte(out, static_cast<uint8_t>(checks.crc16 >> 8), quote);
        PutCheckByte(out, static_cast<uint8_t>(checks.crc16), quote);
        break;
    case 2: {
        const auto sent = static_cast<uint16_t>(checks.crc16 ^ 0xFFFF);
        PutCheckByte(out, static_cast<uint8_t>(sent), quote);
        PutCheckByte(out, static_cast<uint8_t>(sent >> 8), quote);
        break;
    }
    default: {
        const uint32_t sent = ~checks.crc32;
        for (int i = 0; i < 4; ++i) PutCheckByte(out, static_cast<uint8_t>(sent >> (8 * i)), quote);
        break;
    }
    }
    return out;
}

} // namespace bplus_wire

using namespace bplus_wire;
using Clock = std::chrono::steady_clock;

int PortServiceLine::Read(int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (stop_ && stop_()) return kLost;
        // An empty read waits a few milliseconds for input inside the port.
        const int32_t r = port_->Ops.ReadChar(port_);
        if (r >= 0) return r;
        if (r == PortGeneralError) return kLost;
        if (Clock::now() >= deadline) return kTimeout;
    }
}

bool PortServiceLine::Write(const uint8_t *data, std::size_t length) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    std::size_t done = 0;
    while (done < length) {
        if (stop_ && stop_()) return false;
        const int32_t r =
            port_->Ops.WriteBuffer(port_, data + done, static_cast<uint32_t>(length - done));
        if (r == PortSuccess) return true;
        if (r != PortBufferFull) return false;
        done += port_->Count;
        if (Clock::now() >= deadline) return false;
        if (port_->Count == 0) ZvWaitMessage(5);
    }
    return true;
}

namespace {

constexpr std::size_t kParametersLength = 18;
// The longest packet data read: the most a terminal offers (8 x 128 + 1)
// and some slack for a terminal that counts differently.
constexpr std::size_t kMaxReadData = 1031;

struct Event {
    enum Type { Ack, Nak, Enq, Packet, Bad, Timeout, Lost };
    Event(Type t, int s = 0, std::vector<uint8_t> d = {}) : type(t), seq(s), data(std::move(d)) {}
    Type type;
    int seq;
    std::vector<uint8_t> data;
    std::string why; // Bad: what was wrong
};

int8_t Signed(uint8_t b) {
    return static_cast<int8_t>(b);
}

std::string Printable(const std::vector<uint8_t> &data, std::size_t from) {
    std::string text;
    for (std::size_t i = from; i < data.size(); ++i)
        text += data[i] >= 0x20 && data[i] < 0x7F ? static_cast<char>(data[i]) : '.';
    return text;
}

} // namespace

// The state of one request: sequence counter, unacknowledged packets,
// negotiated parameters, error count.
class BPlusService::Session {
  public:
    Session(BPlusService &service, const ServiceRequest &request)
        : service_(service), config_(service.config_) {
        report_.request = request;
    }

    RequestReport Run();
    // After the last request: answer ENQs and repeats until the line is quiet.
    void Linger(int ms);
    bool Greet();

  private:
    struct Stored {
        int seq;
        std::vector<uint8_t> data;
    };

    void Log(const std::string &text) const {
        if (config_.log) config_.log(text);
    }
    bool Fail(std::string why) {
        if (!failed_) {
            failed_ = true;
            report_.why = std::move(why);
            Log("request failed: " + report_.why);
        }
        return false;
    }
    bool Fires(ServiceFault::What what, int count);

    // Line access.
    int ReadUntil(Clock::time_point deadline);
    bool Write(const std::vector<uint8_t> &bytes);
    Event ReadEvent(int timeoutMs);
    Event ReadBody(Clock::time_point deadline);

    // Packets and acknowledgements.
    void SendAck();
    bool Transmit(const Stored &packet, bool first);
    bool SendNumbered(std::vector<uint8_t> data);
    void Release(int seq);
    void ResendAll();
    bool CountError();
    bool Pump(std::optional<std::vector<uint8_t>> *packet);
    bool WaitAllAcks();
    std::optional<std::vector<uint8_t>> WaitPacket();

    // The request's steps.
    bool ExchangeParameters();
    bool Download();
    bool Upload();

    BPlusService &service_;
    const BPlusServiceConfig &config_;
    RequestReport report_;
    bool failed_ = false;

    int counter_ = 0;
    int method_ = 0;
    int window_ = 1;
    std::size_t maxData_ = 1031;
    QuoteSet sendQuote_ = QuoteSet::All();
    int downloadResume_ = 0;
    int fileInfo_ = 0;

    std::deque<Stored> outstanding_;
    bool resendPending_ = false;
    int ackAfterEnq_ = -1;
    // A NAK went out and the terminal has not resent yet: the packets it
    // had already sent arrive out of sequence and are dropped without a
    // NAK each (every NAK costs the terminal one of its ten errors).
    bool nakOutstanding_ = false;
    int packetsSent_ = 0;
    int acksSent_ = 0;
    int dataPackets_ = 0;
    bool silent_ = false;
};

bool BPlusService::Session::Fires(ServiceFault::What what, int count) {
    for (std::size_t i = 0; i < config_.faults.size(); ++i) {
        const ServiceFault &f = config_.faults[i];
        if (f.what == what && f.at == count && !service_.fired_[i]) {
            service_.fired_[i] = true;
            return true;
        }
    }
    return false;
}

int BPlusService::Session::ReadUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return ServiceLine::kTimeout;
    return service_.line_.Read(static_cast<int>(left.count()));
}

bool BPlusService::Session::Write(const std::vector<uint8_t> &bytes) {
    if (silent_) return true;
    if (!service_.line_.Write(bytes.data(), bytes.size())) return Fail("line lost while writing");
    return true;
}

Event BPlusService::Session::ReadEvent(int timeoutMs) {
    // One deadline for the whole event, so endless garbage cannot hold it.
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int b = ReadUntil(deadline);
        if (b == ServiceLine::kLost) return {Event::Lost};
        if (b < 0) return {Event::Timeout};
        if (b == kNak) return {Event::Nak};
        if (b == kEnq) return {Event::Enq};
        if (b != kDle) continue;
        b = ReadUntil(deadline);
        if (b == ServiceLine::kLost) return {Event::Lost};
        if (b < 0) return {Event::Timeout};
        if (b >= '0' && b <= '9') return {Event::Ack, b - '0'};
        if (b == 'B') return ReadBody(deadline);
        if (b == kEnq) return {Event::Enq};
        // ';' (wait) and anything else: keep reading.
    }
}

Event BPlusService::Session::ReadBody(Clock::time_point deadline) {
    Event bad{Event::Bad};
    int seqChar = ReadUntil(deadline);
    if (seqChar == ServiceLine::kLost) return {Event::Lost};
    if (seqChar == kEnq) return {Event::Enq};
    if (seqChar < '0' || seqChar > '9') {
        bad.why = seqChar < 0 ? "time-out in a packet" : "bad sequence character";
        return bad;
    }
    // Reads one data or check byte, undoing the quoting; -1 for an
    // unquoted ETX, -2 for an unquoted ENQ, -3 for a time-out, -4 for a
    // lost line.
    auto readQuoted = [&]() -> int {
        int c = ReadUntil(deadline);
        if (c < 0) return c == ServiceLine::kLost ? -4 : -3;
        if (c == kEtx) return -1;
        if (c == kEnq) return -2;
        if (c != kDle) return c;
        c = ReadUntil(deadline);
        if (c < 0) return c == ServiceLine::kLost ? -4 : -3;
        if (c >= 0x60) c += 0x80;
        return c & 0x9F;
    };
    std::vector<uint8_t> data;
    for (;;) {
        const int c = readQuoted();
        if (c == -1) break;
        if (c == -2) return {Event::Enq};
        if (c == -4) return {Event::Lost};
        if (c == -3) {
            bad.why = "time-out in a packet";
            return bad;
        }
        if (data.size() >= kMaxReadData) {
            bad.why = "packet too long";
            return bad;
        }
        data.push_back(static_cast<uint8_t>(c));
    }
    bplus_wire::RunningChecks checks{method_};
    checks.Feed(static_cast<uint8_t>(seqChar));
    for (uint8_t b : data) checks.Feed(b);
    checks.Feed(kEtx);
    const int checkBytes = method_ == 0 ? 1 : method_ == 3 ? 4 : 2;
    std::vector<uint8_t> check;
    for (int i = 0; i < checkBytes; ++i) {
        const int c = readQuoted();
        if (c == -2) return {Event::Enq};
        if (c == -4) return {Event::Lost};
        if (c < 0) {
            bad.why = "check bytes missing";
            return bad;
        }
        check.push_back(static_cast<uint8_t>(c));
    }
    bool good = false;
    if (method_ == 0) {
        good = check[0] == checks.sum;
    } else {
        for (uint8_t b : check) checks.Feed(b);
        good = method_ == 1   ? checks.crc16 == 0
               : method_ == 2 ? checks.crc16 == 0xF0B8
                              : checks.crc32 == 0xDEBB20E3u;
    }
    if (!good) {
        bad.why = "bad check";
        return bad;
    }
    return {Event::Packet, seqChar - '0', std::move(data)};
}

void BPlusService::Session::SendAck() {
    ++acksSent_;
    if (Fires(ServiceFault::DropAck, acksSent_)) {
        Log("acknowledgement " + std::to_string(acksSent_) + " dropped");
        return;
    }
    std::vector<uint8_t> ack{kDle, static_cast<uint8_t>('0' + counter_)};
    if (Fires(ServiceFault::DamageAck, acksSent_)) {
        Log("acknowledgement " + std::to_string(acksSent_) + " damaged");
        ack[1] = 'x';
    }
    Write(ack);
    if (Fires(ServiceFault::RepeatAck, acksSent_)) Write(ack);
}

bool BPlusService::Session::Transmit(const Stored &packet, bool first) {
    std::vector<uint8_t> frame = FramePacket(packet.seq, packet.data, method_, sendQuote_);
    if (!first) {
        ++report_.resends;
        return Write(frame);
    }
    const int n = ++packetsSent_;
    if (Fires(ServiceFault::SilentFrom, n)) {
        Log("silent from packet " + std::to_string(n));
        silent_ = true;
    }
    if (Fires(ServiceFault::DropPacket, n)) {
        Log("packet " + std::to_string(n) + " dropped");
        return true;
    }
    if (Fires(ServiceFault::DamagePacket, n)) {
        // The type letter (always a printable character sent as it is)
        // changes, so the check no longer matches.
        Log("packet " + std::to_string(n) + " damaged");
        frame[3] ^= 0x01;
    }
    if (!Write(frame)) return false;
    if (Fires(ServiceFault::RepeatPacket, n)) {
        Log("packet " + std::to_string(n) + " repeated");
        return Write(FramePacket(packet.seq, packet.data, method_, sendQuote_));
    }
    return true;
}

bool BPlusService::Session::SendNumbered(std::vector<uint8_t> data) {
    // At most the window (and the extra packets allowed) unacknowledged: a
    // terminal counts an error for every packet that arrives after a lost
    // one, so running far ahead costs it its error budget.
    const std::size_t limit =
        static_cast<std::size_t>(std::clamp(window_ + config_.extraAhead, 1, 5));
    while (outstanding_.size() >= limit)
        if (!Pump(nullptr)) return false;
    counter_ = (counter_ + 1) % 10;
    outstanding_.push_back({counter_, std::move(data)});
    return Transmit(outstanding_.back(), true);
}

void BPlusService::Session::Release(int seq) {
    for (std::size_t i = outstanding_.size(); i-- > 0;) {
        if (outstanding_[i].seq == seq) {
            outstanding_.erase(outstanding_.begin(),
                               outstanding_.begin() + static_cast<long>(i) + 1);
            return;
        }
    }
}

void BPlusService::Session::ResendAll() {
    for (const Stored &packet : outstanding_)
        if (!Transmit(packet, false)) return;
}

bool BPlusService::Session::CountError() {
    ++report_.errors;
    if (static_cast<int>(report_.errors) >= config_.maxErrors) return Fail("too many errors");
    return true;
}

// Handle one event from the terminal.  Returns false when the request
// must end; an accepted packet goes to `packet` (when the caller waits
// for one).
bool BPlusService::Session::Pump(std::optional<std::vector<uint8_t>> *packet) {
    if (failed_) return false;
    Event e = ReadEvent(config_.readTimeoutMs);
    switch (e.type) {
    case Event::Lost:
        return Fail("line lost");
    case Event::Timeout:
        if (!CountError()) return false;
        if (!outstanding_.empty()) {
            // Ask for the terminal's last acknowledgement twice; the second
            // one alike starts the resend of what is still unacknowledged.
            Log("time-out: resend request");
            resendPending_ = true;
            ackAfterEnq_ = -1;
            return Write({kEnq, kEnq});
        }
        Log("time-out: NAK");
        return Write({kNak});
    case Event::Ack:
        if (resendPending_ && e.seq == ackAfterEnq_) {
            resendPending_ = false;
            Release(e.seq);
            ResendAll();
        } else {
            if (resendPending_) ackAfterEnq_ = e.seq;
            Release(e.seq);
        }
        return !failed_;
    case Event::Nak:
        // Not every packet sent since the one refused needs sending again:
        // ask which one the terminal took last, as on a time-out.
        Log("NAK received");
        if (!CountError()) return false;
        if (outstanding_.empty() || resendPending_) return true;
        resendPending_ = true;
        ackAfterEnq_ = -1;
        return Write({kEnq, kEnq});
    case Event::Enq:
        nakOutstanding_ = false; // the terminal resends after our answers
        SendAck();
        return !failed_;
    case Event::Bad:
        if (nakOutstanding_) {
            Log("bad packet (" + e.why + ") while a NAK is answered: dropped");
            return true;
        }
        Log("bad packet (" + e.why + "): NAK");
        if (!CountError()) return false;
        nakOutstanding_ = true;
        return Write({kNak});
    case Event::Packet:
        break;
    }
    const bool failure = !e.data.empty() && e.data[0] == 'F';
    if (e.seq == (counter_ + 1) % 10 || failure) {
        // A terminal sends a packet only after it took ours: it stands for
        // the acknowledgement of everything still stored.
        counter_ = e.seq;
        outstanding_.clear();
        nakOutstanding_ = false;
        SendAck();
        if (failure) {
            report_.failureCode = e.data.size() > 1 ? static_cast<char>(e.data[1]) : '?';
            return Fail(std::string("terminal sent failure ") + report_.failureCode);
        }
        if (packet == nullptr)
            return Fail("unexpected packet '" + Printable(e.data, 0).substr(0, 2) + "'");
        *packet = std::move(e.data);
        return true;
    }
    if (e.seq == counter_) {
        Log("repeated packet " + std::to_string(e.seq) + " acknowledged again");
        SendAck();
        return !failed_;
    }
    if (nakOutstanding_) {
        Log("packet out of sequence (" + std::to_string(e.seq) +
            ") while a NAK is answered: dropped");
        return true;
    }
    Log("packet out of sequence (" + std::to_string(e.seq) + "): NAK");
    if (!CountError()) return false;
    nakOutstanding_ = true;
    return Write({kNak});
}

bool BPlusService::Session::WaitAllAcks() {
    while (!outstanding_.empty())
        if (!Pump(nullptr)) return false;
    return !failed_;
}

std::optional<std::vector<uint8_t>> BPlusService::Session::WaitPacket() {
    std::optional<std::vector<uint8_t>> packet;
    while (!packet)
        if (!Pump(&packet)) return std::nullopt;
    return packet;
}

bool BPlusService::Session::ExchangeParameters() {
    std::vector<uint8_t> own(kParametersLength, 0);
    own[0] = '+';
    own[1] = static_cast<uint8_t>(config_.sendWindow);
    own[2] = static_cast<uint8_t>(config_.receiveWindow);
    own[3] = static_cast<uint8_t>(config_.blockSize);
    own[4] = static_cast<uint8_t>(config_.checkMethod);
    std::copy(config_.quote.bits.begin(), config_.quote.bits.end(), own.begin() + 7);
    own[15] = static_cast<uint8_t>(config_.downloadResume);
    own[16] = static_cast<uint8_t>(config_.uploadResume);
    own[17] = static_cast<uint8_t>(config_.fileInfo);
    const std::size_t length =
        std::clamp<std::size_t>(static_cast<std::size_t>(config_.parametersLength), 1, 18);
    std::vector<uint8_t> sent(own.begin(), own.begin() + static_cast<long>(length));
    // What the terminal sees of ours: the bytes left out count as zero.
    std::fill(own.begin() + static_cast<long>(length), own.end(), 0);

    // Everything is quoted until both sides know the other's set.
    sendQuote_ = QuoteSet::All();
    if (!SendNumbered(sent)) return false;
    std::optional<std::vector<uint8_t>> reply = WaitPacket();
    if (!reply) return false;
    if ((*reply)[0] != '+') return Fail("the terminal answered the parameters with another packet");
    std::vector<uint8_t> theirs = *reply;
    const std::size_t theirLength = theirs.size();
    theirs.resize(kParametersLength, 0);

    auto smaller = [&](int offsetOwn, int offsetTheirs) {
        return std::min<int>(Signed(own[offsetOwn]), Signed(theirs[offsetTheirs]));
    };
    window_ = std::max(1, smaller(1, 2));
    const int blockSize = std::clamp(smaller(3, 3), 1, 8);
    maxData_ = 128u * static_cast<std::size_t>(blockSize) + 1;
    method_ = std::clamp(smaller(4, 4), 0, 3);
    downloadResume_ = smaller(15, 15);
    fileInfo_ = smaller(17, 17);
    QuoteSet theirSet;
    if (theirLength >= 15)
        std::copy(theirs.begin() + 7, theirs.begin() + 15, theirSet.bits.begin());
    sendQuote_ = config_.quote.Union(theirSet);
    report_.checkMethod = method_;
    Log("parameters: window " + std::to_string(window_) + ", block size " +
        std::to_string(blockSize) + ", check method " + std::to_string(method_) +
        ", download resume " + std::to_string(downloadResume_) + ", file information " +
        std::to_string(fileInfo_));
    return true;
}

bool BPlusService::Session::Download() {
    std::ifstream in(report_.request.path, std::ios::binary);
    if (!in) return Fail("cannot open " + report_.request.path);
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    report_.fileSize = file.size();
    report_.crc32 = Crc32Of(file.data(), file.size());
    std::string name = report_.request.remoteName;
    if (name.empty()) {
        name = report_.request.path;
        if (const auto slash = name.find_last_of('/'); slash != std::string::npos)
            name.erase(0, slash + 1);
    }

    if (config_.sendParameters && !ExchangeParameters()) return false;
    if (!config_.sendParameters) sendQuote_ = config_.quote;

    std::vector<uint8_t> request{'T', 'D', static_cast<uint8_t>(report_.request.fileType)};
    request.insert(request.end(), name.begin(), name.end());
    if (!SendNumbered(request)) return false;

    std::size_t offset = 0;
    if (downloadResume_ != 0) {
        // The terminal answers with its resume point instead of an
        // acknowledgement: 'T' 'r' "<length> <check word> ".
        std::optional<std::vector<uint8_t>> reply = WaitPacket();
        if (!reply) return false;
        if (reply->size() < 2 || (*reply)[0] != 'T' || (*reply)[1] != 'r')
            return Fail("expected a resume point");
        long long point = -1;
        unsigned long word = 0;
        const std::string text = Printable(*reply, 2);
        if (std::sscanf(text.c_str(), "%lld %lu", &point, &word) != 2 || point < 0)
            return Fail("unreadable resume point '" + text + "'");
        report_.resumePoint = point;
        report_.resumeWord = static_cast<uint32_t>(word);
        const bool fits = static_cast<uint64_t>(point) <= file.size();
        if (fits &&
            word == ResumeCheckWord(method_, file.data(), static_cast<std::size_t>(point))) {
            offset = static_cast<std::size_t>(point);
            Log("resuming at " + std::to_string(offset));
        } else {
            Log("resume point " + text + " does not match: restarting the file");
            report_.restarted = true;
            if (!SendNumbered({'T', 'f'})) return false;
        }
    } else if (!WaitAllAcks()) {
        return false;
    }

    if (fileInfo_ != 0) {
        const std::string info = name + " " + std::to_string(file.size());
        std::vector<uint8_t> packet{'T', 'I'};
        packet.insert(packet.end(), info.begin(), info.end());
        if (!SendNumbered(packet)) return false;
    }

    const std::size_t chunk = maxData_ - 1;
    for (std::size_t at = offset; at < file.size(); at += chunk) {
        if (Fires(ServiceFault::FailAt, ++dataPackets_)) {
            char code = 'A';
            for (const ServiceFault &f : config_.faults)
                if (f.what == ServiceFault::FailAt) code = f.code;
            const std::string text = "Service failure";
            std::vector<uint8_t> failure{'F', static_cast<uint8_t>(code), ' '};
            failure.insert(failure.end(), text.begin(), text.end());
            Log(std::string("failure packet ") + code + " sent");
            if (SendNumbered(failure)) WaitAllAcks();
            report_.failureCode = code;
            // The failure packet is the reason, whatever came after it.
            failed_ = false;
            return Fail(std::string("failure packet ") + code + " sent midway");
        }
        const std::size_t n = std::min(chunk, file.size() - at);
        std::vector<uint8_t> packet{'N'};
        packet.insert(packet.end(), file.begin() + static_cast<long>(at),
                      file.begin() + static_cast<long>(at + n));
        if (!SendNumbered(std::move(packet))) return false;
        report_.bytes += n;
    }
    if (!SendNumbered({'T', 'C'})) return false;
    return WaitAllAcks();
}

bool BPlusService::Session::Upload() {
    // Only the name's last part lands in the folder: a terminal's path
    // never reaches outside it.
    std::string base = report_.request.path;
    if (const auto slash = base.find_last_of('/'); slash != std::string::npos)
        base.erase(0, slash + 1);
    if (base.empty() || base == "." || base == "..") return Fail("no file name to write");
    std::string path = config_.folder;
    if (!path.empty() && path.back() != '/') path += '/';
    path += base;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return Fail("cannot create " + path);

    if (config_.sendParameters && !ExchangeParameters()) return false;
    if (!config_.sendParameters) sendQuote_ = config_.quote;

    std::vector<uint8_t> request{'T', 'U', static_cast<uint8_t>(report_.request.fileType)};
    const std::string &asked =
        report_.request.remoteName.empty() ? report_.request.path : report_.request.remoteName;
    request.insert(request.end(), asked.begin(), asked.end());
    if (!SendNumbered(request)) return false;

    uint32_t crc = 0xFFFFFFFFu;
    for (;;) {
        std::optional<std::vector<uint8_t>> packet = WaitPacket();
        if (!packet) break;
        const std::vector<uint8_t> &p = *packet;
        if (p[0] == 'N') {
            out.write(reinterpret_cast<const char *>(p.data() + 1),
                      static_cast<std::streamsize>(p.size() - 1));
            for (std::size_t i = 1; i < p.size(); ++i) crc = Crc32Update(crc, p[i]);
            report_.bytes += p.size() - 1;
            if (!out) {
                Fail("cannot write " + path);
                break;
            }
        } else if (p.size() >= 2 && p[0] == 'T' && p[1] == 'C') {
            break;
        } else if (p.size() >= 2 && p[0] == 'T' && p[1] == 'I') {
            continue;
        } else {
            Fail("unexpected packet '" + Printable(p, 0).substr(0, 2) + "'");
            break;
        }
    }
    report_.fileSize = report_.bytes;
    report_.crc32 = ~crc;
    return !failed_;
}

RequestReport BPlusService::Session::Run() {
    const bool ok = report_.request.kind == ServiceRequest::Download ? Download() : Upload();
    report_.ok = ok && !failed_;
    service_.lastCounter_ = counter_;
    return report_;
}

void BPlusService::Session::Linger(int ms) {
    counter_ = service_.lastCounter_;
    for (;;) {
        Event e = ReadEvent(ms);
        if (e.type == Event::Timeout || e.type == Event::Lost) return;
        if (e.type == Event::Enq || (e.type == Event::Packet && e.seq == counter_)) SendAck();
    }
}

bool BPlusService::Session::Greet() {
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!Write({kEnq})) return false;
        const auto deadline = Clock::now() + std::chrono::milliseconds(config_.readTimeoutMs);
        int previous[2] = {-1, -1};
        bool bplus = false;
        for (;;) {
            const int b = ReadUntil(deadline);
            if (b == ServiceLine::kLost) return Fail("line lost");
            if (b < 0) break;
            if (previous[0] == kDle && previous[1] == '+' && b == '+') bplus = true;
            if (previous[1] == kDle && b == '0') {
                if (bplus) {
                    Log("terminal answered ENQ with B+");
                    return true;
                }
                Log("terminal answered ENQ without B+");
                return Fail("the terminal does not offer B+");
            }
            previous[0] = previous[1];
            previous[1] = b;
        }
        Log("no answer to ENQ");
    }
    return Fail("no answer to ENQ");
}

BPlusService::BPlusService(ServiceLine &line, BPlusServiceConfig config)
    : line_(line), config_(std::move(config)), fired_(config_.faults.size(), false) {}

BPlusService::~BPlusService() = default;

bool BPlusService::Greet() {
    Session session(*this, {});
    return session.Greet();
}

RequestReport BPlusService::Serve(const ServiceRequest &request) {
    Session session(*this, request);
    return session.Run();
}

std::vector<RequestReport> BPlusService::Run(const std::vector<ServiceRequest> &requests) {
    std::vector<RequestReport> reports;
    const bool greeted = !config_.greet || Greet();
    for (const ServiceRequest &request : requests) {
        if (!greeted) {
            RequestReport report;
            report.request = request;
            report.why = "no B+ answer to ENQ";
            reports.push_back(report);
            continue;
        }
        reports.push_back(Serve(request));
    }
    if (greeted && config_.lingerMs > 0) {
        Session session(*this, {});
        session.Linger(config_.lingerMs);
    }
    return reports;
}

} // namespace zvxfer::host
