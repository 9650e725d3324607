// Relative paths between folders of this file system.
#include "llib/gen/file.h"

#include <cstring>

#include "llib/gen/stringtools.h"

namespace {

constexpr size_t kPathSize = 260;

inline bool IsSeparator(char c) {
    return c == '/' || c == '\\';
}

// Copies text into out from position `at` on, within the 260-byte buffer, and terminates.
void CopyFrom(char* out, size_t at, const char* text) {
    while (at < kPathSize - 1 && *text != 0)
        out[at++] = *text++;
    out[at] = 0;
}

bool MakeRelative(char* out, const char* baseFolder, const char* path) {
    char slashed[kPathSize];
    const char* base = baseFolder;
    const size_t baseLength = strlen(baseFolder);
    if (baseLength == 0 || baseFolder[baseLength - 1] != '/') {
        tplsnprintf(slashed, sizeof slashed, "%s/", baseFolder);
        base = slashed;
    }
    // The common part ends after a whole component: /a/bc/ and /a/bd/e share /a/ only.
    size_t common = 0;
    while (base[common] != 0 && base[common] == path[common])
        ++common;
    while (common > 0 && base[common - 1] != '/')
        --common;
    size_t written = 0;
    for (const char* p = base + common; *p != 0; ++p)
        if (*p == '/' && written + 3 < kPathSize) {
            memcpy(out + written, "../", 3);
            written += 3;
        }
    const char* rest = path + common;
    if (*rest == '/')
        ++rest;
    CopyFrom(out, written, rest);
    return true;
}

} // namespace

bool LFile::MakeRelativeFilePath(char* out, const char* baseFolder, const char* path) {
    return MakeRelative(out, baseFolder, path);
}

bool LFile::MakeRelativeFolder(char* out, const char* baseFolder, const char* folder) {
    return MakeRelative(out, baseFolder, folder);
}

bool LFile::GetRelativePathFromAbsolutePath(char* out, const char* baseFolder,
                                            const char* absolutePath) {
    out[0] = 0;
    size_t i = 0;
    size_t afterSeparator = 0; // position after the last separator of the common run; 0: none
    char separator = '/';
    while (baseFolder[i] != 0 && baseFolder[i] == absolutePath[i]) {
        if (IsSeparator(baseFolder[i])) {
            afterSeparator = i + 1;
            separator = baseFolder[i];
        }
        ++i;
    }
    const bool baseMatched = baseFolder[i] == 0;
    if (afterSeparator == 0 && (!baseMatched || !IsSeparator(absolutePath[i]))) {
        CopyFrom(out, 0, absolutePath); // nothing in common
        return true;
    }
    if (baseMatched) {
        if (IsSeparator(absolutePath[i])) {
            CopyFrom(out, 0, absolutePath + i + 1);
            return true;
        }
        if (i > 0 && IsSeparator(baseFolder[i - 1])) {
            CopyFrom(out, 0, absolutePath + i);
            return true;
        }
    }
    // Climb out of the base's folder where the paths part and out of every folder below it.
    size_t levels = 1;
    const size_t baseLength = i + strlen(baseFolder + i);
    for (size_t k = i; k + 1 < baseLength; ++k)
        if (IsSeparator(baseFolder[k]))
            ++levels;
    const char* rest = absolutePath + afterSeparator;
    if (3 * levels + strlen(rest) > kPathSize - 1)
        return false;
    size_t written = 0;
    for (size_t level = 0; level < levels; ++level) {
        out[written++] = '.';
        out[written++] = '.';
        out[written++] = separator;
    }
    CopyFrom(out, written, rest);
    return true;
}
