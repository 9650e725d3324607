// UTF-32 to UTF-8 eight characters a step with AVX2: each character's bytes are built at the end
// of its 32-bit lane, the lead first, and gathered with one shuffle per four characters.
#include "utf8blocks.h"

#if defined(__x86_64__)

#include <immintrin.h>

// Compiled for AVX2 whatever the rest of the library targets; runs only after the processor has
// said it has it.
#define LLIB_AVX2 __attribute__((target("avx2")))

namespace llib_utf8 {
namespace {

// The encoder leaves each character's UTF-8 bytes at the end of its 32-bit lane. For the lengths
// less one of four characters, two bits each (the first character lowest), the byte shuffle that
// gathers those bytes and how many there are.
struct ByteGather {
    unsigned char shuffle[256][16];
    unsigned char length[256];
    constexpr ByteGather() : shuffle(), length() {
        for (int index = 0; index < 256; ++index) {
            int at = 0;
            for (int lane = 0; lane < 4; ++lane) {
                const int bytes = (index >> (2 * lane) & 3) + 1;
                for (int b = 4 - bytes; b < 4; ++b)
                    shuffle[index][at++] = static_cast<unsigned char>(lane * 4 + b);
            }
            length[index] = static_cast<unsigned char>(at);
            while (at < 16)
                shuffle[index][at++] = 0x80;
        }
    }
};
alignas(16) constexpr ByteGather kByteGather;

// Four mask bits moved to the low bits of four two-bit fields, so that adding the spread masks
// of "above 0x7F", "above 0x7FF" and "above 0xFFFF" gives each character's length less one.
constexpr unsigned char kSpread[16] = {0x00, 0x01, 0x04, 0x05, 0x10, 0x11, 0x14, 0x15,
                                       0x40, 0x41, 0x44, 0x45, 0x50, 0x51, 0x54, 0x55};

LLIB_AVX2 inline __m128i Load16(const void* at) {
    return _mm_loadu_si128(static_cast<const __m128i*>(at));
}

LLIB_AVX2 inline __m256i Lanes(unsigned int value) {
    return _mm256_set1_epi32(static_cast<int>(value));
}

// Encodes eight characters when none is above U+10FFFF; false, with nothing written, otherwise.
// Each character's bytes are built at the end of its lane (the lead first) and then gathered.
LLIB_AVX2 inline bool EncodeEight(const wchar_t* source, unsigned char*& out, unsigned long& room) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(source));
    const __m256i limit = Lanes(0x10FFFF);
    if (_mm256_movemask_epi8(_mm256_cmpeq_epi32(_mm256_max_epu32(v, limit), limit)) != -1)
        return false;
    const __m256i two = _mm256_cmpgt_epi32(v, Lanes(0x7F));
    const __m256i three = _mm256_cmpgt_epi32(v, Lanes(0x7FF));
    const __m256i four = _mm256_cmpgt_epi32(v, Lanes(0xFFFF));
    // The 6-bit fields, lowest in the last byte of the lane.
    __m256i bytes = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(_mm256_slli_epi32(v, 24), Lanes(0x3F000000)),
                        _mm256_and_si256(_mm256_slli_epi32(v, 10), Lanes(0x003F0000))),
        _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi32(v, 4), Lanes(0x00003F00)),
                        _mm256_srli_epi32(v, 18)));
    // The marks of each length, and the whole value for a single byte.
    const __m256i marks = _mm256_xor_si256(
        _mm256_xor_si256(_mm256_and_si256(two, Lanes(0x80C00000u)),
                         _mm256_and_si256(three, Lanes(0x80C00000u ^ 0x8080E000u))),
        _mm256_and_si256(four, Lanes(0x8080E000u ^ 0x808080F0u)));
    bytes = _mm256_or_si256(_mm256_or_si256(bytes, marks),
                            _mm256_andnot_si256(two, _mm256_slli_epi32(v, 24)));
    const unsigned int twos =
        static_cast<unsigned int>(_mm256_movemask_ps(_mm256_castsi256_ps(two)));
    const unsigned int threes =
        static_cast<unsigned int>(_mm256_movemask_ps(_mm256_castsi256_ps(three)));
    const unsigned int fours =
        static_cast<unsigned int>(_mm256_movemask_ps(_mm256_castsi256_ps(four)));
    const unsigned int low = kSpread[twos & 0xF] + kSpread[threes & 0xF] + kSpread[fours & 0xF];
    const unsigned int high = kSpread[twos >> 4] + kSpread[threes >> 4] + kSpread[fours >> 4];
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(out),
        _mm_shuffle_epi8(_mm256_castsi256_si128(bytes), Load16(kByteGather.shuffle[low])));
    out += kByteGather.length[low];
    _mm_storeu_si128(
        reinterpret_cast<__m128i*>(out),
        _mm_shuffle_epi8(_mm256_extracti128_si256(bytes, 1), Load16(kByteGather.shuffle[high])));
    out += kByteGather.length[high];
    room -= kByteGather.length[low] + kByteGather.length[high];
    return true;
}

} // namespace

LLIB_AVX2 void EncodeBlocksAvx2(const wchar_t*& source, unsigned char*& out, unsigned long& room,
                                const wchar_t* known) {
    // Local copies of the positions, so that stores through the destination (which could write
    // anything, as far as the compiler knows) do not make each step reload them.
    const wchar_t* at = source;
    unsigned char* to = out;
    unsigned long left = room;
    const __m256i aboveAscii = Lanes(~0x7Fu);
    while (known - at >= 16 && left >= 64) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 8));
        if (_mm256_testz_si256(_mm256_or_si256(a, b), aboveAscii)) {
            const __m128i low =
                _mm_packs_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
            const __m128i high =
                _mm_packs_epi32(_mm256_castsi256_si128(b), _mm256_extracti128_si256(b, 1));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(low, high));
            at += 16;
            to += 16;
            left -= 16;
            continue;
        }
        if (!EncodeEight(at, to, left))
            break;
        at += 8;
        if (!EncodeEight(at, to, left))
            break;
        at += 8;
    }
    source = at;
    out = to;
    room = left;
}

} // namespace llib_utf8

#endif
