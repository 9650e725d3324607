// With AVX2: UTF-8 to UTF-32 thirty-two bytes a step, characters of one to three bytes decoded in
// 16-bit lanes and packed by table shuffles, four-byte ones on their own; UTF-32 to UTF-8 eight
// characters a step, each character's bytes built at the end of its 32-bit lane, the lead first,
// and gathered with one shuffle per four characters.
#include "utf8blocks.h"

#if defined(__x86_64__)

#include <cstdint>
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

// For eight 16-bit values and a mask of those to keep, the byte shuffle that packs the kept
// values to the front.
struct WordPack {
    unsigned char shuffle[256][16];
    constexpr WordPack() : shuffle() {
        for (int mask = 0; mask < 256; ++mask) {
            int at = 0;
            for (int word = 0; word < 8; ++word)
                if (mask >> word & 1) {
                    shuffle[mask][at++] = static_cast<unsigned char>(2 * word);
                    shuffle[mask][at++] = static_cast<unsigned char>(2 * word + 1);
                }
            while (at < 16)
                shuffle[mask][at++] = 0x80;
        }
    }
};
alignas(16) constexpr WordPack kWordPack;

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

// Packs the eight 16-bit values of `values` that `keep` marks, widens them and stores them at
// `out` (a whole vector of eight: there is room). Returns how many there were.
LLIB_AVX2 inline unsigned int PackWords(__m128i values, unsigned int keep, wchar_t* out) {
    const __m128i packed = _mm_shuffle_epi8(
        values, _mm_load_si128(reinterpret_cast<const __m128i*>(kWordPack.shuffle[keep])));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_cvtepu16_epi32(packed));
    return static_cast<unsigned int>(__builtin_popcount(keep));
}

// Decodes sixteen positions of a checked block: each position's value as if it led a
// character, from the byte itself and the two after it, in 16-bit lanes (every such value fits),
// the leads' values packed by a table shuffle per eight positions. Returns the characters.
LLIB_AVX2 inline unsigned int DecodeSixteen(__m128i bytes, __m128i next, __m128i after,
                                            __m128i twoBytes, __m128i threeBytes, bool three,
                                            unsigned int keep, wchar_t* out) {
    const __m256i b = _mm256_cvtepu8_epi16(bytes);
    const __m256i mask6 = _mm256_set1_epi16(0x3F);
    const __m256i n1 = _mm256_and_si256(_mm256_cvtepu8_epi16(next), mask6);
    // Two bytes: (b << 6) & 0x7C0 | n1.
    const __m256i pair =
        _mm256_or_si256(_mm256_and_si256(_mm256_slli_epi16(b, 6), _mm256_set1_epi16(0x7C0)), n1);
    __m256i values = _mm256_blendv_epi8(b, pair, _mm256_cvtepi8_epi16(twoBytes));
    if (three) {
        // Three bytes: b << 12 | n1 << 6 | n2 (the lead's marks shifted out of the lane).
        const __m256i n2 = _mm256_and_si256(_mm256_cvtepu8_epi16(after), mask6);
        const __m256i triple = _mm256_or_si256(
            _mm256_or_si256(_mm256_slli_epi16(b, 12), _mm256_slli_epi16(n1, 6)), n2);
        values = _mm256_blendv_epi8(values, triple, _mm256_cvtepi8_epi16(threeBytes));
    }
    const unsigned int first = PackWords(_mm256_castsi256_si128(values), keep & 0xFF, out);
    return first + PackWords(_mm256_extracti128_si256(values, 1), keep >> 8 & 0xFF, out + first);
}

LLIB_AVX2 inline __m256i Load32(const void* at) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(at));
}

// Decodes the first `limit` bytes of a block that is not all ASCII (the characters of one to
// three bytes that start there; the last may end in the two bytes after a whole block). Returns
// the bytes consumed, or 0 when they are malformed.
LLIB_AVX2 __attribute__((always_inline)) inline unsigned int
DecodeBlock(const unsigned char* at, __m256i bytes, unsigned int high, unsigned int limit,
            wchar_t*& to) {
    const uint64_t region = (uint64_t{1} << limit) - 1;
    // Compared as signed bytes: 80 to BF are -128 to -65, C2 to DF -62 to -33, E0 to EF -32
    // to -17.
    const __m256i next = Load32(at + 1);
    const __m256i twoBytes = _mm256_and_si256(_mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(-63)),
                                              _mm256_cmpgt_epi8(_mm256_set1_epi8(-32), bytes));
    const __m256i threeBytes = _mm256_and_si256(_mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(-33)),
                                                _mm256_cmpgt_epi8(_mm256_set1_epi8(-16), bytes));
    const uint64_t trailing = region & static_cast<unsigned int>(_mm256_movemask_epi8(
                                           _mm256_cmpgt_epi8(_mm256_set1_epi8(-64), bytes)));
    const uint64_t two = region & static_cast<unsigned int>(_mm256_movemask_epi8(twoBytes));
    const uint64_t three = region & static_cast<unsigned int>(_mm256_movemask_epi8(threeBytes));
    // Well formed: every byte above 7F a lead or a trailing byte, trailing bytes exactly where
    // the leads say (the two after the block included), no overlong form after E0 and no
    // surrogate after ED.
    const uint64_t wanted = (two | three) << 1 | three << 2;
    const unsigned int spill = static_cast<unsigned int>(wanted >> 32);
    if ((two | three | trailing) != (high & region) || (wanted & 0xFFFFFFFF) != trailing ||
        ((spill & 1) != 0 && (at[32] & 0xC0) != 0x80) ||
        ((spill & 2) != 0 && (at[33] & 0xC0) != 0x80))
        return 0;
    if (three != 0) {
        const __m256i overlong = _mm256_and_si256(_mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(-32)),
                                                  _mm256_cmpgt_epi8(_mm256_set1_epi8(-96), next));
        const __m256i surrogate = _mm256_and_si256(_mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(-19)),
                                                   _mm256_cmpgt_epi8(next, _mm256_set1_epi8(-97)));
        if ((region & static_cast<unsigned int>(
                          _mm256_movemask_epi8(_mm256_or_si256(overlong, surrogate)))) != 0)
            return 0;
    }
    const __m256i after = three != 0 ? Load32(at + 2) : _mm256_setzero_si256();
    const unsigned int keep = static_cast<unsigned int>(~trailing & region);
    to += DecodeSixteen(_mm256_castsi256_si128(bytes), _mm256_castsi256_si128(next),
                        _mm256_castsi256_si128(after), _mm256_castsi256_si128(twoBytes),
                        _mm256_castsi256_si128(threeBytes), three != 0, keep & 0xFFFF, to);
    to += DecodeSixteen(_mm256_extracti128_si256(bytes, 1), _mm256_extracti128_si256(next, 1),
                        _mm256_extracti128_si256(after, 1), _mm256_extracti128_si256(twoBytes, 1),
                        _mm256_extracti128_si256(threeBytes, 1), three != 0, keep >> 16, to);
    return limit + static_cast<unsigned int>(__builtin_popcount(spill));
}

} // namespace

