#include "llib/gen/llibbase.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <strings.h>
#include <sys/time.h>

unsigned int GetTickCount() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned int>(static_cast<unsigned long long>(now.tv_sec) * 1000u +
                                     static_cast<unsigned long long>(now.tv_usec) / 1000u);
}

void randomize() {
    srand(GetTickCount());
    srand(static_cast<unsigned int>(time(nullptr)) ^ static_cast<unsigned int>(rand()));
}

namespace {

// LStripAmpersand within a bound: at most `limit` characters are stored, then the terminator.
void StripAmpersand(char* destination, const char* source, size_t limit) {
    size_t stored = 0;
    if (source != nullptr) {
        for (const char* p = source; *p != 0 && stored < limit; ++p) {
            if (*p == '&') {
                if (p[1] != '&')
                    continue;
                ++p; // "&&" stores one '&'
            }
            destination[stored++] = *p;
        }
    }
    destination[stored] = 0;
}

unsigned int HexDigit(unsigned int c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 16;
}

template <class T>
unsigned int ParseHex(const T* text) {
    unsigned int value = 0;
    for (; text != nullptr && *text != 0; ++text) {
        const unsigned int digit = HexDigit(static_cast<unsigned int>(*text));
        if (digit > 15)
            break;
        value = value * 16 + digit;
    }
    return value;
}

} // namespace

void LStripAmpersand(char* destination, const char* source) {
    StripAmpersand(destination, source, static_cast<size_t>(-1));
}

void LStripJPStyleAmpersand(char* destination, const char* source) {
    size_t stored = 0;
    if (source != nullptr) {
        for (const char* p = source; *p != 0; ++p) {
            if (p[0] == '(' && p[1] == '&') {
                while (*p != 0 && *p != ')')
                    ++p;
                if (*p == 0)
                    break;
                continue; // past the ')'
            }
            destination[stored++] = *p;
        }
    }
    destination[stored] = 0;
}

void LPrepareForDisplay(char* destination, const char* source) {
    LStripAmpersand(destination, source);
}

char* LStripAfterTab(char* destination, const char* source) {
    size_t i = 0;
    for (; source[i] != 0 && source[i] != '\t'; ++i)
        destination[i] = source[i];
    destination[i] = 0;
    return destination;
}

void LPrepareForMenuItem(char* destination, const char* source) {
    char stripped[260];
    StripAmpersand(stripped, source, sizeof stripped - 1);
    LStripAfterTab(destination, stripped);
}

unsigned int atoh(const char* text) {
    return ParseHex(text);
}

unsigned int wtoh(const wchar_t* text) {
    return ParseHex(text);
}

char* strupr(char* text) {
    for (char* p = text; p != nullptr && *p != 0; ++p)
        *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    return text;
}

char* strlwr(char* text) {
    for (char* p = text; p != nullptr && *p != 0; ++p)
        *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
    return text;
}

unsigned int LGenerateRandomPassword(char* destination, unsigned int length) {
    randomize();
    for (unsigned int i = 0; i < length; ++i)
        destination[i] = static_cast<char>('a' + rand() % 26);
    destination[length] = 0;
    return length;
}

size_t tstrlen(const char* text) {
    return strlen(text);
}

size_t tstrlen(const wchar_t* text) {
    return wcslen(text);
}

size_t tstrbytes(const char* text) {
    return strlen(text);
}

char* tstrcpy(char* destination, const char* source) {
    return strcpy(destination, source);
}

int tstrcmp(const char* a, const char* b) {
    return strcmp(a, b);
}

int tstricmp(const char* a, const char* b) {
    return strcasecmp(a, b);
}

size_t lstrlen(const char* text) {
    return strlen(text);
}

size_t lstrlen(const unsigned short* text) {
    size_t n = 0;
    while (text[n] != 0)
        ++n;
    return n;
}

int wstrcmp(const wchar_t* a, const wchar_t* b) {
    for (; *a != 0 && *b != 0; ++a, ++b)
        if (*a != *b)
            return -1;
    return 0;
}
