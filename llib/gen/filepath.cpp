#include "llib/gen/file.h"

#include <cstring>

#include "llib/gen/llibbase.h"
#include "llib/gen/stringtools.h"

namespace {

constexpr size_t kPathSize = 260;
constexpr size_t kPathCharacters = kPathSize - 1;

inline bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

// Copies at most kPathCharacters characters of source and terminates.
void CopyPath(char* out, const char* source) {
    size_t n = 0;
    for (; n < kPathCharacters && source[n] != 0; ++n)
        out[n] = source[n];
    out[n] = 0;
}

// The text before the first separator holds a ':' (a drive or volume name).
bool FirstComponentHasColon(const char* path) {
    for (const char* p = path; *p != 0 && !IsSeparator(*p); ++p)
        if (*p == ':')
            return true;
    return false;
}

// Takes the last folder off a folder path: cut at the separator before its last name, a
// trailing separator not counting (/a/bb/ and /a/bb both give /a). A root separator stays (/a
// gives /), and a path without another separator is left as it is.
void RemoveLastFolder(char* folder) {
    size_t end = strlen(folder);
    if (end > 0 && IsSeparator(folder[end - 1]))
        --end;
    size_t i = end;
    while (i > 0 && !IsSeparator(folder[i - 1]))
        --i;
    if (i == 0)
        return; // no separator before the last name
    const size_t separator = i - 1;
    folder[separator == 0 ? 1 : separator] = 0;
}

} // namespace

void LFile::_GetFolderFromPath(char* out, const char* path) {
    const bool fromRoot = path[0] == '/';
    size_t last = 0; // position of the last separator copied, 0 for none
    for (size_t i = 0; i < kPathSize && path[i] != 0; ++i) {
        out[i] = path[i];
        if (IsSeparator(path[i]))
            last = i;
    }
    if (last > 0) {
        out[last] = 0;
    } else if (fromRoot) {
        out[0] = '/';
        out[1] = 0;
    } else {
        out[0] = 0;
    }
}

void LFile::_GetBaseFolderFromPath(char* out, const char* path) {
    size_t n = 0;
    while (n < kPathCharacters && path[n] != 0) {
        out[n] = path[n];
        ++n;
        if (n > 2 && IsSeparator(out[n - 1]))
            break;
    }
    if (n >= 2 && IsSeparator(out[n - 1]))
        --n;
    out[n] = 0;
}

void LFile::_GetFileFromPath(char* out, const char* path) {
    size_t n = 0;
    for (const char* p = path; *p != 0; ++p) {
        if (IsSeparator(*p)) {
            n = 0;
            continue;
        }
        if (n >= kPathCharacters)
            break;
        out[n++] = *p;
    }
    out[n] = 0;
}

void LFile::_GetFileNameFromPath(char* out, const char* path) {
    _GetFileFromPath(out, path);
    char* dot = strrchr(out, '.');
    if (dot != nullptr && dot != out)
        *dot = 0;
}

void LFile::_GetFileExtensionFromPath(char* out, const char* path) {
    const char* dot = nullptr;
    for (const char* p = path; *p != 0; ++p) {
        if (IsSeparator(*p))
            dot = nullptr;
        else if (*p == '.')
            dot = p;
    }
    if (dot == nullptr)
        out[0] = 0;
    else
        CopyPath(out, dot);
}

void LFile::_ApplyNewFileExtension(char* out, const char* path, const char* extension) {
    size_t n = 0;
    size_t dot = 0; // 0: none (a dot at position 0 is not an extension)
    for (; n < kPathCharacters && path[n] != 0; ++n) {
        out[n] = path[n];
        if (IsSeparator(path[n]))
            dot = 0;
        else if (path[n] == '.' && n > 0)
            dot = n;
    }
    size_t at = dot > 0 ? dot : n;
    for (const char* e = extension; e != nullptr && *e != 0 && at < kPathCharacters; ++e)
        out[at++] = *e;
    out[at] = 0;
}

unsigned long LFile::_MakeFilePath(char* out, const char* folder, const char* name,
                                   const char* extension) {
    if (folder == nullptr)
        folder = "";
    size_t length = strlen(folder);
    if (length > kPathSize - 2)
        length = kPathSize - 2;
    if (out != folder)
        memmove(out, folder, length);
    size_t position = length;
    if (length > 0 && !IsSeparator(out[length - 1]))
        out[position++] = '/';
    return tplsnprintf(out + position, kPathSize - position, "%s%s", name, extension);
}

