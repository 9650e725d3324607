// Extended attributes of files.
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
