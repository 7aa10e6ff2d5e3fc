// A CompuServe B+ service: the remote end of a B+ session, to try a
// terminal program (or our own engine) against.  It greets the terminal
// with ENQ, then drives one request after another: its transport
// parameters ('+'), a download ('T' 'D': the service sends a file) or an
// upload ('T' 'U': the service receives one into a folder), data ('N'),
// file information ('T' 'I'), restarts ('T' 'f') and the closing 'T' 'C'.
// It acknowledges, NAKs, answers ENQ, and on a NAK or a time-out asks the
// terminal for its last acknowledgement (ENQ ENQ) and resends what follows
// it; it checks a terminal's resume point.  On
// request it misbehaves: drops, damages or repeats packets and
// acknowledgements, goes silent, or fails a transfer midway.
//
// Every wait is bounded: a read waits at most `readTimeoutMs`, and a
// request ends after `maxErrors` errors (time-outs, bad packets, NAKs).
//
// The service keeps its own framing and check code (no part of the
// library), so a mistake in the library's engine does not pass unseen.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::host {

namespace bplus_wire {

constexpr uint8_t kEtx = 0x03;
constexpr uint8_t kEnq = 0x05;
constexpr uint8_t kDle = 0x10;
constexpr uint8_t kNak = 0x15;

// The four block checks, one byte at a time.
uint8_t ChecksumUpdate(uint8_t sum, uint8_t byte);
uint16_t Crc16CcittUpdate(uint16_t crc, uint8_t byte); // polynomial 0x1021, MSB first
uint16_t X25Update(uint16_t crc, uint8_t byte);        // polynomial 0x1021 reflected (0x8408)
uint32_t Crc32Update(uint32_t crc, uint8_t byte);      // the reflected CRC-32 (0xEDB88320)

// CRC-32 (initial all ones, final complement) of a whole buffer.
uint32_t Crc32Of(const uint8_t *data, std::size_t length);

// The word a terminal sends with its resume point: CRC-16 CCITT from 0 of
// the partial file for methods 0, 1 and 3; the X.25 update from 0xF0B8 for
// method 2 (both without any final step).
uint16_t ResumeCheckWord(int checkMethod, const uint8_t *data, std::size_t length);

// Which control characters (0x00..0x1F, 0x80..0x9F) travel quoted, in the
// layout of the transport parameters: bytes 0..3 cover 0x00..0x1F, bytes
// 4..7 cover 0x80..0x9F, bit 0x80 >> i of byte g is character 8g + i.
struct QuoteSet {
    std::array<uint8_t, 8> bits{};

    static QuoteSet Default(); // ETX ENQ DLE XON XOFF NAK
    static QuoteSet All();
    bool Quotes(uint8_t c) const;
    void Add(uint8_t c);
    QuoteSet Union(const QuoteSet &other) const;
};

// The checksum and both CRCs over one packet as it goes by (sequence
// character, data, ETX, then the check bytes when reading); `method` picks
// X.25 (2) or CCITT (otherwise) for the CRC-16.
struct RunningChecks {
    int method = 0;
    uint8_t sum = 0;
    uint16_t crc16 = 0xFFFF;
    uint32_t crc32 = 0xFFFFFFFFu;
    void Feed(uint8_t b);
};

// One packet on the wire: DLE 'B', '0' + seq, the data quoted by `quote`,
// ETX, the check bytes of `checkMethod` (0 checksum, 1 CRC-16 CCITT, 2 X.25,
// 3 CRC-32).
std::vector<uint8_t> FramePacket(int seq, const std::vector<uint8_t> &data, int checkMethod,
                                 const QuoteSet &quote);

} // namespace bplus_wire

// The byte stream the service runs on.
class ServiceLine {
  public:
    static constexpr int kTimeout = -1;
    static constexpr int kLost = -2;
    virtual ~ServiceLine() = default;
    // One byte, or kTimeout after `timeoutMs`, or kLost when the line is gone.
    virtual int Read(int timeoutMs) = 0;
    // All bytes out; false when the line is gone or stays full.
    virtual bool Write(const uint8_t *data, std::size_t length) = 0;
};

