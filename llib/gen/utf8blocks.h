// UTF-8 coding many characters a step with the processor's vector instructions. A block coder
// stops where it cannot go on (a malformed block, a value above U+10FFFF, too little room, or
// what is left is shorter than the blocks it takes) and leaves that place to the coder's
// step-by-step path, which gives the exact result, including the result code.
#pragma once

#include <atomic>

namespace llib_utf8 {

// Where a block coder stands: two pointers, passed and returned in registers. (A store through
// the destination could, as far as the compiler knows, write any variable whose address is
// known, so positions passed by reference would be reloaded after every store, on both sides.)
// What a coder consumes from the allowance or the room follows from how far it went.
struct DecodePosition {
    const unsigned char* in;
    wchar_t* out;
};

struct EncodePosition {
    const wchar_t* source;
    unsigned char* out;
};

// Decodes toward `known`, whole characters only. The bytes before `known` are neither the
// terminator nor beyond `allowance` (the source bytes that may still be consumed), and the
// destination has room for `allowance` characters, which the decoder may write past the
// characters it decodes.
using DecodeBlocksFunction = DecodePosition (*)(DecodePosition at, unsigned long allowance,
                                                const unsigned char* known);

// Encodes toward `known` (the characters before it are not the terminator) while the bytes fit
// `room`, the bytes the destination can still take.
using EncodeBlocksFunction = EncodePosition (*)(EncodePosition at, unsigned long room,
                                                const wchar_t* known);

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

DecodePosition DecodeBlocksAvx2(DecodePosition at, unsigned long allowance,
                                const unsigned char* known);
EncodePosition EncodeBlocksAvx2(EncodePosition at, unsigned long room, const wchar_t* known);
DecodePosition DecodeBlocksAvx512(DecodePosition at, unsigned long allowance,
                                  const unsigned char* known);
EncodePosition EncodeBlocksAvx512(EncodePosition at, unsigned long room, const wchar_t* known);

} // namespace llib_utf8
