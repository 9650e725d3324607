// The basic types and result codes the desktop system's C interfaces share.
#pragma once

#include <cstdint>

typedef int16_t OSErr;
typedef int32_t OSStatus;
typedef uint32_t OSType;
typedef uint32_t FourCharCode;
typedef int8_t SInt8;
typedef uint8_t UInt8;
typedef int16_t SInt16;
typedef uint16_t UInt16;
typedef int32_t SInt32;
typedef uint32_t UInt32;
typedef int64_t SInt64;
typedef uint64_t UInt64;
typedef double Float64;
typedef float Float32;
typedef unsigned char Boolean;

enum : int32_t {
    noErr = 0,
    paramErr = -50,
};

// A four-character code from its text: FOUR_CHAR_CODE("2vuy"), the first character most
// significant.
constexpr FourCharCode FourCharCodeFromText(const char (&text)[5]) {
    return static_cast<FourCharCode>(static_cast<unsigned char>(text[0])) << 24 |
           static_cast<FourCharCode>(static_cast<unsigned char>(text[1])) << 16 |
           static_cast<FourCharCode>(static_cast<unsigned char>(text[2])) << 8 |
           static_cast<FourCharCode>(static_cast<unsigned char>(text[3]));
}