// A ServiceLine over a library port (a LineHost's, a LinkPair end's).
class PortServiceLine : public ServiceLine {
  public:
    explicit PortServiceLine(XferPort *port, std::function<bool()> stop = {})
        : port_(port), stop_(std::move(stop)) {}
    int Read(int timeoutMs) override;
    bool Write(const uint8_t *data, std::size_t length) override;

  private:
    XferPort *port_;
    std::function<bool()> stop_;
};

struct ServiceRequest {
    enum Kind { Download, Upload };
    Kind kind = Download;
    // Download: the local file sent.  Upload: the name asked of the
    // terminal; its last part is the file written in the service's folder.
    std::string path;
    // The name sent in the request.  Download: default the file's base
    // name; upload: default `path` (another name tries the terminal).
    std::string remoteName;
    char fileType = 'B'; // 'A' or 'B'
};

// Misbehaviour.  Packet counts are the service's numbered packets of one
// request in the order they are first sent (the '+' packet is 1);
// acknowledgement counts run over the request's acknowledgements.
struct ServiceFault {
    enum What {
        DropPacket,   // not sent the first time
        DamagePacket, // a check byte changed the first time
        RepeatPacket, // sent twice
        DropAck,      // not sent
        DamageAck,    // DLE and a letter instead of the digit
        RepeatAck,    // sent twice
        SilentFrom,   // from this packet on nothing more is written
        FailAt,       // the Nth data packet of a download is a failure packet instead
    };
    What what = DropPacket;
    int at = 1;
    char code = 'A'; // FailAt: the failure code letter
};

struct BPlusServiceConfig {
    // Offered transport parameters.
    int sendWindow = 1;
    int receiveWindow = 1;
    int blockSize = 8;   // 1..8: packets of up to 128 x blockSize + 1 data bytes
    int checkMethod = 1; // 0..3
    bplus_wire::QuoteSet quote = bplus_wire::QuoteSet::Default();
    int downloadResume = 0; // non-zero: a terminal may resume a download
    int uploadResume = 0;
    int fileInfo = 0; // non-zero: a 'T' 'I' packet before the data
    bool sendParameters = true;
    int parametersLength = 18; // shorter packets leave out the later bytes
    // Packets sent beyond the negotiated window before an acknowledgement
    // is awaited (a terminal allows itself two).
    int extraAhead = 0;

    bool greet = true; // start the session with ENQ
    int readTimeoutMs = 10000;
    int maxErrors = 10;
    int lingerMs = 0;         // after the last request: answer the terminal this long
    std::string folder = "."; // where uploads land
    std::vector<ServiceFault> faults;
    std::function<void(const std::string &)> log; // one line per event; empty: none
};

struct RequestReport {
    ServiceRequest request;
    bool ok = false;
    std::string why;          // the reason when not ok
    uint64_t bytes = 0;       // file bytes sent or received in this request
    uint32_t crc32 = 0;       // CRC-32 of the whole file at the end
    uint64_t fileSize = 0;    // size of the whole file at the end
    int checkMethod = 0;      // in use for the data
    int64_t resumePoint = -1; // the terminal's resume point (-1: none)
    uint32_t resumeWord = 0;  // its check word
    bool restarted = false;   // the resume point did not match: 'T' 'f' sent
    char failureCode = 0;     // a failure packet's code letter, either way
    uint32_t resends = 0;     // packets sent again
    uint32_t errors = 0;
};

class BPlusService {
  public:
    BPlusService(ServiceLine &line, BPlusServiceConfig config);
    ~BPlusService();
    BPlusService(const BPlusService &) = delete;
    BPlusService &operator=(const BPlusService &) = delete;

    // ENQ until the terminal answers DLE '+' '+' (at most three times).
    bool Greet();
    // One request from its transport parameters to its end.
    RequestReport Serve(const ServiceRequest &request);
    // Greet (when configured), every request in order, then linger.  A
    // failed greeting fails every request.
    std::vector<RequestReport> Run(const std::vector<ServiceRequest> &requests);

  private:
    class Session;
    ServiceLine &line_;
    BPlusServiceConfig config_;
    std::vector<bool> fired_; // per fault: already done
    int lastCounter_ = 0;     // the last request's sequence counter, for lingering
};

} // namespace zvxfer::host
