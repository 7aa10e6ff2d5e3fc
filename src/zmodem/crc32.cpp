// CRC-32 as ZMODEM uses it: IEEE 802.3, reflected (0xEDB88320).  Neither
// call inverts: a check starts from 0xFFFFFFFF and the sender puts the
// complement on the line.  Blocks go eight bytes a step through eight
// derived tables, or, on x86-64 processors with carry-less multiply, 64
// bytes a step by folding (the same result as the byte-wise update either
// way; folding is about ten times faster than the tables).
#include <array>
#include <cstddef>

#include "zmodem/zmodem.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#endif

namespace zvxfer::zm {
namespace {

using Table = std::array<uint32_t, 256>;

constexpr std::array<Table, 8> MakeCrc32Tables() {
    std::array<Table, 8> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        t[0][i] = crc;
    }
    // t[k][i]: the CRC of byte i followed by k zero bytes.
    for (int k = 1; k < 8; ++k)
        for (uint32_t i = 0; i < 256; ++i) t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF];
    return t;
}

constexpr auto kCrc32 = MakeCrc32Tables();
static_assert(kCrc32[0][1] == 0x77073096u);

inline uint32_t Load32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint32_t TableBlock(std::size_t count, uint32_t crc, const uint8_t *bytes) {
    for (; count >= 8; count -= 8, bytes += 8) {
        const uint32_t one = Load32(bytes) ^ crc;
        const uint32_t two = Load32(bytes + 4);
        crc = kCrc32[7][one & 0xFF] ^ kCrc32[6][(one >> 8) & 0xFF] ^ kCrc32[5][(one >> 16) & 0xFF] ^
              kCrc32[4][one >> 24] ^ kCrc32[3][two & 0xFF] ^ kCrc32[2][(two >> 8) & 0xFF] ^
              kCrc32[1][(two >> 16) & 0xFF] ^ kCrc32[0][two >> 24];
    }
    for (; count != 0; --count, ++bytes) crc = (crc >> 8) ^ kCrc32[0][(crc ^ *bytes) & 0xFF];
    return crc;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define ZVXFER_CRC32_FOLD 1

// Folding with carry-less multiplication: four 128-bit lanes advance 64
// bytes a step, fold into one, and the 128-bit remainder is reduced to
// the 32-bit CRC (Barrett reduction).  The constants are x^n mod P for the
// fold distances, bit-reflected to 33 bits, and for the reduction the
// reflected polynomial and floor(x^64 / P):
//   k1 = x^(4*128+32), k2 = x^(4*128-32), k3 = x^(128+32), k4 = x^(128-32),
//   k5 = x^64 (all mod P).
constexpr uint64_t kK1 = 0x154442bd4, kK2 = 0x1c6e41596;
constexpr uint64_t kK3 = 0x1751997d0, kK4 = 0x0ccaa009e;
constexpr uint64_t kK5 = 0x163cd6124;
constexpr uint64_t kPoly = 0x1db710641, kMu = 0x1f7011641;

[[gnu::target("pclmul,sse4.1")]] inline __m128i Fold(__m128i x, __m128i k, __m128i next) {
    return _mm_xor_si128(
        _mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x00), _mm_clmulepi64_si128(x, k, 0x11)), next);
}

[[gnu::target("pclmul,sse4.1")]] inline __m128i Load128(const uint8_t *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

// count is at least 64 and a multiple of 16.
[[gnu::target("pclmul,sse4.1")]] uint32_t FoldBlock(std::size_t count, uint32_t crc,
                                                    const uint8_t *bytes) {
    __m128i x0 = _mm_xor_si128(Load128(bytes), _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i x1 = Load128(bytes + 16), x2 = Load128(bytes + 32), x3 = Load128(bytes + 48);
    bytes += 64;
    count -= 64;
    const __m128i k1k2 = _mm_set_epi64x(static_cast<int64_t>(kK2), static_cast<int64_t>(kK1));
    for (; count >= 64; count -= 64, bytes += 64) {
        x0 = Fold(x0, k1k2, Load128(bytes));
        x1 = Fold(x1, k1k2, Load128(bytes + 16));
        x2 = Fold(x2, k1k2, Load128(bytes + 32));
        x3 = Fold(x3, k1k2, Load128(bytes + 48));
    }
    const __m128i k3k4 = _mm_set_epi64x(static_cast<int64_t>(kK4), static_cast<int64_t>(kK3));
    __m128i x = Fold(Fold(Fold(x0, k3k4, x1), k3k4, x2), k3k4, x3);
    for (; count >= 16; count -= 16, bytes += 16) x = Fold(x, k3k4, Load128(bytes));

    // 128 bits to 64, then to 32, then the Barrett reduction.
    const __m128i low32 = _mm_setr_epi32(-1, 0, -1, 0);
    x = _mm_xor_si128(_mm_srli_si128(x, 8), _mm_clmulepi64_si128(x, k3k4, 0x10));
    const __m128i k5 = _mm_set_epi64x(0, static_cast<int64_t>(kK5));
    x = _mm_xor_si128(_mm_srli_si128(x, 4),
                      _mm_clmulepi64_si128(_mm_and_si128(x, low32), k5, 0x00));
    const __m128i poly = _mm_set_epi64x(static_cast<int64_t>(kMu), static_cast<int64_t>(kPoly));
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x, low32), poly, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), poly, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(x, t), 1));
}

bool CanFold() {
    static const bool can = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    return can;
}
#endif

} // namespace

uint32_t Crc32Update(uint32_t crc, uint8_t byte) {
    return (crc >> 8) ^ kCrc32[0][(crc ^ byte) & 0xFF];
}

uint32_t Crc32Block(uint32_t count, uint32_t crc, const uint8_t *bytes) {
#ifdef ZVXFER_CRC32_FOLD
    if (count >= 64 && CanFold()) {
        const std::size_t folded = count & ~std::size_t{15};
        crc = FoldBlock(folded, crc, bytes);
        return TableBlock(count - folded, crc, bytes + folded);
    }
#endif
    return TableBlock(count, crc, bytes);
}

} // namespace zvxfer::zm
