// Byte helpers shared by the B+ tests, and packets as the B+ service's own
// framing code (host/, no part of the library) puts them on the line: what
// the engine's output is compared with and what it is fed.
#pragma once
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "bplus_service.h"

namespace zvxfer::bplus::test {

using Bytes = std::vector<uint8_t>;
namespace wire = host::bplus_wire;
constexpr uint8_t DLE = 0x10, ETX = 0x03, ENQ = 0x05, NAK = 0x15;

inline Bytes B(const std::string &s) {
    return Bytes(s.begin(), s.end());
}
inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
inline Bytes Ack(int seq) {
    return {DLE, static_cast<uint8_t>('0' + seq)};
}
// DLE 'B', the number, the data quoted, ETX and the check bytes.
inline Bytes Packet(int seq, const Bytes &data, int method = 0,
                    const wire::QuoteSet &quote = wire::QuoteSet::Default()) {
    return wire::FramePacket(seq, data, method, quote);
}
inline Bytes Packet(int seq, const std::string &data, int method = 0,
                    const wire::QuoteSet &quote = wire::QuoteSet::Default()) {
    return Packet(seq, B(data), method, quote);
}
// The first `n` bytes of `b`.
inline Bytes Head(const Bytes &b, std::size_t n) {
    return Bytes(b.begin(), b.begin() + static_cast<long>(std::min(n, b.size())));
}

} // namespace zvxfer::bplus::test
