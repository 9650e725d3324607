// Extended attributes of files: the text-encoding tag and the backup date behind the archive
// attribute.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "llib/gen/file.h"
#include "llib/mac/genutils.h"

namespace {

// Linux keeps attributes that programs set freely in the "user." namespace.
const char kTextEncodingAttribute[] = "user.com.apple.TextEncoding";
const char kUTF8Encoding[] = "utf-8;134217984"; // the encoding's name and its number

} // namespace

int LFile::SetFileAttributeTextEncodingUTF8(const char* path) {
    if (!IsOSMacTigerOrLater())
        return 0;
    return setxattr(path, kTextEncodingAttribute, kUTF8Encoding, sizeof kUTF8Encoding - 1, 0);
}

namespace {

// The backup date, seconds since 1970 written with every digit a double needs to read back the
// same, so that a date made equal to the modification date compares equal.
const char kBackupDateAttribute[] = "user.com.apple.backupdate";

double ModificationDate(const struct stat& info) {
    return static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
}

// 0 (never backed up) when the file has no backup date.
double BackupDate(const char* path) {
    char text[64];
    const ssize_t length = getxattr(path, kBackupDateAttribute, text, sizeof text - 1);
    if (length <= 0)
        return 0.0;
    text[length] = 0;
    return strtod(text, nullptr);
}

} // namespace

bool LFile::IsSetFileAttributeArchive(const char* path) {
    struct stat info;
    if (path == nullptr || stat(path, &info) != 0)
        return false;
    return ModificationDate(info) > BackupDate(path);
}

int LFile::SetFileAttributeArchive(const char* path, bool set) {
    struct stat info;
    if (path == nullptr)
        return EINVAL;
    if (stat(path, &info) != 0)
        return errno;
    const double modified = ModificationDate(info);
    double backup = BackupDate(path);
    if (set && backup >= modified)
        backup = modified - 1.0;
    else if (!set && modified > backup)
        backup = modified;
    char text[64];
    const int length = snprintf(text, sizeof text, "%.17g", backup);
    return setxattr(path, kBackupDateAttribute, text, static_cast<size_t>(length), 0) == 0 ? 0
                                                                                           : errno;
}