void LFile::MakeAbsoluteFilePath(char* out, const char* baseFolder, const char* path,
                                 const char* extension) {
    // The path's rest is copied first, so out may be path; whatever lies beyond 259 characters
    // would be cut from the result anyway.
    char rest[kPathSize];
    if (IsSeparator(path[0]) || FirstComponentHasColon(path)) {
        CopyPath(rest, path);
        _MakeFilePath(out, "", rest, extension);
        return;
    }
    char working[kPathSize];
    bool climbed = false;
    const char* p = path;
    for (;;) {
        if (p[0] == '.' && IsSeparator(p[1])) {
            p += 2;
        } else if (p[0] == '.' && p[1] == '.' && IsSeparator(p[2])) {
            if (!climbed) {
                CopyPath(working, baseFolder);
                climbed = true;
            }
            if (strlen(working) < 2)
                break;
            RemoveLastFolder(working);
            p += 3;
        } else {
            break;
        }
    }
    CopyPath(rest, p);
    _MakeFilePath(out, climbed ? working : baseFolder, rest, extension);
}

bool LFile::PreprocessName(const char* in, char* out) {
    size_t n = 0;
    for (const char* p = in; *p != 0; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < 32 || strchr("\"*/:<>?\\|", c) != nullptr)
            continue;
        if (n < kPathCharacters)
            out[n++] = static_cast<char>(c);
    }
    out[n] = 0;
    return n > 0;
}

bool LFile::PreprocessPath(const char* in, char* out) {
    size_t n = 0;
    bool visible = false;
    for (const char* p = in; *p != 0; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < 32 || strchr("\"*:<>?|", c) != nullptr)
            continue;
        if (n < kPathCharacters) {
            out[n++] = static_cast<char>(c);
            visible = visible || c != ' ';
        }
    }
    out[n] = 0;
    return n > 0 && visible;
}

bool LFileIsLetterOrNumber(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char* LFile::EscapeFilePath(const char* in, char* out) {
    size_t n = 0;
    for (const char* p = in; *p != 0; ++p) {
        if ((*p == '"' || *p == '`') && n < kPathCharacters)
            out[n++] = '\\';
        if (n < kPathCharacters)
            out[n++] = *p;
    }
    out[n] = 0;
    return out;
}

// The matcher walks pattern and name together and remembers only the latest '*' that acted as
// a wildcard. On a mismatch it tries the rest of the pattern after that '*' one name character
// further on, up to the name's last character. Earlier stars need no second try: whatever they
// could absorb, the latest one can absorb as well, since it matches any run from where it
// stands. That keeps the work within (pattern length x name length) steps, where trying every
// split of every star recursively grows exponentially with the number of stars.
template <class T>
bool LFile::IsMatch(const T* pattern, const T* name) {
    const T* p = pattern;
    const T* n = name;
    const T* starRest = nullptr; // the pattern after the latest wildcard '*'
    const T* starName = nullptr; // where in the name that rest is being tried
    for (;;) {
        if (*p == 0) {
            if (*n == 0)
                return true;
        } else if (*n == 0) {
            while (*p == '*')
                ++p;
            if (*p == 0)
                return true;
        } else if (*p == *n || *p == '?') {
            ++p;
            ++n;
            continue;
        } else if (*p == '*') {
            if (p[1] == 0)
                return true;
            starRest = p + 1;
            starName = n;
            p = starRest;
            continue;
        }
        // A mismatch: try the rest one character further on.
        if (starRest == nullptr || *++starName == 0)
            return false;
        p = starRest;
        n = starName;
    }
}

template bool LFile::IsMatch<char>(const char*, const char*);
template bool LFile::IsMatch<wchar_t>(const wchar_t*, const wchar_t*);

bool LFile::IsMatchInsensitive(const char* pattern, const char* name) {
    char lowerPattern[kPathSize];
    char lowerName[kPathSize];
    CopyPath(lowerPattern, pattern);
    CopyPath(lowerName, name);
    return IsMatch<char>(strlwr(lowerPattern), strlwr(lowerName));
}

int tstrcmpend(const char* text, const char* suffix) {
    const size_t length = strlen(text);
    const size_t suffixLength = strlen(suffix);
    if (length < suffixLength)
        return -1;
    return tstrcmp(text + length - suffixLength, suffix);
}

void LFile::GetSizeFormattedBytes(unsigned long long bytes, char* out) {
    static const struct {
        unsigned int shift;
        const char* format;
    } units[] = {{40, "%lld TB"}, {30, "%lld GB"}, {20, "%lld MB"}, {10, "%lld KB"}};
    for (const auto& unit : units)
        if (bytes >= 1ull << unit.shift) {
            tplsnprintf(out, kPathSize, unit.format, static_cast<long long>(bytes >> unit.shift));
            return;
        }
    tplsnprintf(out, kPathSize, "%lld Bytes", static_cast<long long>(bytes));
}

void LFile::GetHumanReadableDriveFromPath(char* out, const char* path) {
    out[0] = 0;
    if (LFileIsLetterOrNumber(path[0])) {
        size_t n = 0;
        while (n < kPathCharacters - 2 && LFileIsLetterOrNumber(path[n])) {
            out[n] = path[n];
            ++n;
        }
        out[n++] = ':';
        out[n++] = '\\';
        out[n] = 0;
    } else if (path[0] == '/') {
        out[0] = '/';
        out[1] = 0;
    }
}
