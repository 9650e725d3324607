// UTF-8 coding many characters a step with the processor's vector instructions. A block coder
// stops where it cannot go on (a malformed block, a value above U+10FFFF, too little room, or
// what is left is shorter than the blocks it takes) and leaves that place to the coder's
// step-by-step path, which gives the exact result, including the result code.
#pragma once

#include <atomic>

namespace llib_utf8 {

// Decodes toward `known`, whole characters only. The bytes before `known` are neither the
// terminator nor beyond `allowance`, and the destination has room for `allowance` characters,
// which the decoder may write past the characters it decodes.
using DecodeBlocksFunction = void (*)(const unsigned char*& in, wchar_t*& out,
                                      unsigned long& allowance, const unsigned char* known);

// Encodes toward `known` (the characters before it are not the terminator) while the bytes fit
// `room`, the bytes the destination can still take.
using EncodeBlocksFunction = void (*)(const wchar_t*& source, unsigned char*& out,
                                      unsigned long& room, const wchar_t* known);

// The block coders in use, chosen for this processor when the library loads (null before that
// and when it has none). Read on every conversion, so kept where an inline load finds them.
extern std::atomic<DecodeBlocksFunction> gBlockDecoder;
extern std::atomic<EncodeBlocksFunction> gBlockEncoder;

inline DecodeBlocksFunction BlockDecoder() {
    return gBlockDecoder.load(std::memory_order_relaxed);
}

inline EncodeBlocksFunction BlockEncoder() {
    return gBlockEncoder.load(std::memory_order_relaxed);
}

// Vector instruction levels, each including the ones before it.
enum BlockLevel { kBlocksNone, kBlocksAvx2, kBlocksAvx512 };

// Uses no level above `level` from now on, so that every path can be tested on one machine.
void LimitBlockLevel(BlockLevel level);

void DecodeBlocksAvx2(const unsigned char*& in, wchar_t*& out, unsigned long& allowance,
                      const unsigned char* known);
void EncodeBlocksAvx2(const wchar_t*& source, unsigned char*& out, unsigned long& room,
                      const wchar_t* known);
void DecodeBlocksAvx512(const unsigned char*& in, wchar_t*& out, unsigned long& allowance,
                        const unsigned char* known);
void EncodeBlocksAvx512(const wchar_t*& source, unsigned char*& out, unsigned long& room,
                        const wchar_t* known);

} // namespace llib_utf8
