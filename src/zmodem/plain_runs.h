// Copying runs of bytes that need no ZDLE treatment, sixteen at a time
// where the machine has SSE2: the sender's escaping and the receiver's
// subpacket reader spend nearly all their time in such runs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zvxfer::zm {

// The two byte sets that end a run.
//  - Escaped: what a sender puts on the line as ZDLE, value ^ 0x40: the
//    link's flow-control characters, CR (and their high-bit twins), DLE and
//    ZDLE itself.
//  - ReaderSpecial: what a subpacket reader must look at: ZDLE and raw
//    flow-control characters (which are never data).
enum class RunEnd { Escaped, ReaderSpecial };

constexpr bool EndsRun(uint8_t b, RunEnd set) {
    const bool special = b == 0x18 || (b & 0x7D) == 0x11; // ZDLE; XON, XOFF and twins
    if (set == RunEnd::ReaderSpecial) return special;
    return special || (b & 0x7F) == 0x10 || (b & 0x7F) == 0x0D;
}

template <RunEnd Set>
constexpr std::array<bool, 256> MakeRunEndTable() {
    std::array<bool, 256> table{};
    for (int b = 0; b < 256; ++b) table[b] = EndsRun(static_cast<uint8_t>(b), Set);
    return table;
}
template <RunEnd Set>
inline constexpr auto kRunEnd = MakeRunEndTable<Set>();

// Copy the longest head of in[0, n) that holds no byte of `Set` to out and
// return its length.  `out` must have room for n bytes: past the returned
// length it may hold scratch.
template <RunEnd Set>
std::size_t CopyPlainRun(uint8_t *out, const uint8_t *in, std::size_t n) {
    std::size_t i = 0;
#if defined(__SSE2__)
    const __m128i zdle = _mm_set1_epi8(0x18);
    const __m128i flowMask = _mm_set1_epi8(0x7D);
    const __m128i flow = _mm_set1_epi8(0x11);
    const __m128i lowMask = _mm_set1_epi8(0x7F);
    const __m128i dle = _mm_set1_epi8(0x10);
    const __m128i cr = _mm_set1_epi8(0x0D);
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i));
        __m128i hit =
            _mm_or_si128(_mm_cmpeq_epi8(v, zdle), _mm_cmpeq_epi8(_mm_and_si128(v, flowMask), flow));
        if constexpr (Set == RunEnd::Escaped) {
            const __m128i low = _mm_and_si128(v, lowMask);
            hit =
                _mm_or_si128(hit, _mm_or_si128(_mm_cmpeq_epi8(low, dle), _mm_cmpeq_epi8(low, cr)));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), v);
        const auto mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
        if (mask != 0) return i + static_cast<std::size_t>(__builtin_ctz(mask));
    }
#endif
    for (; i < n && !kRunEnd<Set>[in[i]]; ++i) out[i] = in[i];
    return i;
}

} // namespace zvxfer::zm
