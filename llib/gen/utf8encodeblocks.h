// UTF-32 to UTF-8 a block of characters at a time on processors with AVX2: each character's
// bytes are built in its own 32-bit lane and gathered with one shuffle per four characters.
// The block path stops where it cannot go on (a value above U+10FFFF, fewer than a block of
// known text, too little room) and leaves that place to the encoder's step-by-step path, which
// gives the exact result.
#pragma once

namespace llib_utf8 {

// True when the processor runs the block encoder.
bool BlockEncoderAvailable();

// Encodes while at least 16 characters before `known` remain and `room` (bytes the destination
// can still take) is at least 64. Stops before a block holding a value above U+10FFFF.
void EncodeBlocks(const wchar_t*& source, unsigned char*& out, unsigned long& room,
                  const wchar_t* known);

} // namespace llib_utf8
