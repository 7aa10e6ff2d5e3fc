// One XMODEM block as bytes: its checks, what surrounds its data, the whole
// block built, and a block read back from bytes at hand.  No I/O here: the
// sender and the receiver build on these, and so do the tests.
#include <cstring>

#include "core/crc16.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {

uint8_t XmChecksum(std::span<const uint8_t> data) {
    uint32_t sum = 0;
    for (uint8_t b : data) sum += b;
    return static_cast<uint8_t>(sum);
}

int32_t XmBlockCheck(std::span<const uint8_t> data, bool crc) {
    if (crc) return Crc16Block(static_cast<uint32_t>(data.size()), 0, data.data());
    return XmChecksum(data);
}

XmBlockFrame XmFrameBlock(uint8_t number, std::span<const uint8_t> data, bool crc) {
    XmBlockFrame frame{};
    frame.head = {data.size() == 128 ? SOH : STX, number, static_cast<uint8_t>(~number)};
    const auto check = static_cast<uint32_t>(XmBlockCheck(data, crc));
    if (crc) {
        frame.check = {static_cast<uint8_t>(check >> 8), static_cast<uint8_t>(check & 0xFF)};
        frame.checkLength = 2;
    } else {
        frame.check = {static_cast<uint8_t>(check), 0};
        frame.checkLength = 1;
    }
    return frame;
}

std::size_t XmBuildBlock(std::span<uint8_t> out, uint8_t number, std::span<const uint8_t> data,
                         bool crc) {
    const XmBlockFrame frame = XmFrameBlock(number, data, crc);
    uint8_t *p = out.data();
    std::memcpy(p, frame.head.data(), frame.head.size());
    p += frame.head.size();
    if (!data.empty()) std::memcpy(p, data.data(), data.size());
    p += data.size();
    std::memcpy(p, frame.check.data(), frame.checkLength);
    p += frame.checkLength;
    return static_cast<std::size_t>(p - out.data());
}

XmParsedBlock XmParseBlock(std::span<const uint8_t> bytes, bool crc) {
    XmParsedBlock parsed;
    if (bytes.empty() || (bytes[0] != SOH && bytes[0] != STX)) return parsed;
    parsed.verdict = XmBlockVerdict::Incomplete;
    if (bytes.size() < 3) return parsed;
    // The receiver judges the number before it reads the data.
    if (!XmNumberValid(bytes[1], bytes[2])) {
        parsed.verdict = XmBlockVerdict::BadNumber;
        return parsed;
    }
    parsed.number = bytes[1];
    const std::size_t dataLength = bytes[0] == SOH ? 128 : 1024;
    const std::size_t checkLength = crc ? 2 : 1;
    if (bytes.size() < 3 + dataLength + checkLength) return parsed;
    parsed.data = bytes.subspan(3, dataLength);
    parsed.length = 3 + dataLength + checkLength;
    const std::span<const uint8_t> check = bytes.subspan(3 + dataLength, checkLength);
    const int32_t received = crc ? check[0] * 256 + check[1] : check[0];
    parsed.verdict = received == XmBlockCheck(parsed.data, crc) ? XmBlockVerdict::Good
                                                                : XmBlockVerdict::BadCheck;
    return parsed;
}

} // namespace zvxfer::xm
