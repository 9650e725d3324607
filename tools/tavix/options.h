// Command-line parsing shared by the `tavix` commands.
#pragma once

#include <string>

// Four-character pixel format code from text such as "2vuy" or "BGRA"; false unless exactly
// four printable characters.
bool ParseFourCC(const std::string& text, unsigned long& code);
std::string FourCCText(unsigned long code);

// "WxH" with both sides from 1 to 16384.
bool ParseSize(const std::string& text, unsigned long& width, unsigned long& height);

// A positive number of seconds, at most a day.
bool ParseSeconds(const std::string& text, double& seconds);

// Prints "tavix: message" on standard error.
void PrintError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Exit statuses of the commands.
enum { kExitOK = 0, kExitFailure = 1, kExitUsage = 2 };
