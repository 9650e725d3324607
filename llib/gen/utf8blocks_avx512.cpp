// UTF-8 to UTF-32 sixty-four bytes a step, and UTF-32 to UTF-8 sixteen characters a step, with
// AVX-512 (byte permutes and byte compression included).
#include "utf8blocks.h"

#if defined(__x86_64__)

#include <cstdint>
#include <immintrin.h>

// GCC 12's AVX-512 intrinsics start their results from _mm512_undefined_epi32(), which its
// maybe-uninitialized analysis reports once they are inlined here (GCC bug 105593).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Compiled for these extensions whatever the rest of the library targets; runs only after the
// processor has said it has them.
#define LLIB_AVX512                                                                                \
    __attribute__((target("avx512f,avx512bw,avx512vl,avx512cd,avx512vbmi,avx512vbmi2,bmi2,"        \
                          "popcnt")))

namespace llib_utf8 {
namespace {

// Byte indexes: every position of a block; for each of four groups of sixteen 32-bit lanes, the
// lead each lane takes (16 * group + lane, in all four of its bytes); and the byte after each
// position of a block.
struct Indexes {
    unsigned char position[64];
    unsigned char laneOf[4][64];
    unsigned char next[64];
    constexpr Indexes() : position(), laneOf(), next() {
        for (int i = 0; i < 64; ++i) {
            position[i] = static_cast<unsigned char>(i);
            for (int group = 0; group < 4; ++group)
                laneOf[group][i] = static_cast<unsigned char>(16 * group + i / 4);
            next[i] = static_cast<unsigned char>(i + 1);
        }
    }
};
alignas(64) constexpr Indexes kIndexes;

// For a byte from C0 to FF (by its low six bits), the range of the second byte of a character
// it leads: 80 to BF, from A0 after E0 (shorter forms are overlong), to 9F after ED (beyond are
// surrogates), from 90 after F0, to 8F after F4 (beyond U+10FFFF); an empty range after C0, C1
// and F5 to FF, which lead nothing.
struct SecondByteRange {
    unsigned char lowest[64];
    unsigned char highest[64];
    constexpr SecondByteRange() : lowest(), highest() {
        for (int i = 0; i < 64; ++i) {
            const int lead = 0xC0 + i;
            const bool never = lead < 0xC2 || lead > 0xF4;
            lowest[i] = static_cast<unsigned char>(never          ? 0xFF
                                                   : lead == 0xE0 ? 0xA0
                                                   : lead == 0xF0 ? 0x90
                                                                  : 0x80);
            highest[i] = static_cast<unsigned char>(never          ? 0x00
                                                    : lead == 0xED ? 0x9F
                                                    : lead == 0xF4 ? 0x8F
                                                                   : 0xBF);
        }
    }
};
alignas(64) constexpr SecondByteRange kSecond;

LLIB_AVX512 inline __m512i Bytes(int value) {
    return _mm512_set1_epi8(static_cast<char>(value));
}

LLIB_AVX512 inline __m512i Lanes(unsigned int value) {
    return _mm512_set1_epi32(static_cast<int>(value));
}

LLIB_AVX512 inline __m512i Load64(const void* at) {
    return _mm512_loadu_si512(at);
}

// Stores the first `count` (at most sixteen) of the lanes: all sixteen when the destination has
// room (masked stores are slow on some processors), only those otherwise.
LLIB_AVX512 inline void StoreLanes(wchar_t* out, __m512i lanes, unsigned int count, bool roomy) {
    if (roomy)
        _mm512_storeu_si512(out, lanes);
    else
        _mm512_mask_storeu_epi32(out, static_cast<__mmask16>((1u << count) - 1), lanes);
}

// Decodes thirty-two positions of a checked block of one- and two-byte characters in 16-bit
// lanes: each position's value as if it led a character (the byte itself, or its five bits and
// the next byte's six), the leads' values packed to the front and widened.
LLIB_AVX512 inline wchar_t* DecodeHalf(__m256i bytes, __m256i nexts, __mmask32 leads, __mmask32 two,
                                       bool roomy, wchar_t* out) {
    const __m512i b = _mm512_cvtepu8_epi16(bytes);
    const __m512i n = _mm512_and_si512(_mm512_cvtepu8_epi16(nexts), _mm512_set1_epi16(0x3F));
    // (b << 6) & 0x7C0 | n
    const __m512i pair =
        _mm512_ternarylogic_epi32(_mm512_slli_epi16(b, 6), _mm512_set1_epi16(0x7C0), n, 0xEA);
    const __m512i values = _mm512_maskz_compress_epi16(leads, _mm512_mask_mov_epi16(b, two, pair));
    const unsigned int count = static_cast<unsigned int>(__builtin_popcount(leads));
    const unsigned int lowCount = count < 16 ? count : 16;
    StoreLanes(out, _mm512_cvtepu16_epi32(_mm512_castsi512_si256(values)), lowCount, roomy);
    StoreLanes(out + 16, _mm512_cvtepu16_epi32(_mm512_extracti64x4_epi64(values, 1)),
               count - lowCount, roomy);
    return out + count;
}

// Decodes a checked block of one- and two-byte characters, thirty-two positions at a time.
LLIB_AVX512 inline wchar_t* DecodeOneAndTwoByte(__m512i block, __m512i after, uint64_t leads,
                                                uint64_t two, bool roomy, wchar_t* out) {
    const __m512i second = _mm512_permutex2var_epi8(block, Load64(kIndexes.next), after);
    out = DecodeHalf(_mm512_castsi512_si256(block), _mm512_castsi512_si256(second),
                     static_cast<__mmask32>(leads), static_cast<__mmask32>(two), roomy, out);
    return DecodeHalf(_mm512_extracti64x4_epi64(block, 1), _mm512_extracti64x4_epi64(second, 1),
                      static_cast<__mmask32>(leads >> 32), static_cast<__mmask32>(two >> 32), roomy,
                      out);
}

// Decodes a checked block of characters of any length, by the positions of the leads, in
// order, sixteen at a time: each lead's four bytes in a lane (b0 highest), the trailing bytes'
// marks and the lead's top bit off, the 6-bit fields joined as b0 << 18 | b1 << 12 | b2 << 6 |
// b3, the bytes beyond the character shifted out and the lead's length marks masked off.
LLIB_AVX512 inline wchar_t* DecodeAnyLength(__m512i block, __m512i after, uint64_t leads,
                                            bool roomy, wchar_t* out) {
    // By a lead byte's high nibble: how far the joined fields are shifted down, and the bits of
    // the value that are left.
    const __m512i shiftByNibble =
        _mm512_setr_epi32(18, 18, 18, 18, 18, 18, 18, 18, 0, 0, 0, 0, 12, 12, 6, 0);
    const __m512i valueByNibble = _mm512_setr_epi32(0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F,
                                                    0, 0, 0, 0, 0x7FF, 0x7FF, 0xFFFF, 0x1FFFFF);
    const int characters = __builtin_popcountll(leads);
    const __m512i leadPositions = _mm512_maskz_compress_epi8(leads, Load64(kIndexes.position));
    for (int first = 0; first < characters; first += 16) {
        __m512i gather =
            _mm512_permutexvar_epi8(Load64(kIndexes.laneOf[first / 16]), leadPositions);
        gather = _mm512_add_epi8(gather, Lanes(0x00010203));
        __m512i lanes = _mm512_permutex2var_epi8(block, gather, after);
        const __m512i nibble = _mm512_srli_epi32(lanes, 28);
        lanes = _mm512_and_si512(lanes, Lanes(0x7F3F3F3F));
        lanes = _mm512_maddubs_epi16(lanes, _mm512_set1_epi16(0x4001));
        lanes = _mm512_madd_epi16(lanes, Lanes(0x10000001));
        lanes = _mm512_and_si512(
            _mm512_srlv_epi32(lanes, _mm512_permutexvar_epi32(nibble, shiftByNibble)),
            _mm512_permutexvar_epi32(nibble, valueByNibble));
        const int count = characters - first < 16 ? characters - first : 16;
        StoreLanes(out, lanes, static_cast<unsigned int>(count), roomy);
        out += count;
    }
    return out;
}

// Widens the first `count` bytes of an ASCII block.
LLIB_AVX512 inline void WidenAscii(__m512i block, unsigned long count, bool roomy, wchar_t* out) {
    const __m128i quarters[4] = {_mm512_castsi512_si128(block), _mm512_extracti32x4_epi32(block, 1),
                                 _mm512_extracti32x4_epi32(block, 2),
                                 _mm512_extracti32x4_epi32(block, 3)};
    if (roomy) {
        for (int quarter = 0; quarter < 4; ++quarter)
            _mm512_storeu_si512(out + 16 * quarter, _mm512_cvtepu8_epi32(quarters[quarter]));
        return;
    }
    for (unsigned long at = 0; at < count; at += 16)
        StoreLanes(out + at, _mm512_cvtepu8_epi32(quarters[at / 16]),
                   static_cast<unsigned int>(count - at < 16 ? count - at : 16), false);
}

// Decodes a block that is not all ASCII: the 64 bytes of `block` (a short one reading as zero
// past the bytes `present` marks), with the bytes after a whole block in `after`. Returns the
// bytes consumed (the block and the rest of a character it cuts), or 0 when the block is
// malformed.
LLIB_AVX512 __attribute__((always_inline)) inline unsigned long
DecodeMultibyte(__m512i block, __m512i after, uint64_t present, bool roomy, wchar_t*& out) {
    // Well formed: trailing bytes exactly where the leads say (in the block and in the three
    // bytes after it; the block starts at a lead), and each lead's second byte in its range.
    const uint64_t trailing = _mm512_cmplt_epi8_mask(block, Bytes(0xC0)); // 80 to BF
    const uint64_t two = _mm512_cmpge_epu8_mask(block, Bytes(0xC0));
    const uint64_t three = _mm512_cmpge_epu8_mask(block, Bytes(0xE0));
    const uint64_t four = _mm512_cmpge_epu8_mask(block, Bytes(0xF0));
    const uint64_t wanted = two << 1 | three << 2 | four << 3;
    const uint64_t spill = two >> 63 | three >> 62 | four >> 61;
    const uint64_t trailingAfter = _mm512_cmplt_epi8_mask(after, Bytes(0xC0));
    uint64_t bad = (wanted ^ trailing) | (spill & ~trailingAfter);
    if (three == 0) {
        // Only one- and two-byte characters: C0 and C1 are the leads to refuse.
        bad |= _mm512_mask_cmplt_epu8_mask(two, block, Bytes(0xC2));
    } else {
        const __m512i second = _mm512_permutex2var_epi8(block, Load64(kIndexes.next), after);
        bad |= _mm512_mask_cmplt_epu8_mask(two, second,
                                           _mm512_permutexvar_epi8(block, Load64(kSecond.lowest)));
        bad |= _mm512_mask_cmpgt_epu8_mask(two, second,
                                           _mm512_permutexvar_epi8(block, Load64(kSecond.highest)));
    }
    if (bad != 0)
        return 0;
    const uint64_t leads = ~trailing & present;
    out = three == 0 ? DecodeOneAndTwoByte(block, after, leads, two, roomy, out)
                     : DecodeAnyLength(block, after, leads, roomy, out);
    return static_cast<unsigned long>(__builtin_popcountll(present) + __builtin_popcountll(spill));
}

LLIB_AVX512 __attribute__((always_inline)) inline void DecodeSteps(const unsigned char*& in,
                                                                   wchar_t*& out,
                                                                   unsigned long& allowance,
                                                                   const unsigned char* known) {
    // Whole blocks (the allowance covers what is known, so there is room for a block's
    // characters), each with the bytes after it as far as they are known. A zero (past what is
    // known) continues no character, so a character cut there makes the block fail its check.
    while (known - in >= 64) {
        const __m512i block = Load64(in);
        unsigned long consumed = 64;
        if (_mm512_movepi8_mask(block) == 0) {
            WidenAscii(block, 64, true, out);
            out += 64;
        } else {
            const long rest = known - in - 64;
            const __m512i after =
                _mm512_maskz_loadu_epi8(rest >= 64 ? ~0ULL : (1ULL << rest) - 1, in + 64);
            consumed = DecodeMultibyte(block, after, ~0ULL, true, out);
            if (consumed == 0)
                return;
        }
        in += consumed;
        allowance -= consumed;
    }
    // The known bytes left, fewer than 64, the rest of the block reading as zero. Outside the
    // loop, a short text does not load the constants only whole blocks use.
    const long available = known - in;
    if (available <= 0)
        return;
    const uint64_t present = (1ULL << available) - 1;
    const __m512i block = _mm512_maskz_loadu_epi8(present, in);
    const bool roomy = allowance >= 64;
    unsigned long consumed = static_cast<unsigned long>(available);
    if (_mm512_movepi8_mask(block) == 0) {
        WidenAscii(block, consumed, roomy, out);
        out += consumed;
    } else {
        consumed = DecodeMultibyte(block, _mm512_setzero_si512(), present, roomy, out);
    }
    in += consumed;
    allowance -= consumed;
}

LLIB_AVX512 __attribute__((always_inline)) inline void EncodeSteps(const wchar_t*& source,
                                                                   unsigned char*& out,
                                                                   unsigned long& room,
                                                                   const wchar_t* known) {
    // The bytes of each character are built at the end of its lane, the lead first: four 8-bit
    // windows of the value, from bit 18, 12, 6 and 0, cut to their six value bits (seven for a
    // single byte) and given the marks of the character's length.
    const __m512i windows = _mm512_set1_epi64(0x20262C3200060C12);
    // By the value's count of leading zero bits: the marks of a one-, two-, three- or four-byte
    // character (a lane that is not kept has none).
    const __m512i marksLow = _mm512_setr_epi32(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x808080F0u,
                                               0x808080F0u, 0x808080F0u, 0x808080F0u, 0x808080F0u);
    const __m512i marksHigh =
        _mm512_setr_epi32(0x8080E000u, 0x8080E000u, 0x8080E000u, 0x8080E000u, 0x8080E000u,
                          0x80C00000u, 0x80C00000u, 0x80C00000u, 0x80C00000u, 0, 0, 0, 0, 0, 0, 0);
    for (;;) {
        // Sixteen characters, or the known ones left (the rest reading as zero).
        const long available = known - source;
        if (available <= 0)
            return;
        const bool whole = available >= 16;
        const __mmask16 present =
            whole ? static_cast<__mmask16>(0xFFFF) : static_cast<__mmask16>((1u << available) - 1);
        const __m512i v = _mm512_maskz_loadu_epi32(present, source);
        if (_mm512_cmpgt_epu32_mask(v, Lanes(0x10FFFF)) != 0)
            return;
        const __mmask16 ascii = _mm512_cmple_epu32_mask(v, Lanes(0x7F));
        if (whole && ascii == 0xFFFF && room >= 16) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm512_cvtepi32_epi8(v));
            source += 16;
            out += 16;
            room -= 16;
            continue;
        }
        const __m512i marks = _mm512_permutex2var_epi32(marksLow, _mm512_lzcnt_epi32(v), marksHigh);
        const __m512i valueBits =
            _mm512_mask_mov_epi32(Lanes(0x3F3F3F3F), ascii, Lanes(0x7F3F3F3F));
        // (windows & valueBits) | marks
        const __m512i bytes = _mm512_ternarylogic_epi32(_mm512_multishift_epi64_epi8(windows, v),
                                                        valueBits, marks, 0xEA);
        // A character's bytes are its marked bytes and its last byte.
        const __mmask64 keep =
            _mm512_test_epi8_mask(marks, marks) | _pdep_u64(present, 0x8888888888888888ULL);
        const unsigned int length = static_cast<unsigned int>(__builtin_popcountll(keep));
        if (length > room)
            return;
        const __m512i packed = _mm512_maskz_compress_epi8(keep, bytes);
        if (room >= 64)
            _mm512_storeu_si512(out, packed);
        else
            _mm512_mask_storeu_epi8(out, length == 64 ? ~0ULL : (1ULL << length) - 1, packed);
        source += whole ? 16 : available;
        out += length;
        room -= length;
    }
}

} // namespace

LLIB_AVX512 DecodePosition DecodeBlocksAvx512(DecodePosition at, unsigned long allowance,
                                              const unsigned char* known) {
    DecodeSteps(at.in, at.out, allowance, known);
    return at;
}

LLIB_AVX512 EncodePosition EncodeBlocksAvx512(EncodePosition at, unsigned long room,
                                              const wchar_t* known) {
    EncodeSteps(at.source, at.out, room, known);
    return at;
}

} // namespace llib_utf8

#endif