LLIB_AVX2 DecodePosition DecodeBlocksAvx2(DecodePosition position, unsigned long /* allowance */,
                                          const unsigned char* known) {
    const unsigned char*& at = position.in;
    wchar_t*& to = position.out;
    // A step reads the two bytes after the thirty-two, and writes up to thirty-two characters:
    // the allowance covers what is known, so there is room.
    while (known - at >= 34) {
        const __m256i bytes = Load32(at);
        const unsigned int high = static_cast<unsigned int>(_mm256_movemask_epi8(bytes));
        if (high == 0) {
            for (int quarter = 0; quarter < 4; ++quarter)
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + 8 * quarter),
                                    _mm256_cvtepu8_epi32(_mm_loadl_epi64(
                                        reinterpret_cast<const __m128i*>(at + 8 * quarter))));
            at += 32;
            to += 32;
            continue;
        }
        // Bytes of F0 and above (signed, -16 to -1): the block is taken up to the first, and
        // the four-byte character it leads is decoded on its own after that.
        const unsigned int above = high & static_cast<unsigned int>(_mm256_movemask_epi8(
                                              _mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(-17))));
        if (above == 0) {
            const unsigned int consumed = DecodeBlock(at, bytes, high, 32, to);
            if (consumed == 0)
                break;
            at += consumed;
            continue;
        }
        const unsigned int limit = static_cast<unsigned int>(__builtin_ctz(above));
        if (limit > 0 && DecodeBlock(at, bytes, high, limit, to) == 0)
            break;
        at += limit;
        // The four-byte character, when it lies within what is known: F0 to F4, the second
        // byte from 90 after F0 and to 8F after F4, and three trailing bytes.
        if (known - at < 4)
            break;
        const unsigned int lead = at[0], b1 = at[1], b2 = at[2], b3 = at[3];
        if (lead > 0xF4 || (b1 ^ 0x80) > 0x3F || (b2 ^ 0x80) > 0x3F || (b3 ^ 0x80) > 0x3F ||
            (lead == 0xF0 && b1 < 0x90) || (lead == 0xF4 && b1 > 0x8F))
            break;
        *to++ = static_cast<wchar_t>((lead & 0x07) << 18 | (b1 & 0x3F) << 12 | (b2 & 0x3F) << 6 |
                                     (b3 & 0x3F));
        at += 4;
    }
    return position;
}

namespace {

// Encodes the first `count` of eight characters (the lanes after them are zero) when none is
// above U+10FFFF; false, with nothing written, otherwise. Each character's bytes are built at the
// end of its lane (the lead first) and then gathered. Writes up to 32 bytes.
LLIB_AVX2 __attribute__((always_inline)) inline bool
EncodeEight(__m256i v, unsigned int count, unsigned char*& out, unsigned long& room) {
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
    // Lanes past `count` are zero, one byte each after the characters' bytes.
    const unsigned int length = kByteGather.length[low] + kByteGather.length[high] - (8 - count);
    out += static_cast<long>(length) - kByteGather.length[low];
    room -= length;
    return true;
}

} // namespace

LLIB_AVX2 EncodePosition EncodeBlocksAvx2(EncodePosition position, unsigned long left,
                                          const wchar_t* known) {
    const wchar_t*& at = position.source;
    unsigned char*& to = position.out;
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
        if (!EncodeEight(a, 8, to, left))
            break;
        at += 8;
        if (!EncodeEight(b, 8, to, left))
            break;
        at += 8;
    }
    // The rest eight at a time (two gathers of sixteen bytes at most), the lanes past the known
    // characters read as zero.
    while (known - at > 0 && left >= 32) {
        const long rest = known - at;
        const unsigned int count = rest < 8 ? static_cast<unsigned int>(rest) : 8;
        const __m256i present = _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(count)),
                                                   _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256i v = _mm256_maskload_epi32(reinterpret_cast<const int*>(at), present);
        if (_mm256_testz_si256(v, aboveAscii)) {
            const __m128i words =
                _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(words, words));
            to += count;
            left -= count;
        } else if (!EncodeEight(v, count, to, left)) {
            break;
        }
        at += count;
    }
    return position;
}

} // namespace llib_utf8

#endif
