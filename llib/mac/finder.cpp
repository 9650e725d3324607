// Handing items to the desktop: opening with the default application (xdg-open) and revealing
// in the file browser (the freedesktop FileManager1 D-Bus interface).
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "llib/mac/cfutils.h"
#include "llib/mac/launcher.h"
#include "llib/unix/childprocess.h"
#include "platform/cfurl.h"

const char* gLOpenLauncher = "xdg-open";
const char* gLRevealLauncher = "gdbus";

namespace {

// Runs argv[0] (found through PATH) with the arguments, without a shell, and waits for it; true
// when it exited with status 0. Its standard input and output are /dev/null, so a launcher's
// chatter does not mix with the host's; its errors still reach standard error.
bool RunProgram(const std::vector<const char*>& arguments) {
    if (arguments.empty() || arguments[0] == nullptr || arguments[0][0] == 0)
        return false;
    std::vector<const char*> argv(arguments);
    argv.push_back(nullptr);
    const pid_t child =
        childprocess::Start(argv.data(), childprocess::kNullDevice, childprocess::kNullDevice);
    if (child < 0)
        return false;
    const int status = childprocess::Wait(child);
    return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool IsFolder(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

std::string URLText(CFURLRef url) {
    const CFIndex length = CFURLGetBytes(url, nullptr, 0);
    if (length <= 0)
        return std::string();
    std::string text(static_cast<size_t>(length), '\0');
    return CFURLGetBytes(url, reinterpret_cast<UInt8*>(&text[0]), length) == length ? text
                                                                                    : std::string();
}

// The file manager's ShowItems call for one item: its file: URL (absolute, and percent-encoded
// so that it holds no quote) in a GVariant string array, and no start-up id.
bool ShowItem(CFURLRef url) {
    const std::string items = "['" + URLText(url) + "']";
    return RunProgram({gLRevealLauncher, "call", "--session", "--dest",
                       "org.freedesktop.FileManager1", "--object-path",
                       "/org/freedesktop/FileManager1", "--method",
                       "org.freedesktop.FileManager1.ShowItems", items.c_str(), ""});
}

// Opens the folder that holds the item url names.
void OpenContainingFolder(CFURLRef url) {
    CFURLRef folder = CFURLCreateCopyDeletingLastPathComponent(nullptr, url);
    LCFString path;
    path.String = CFURLCopyFileSystemPath(folder, kCFURLPOSIXPathStyle);
    CFRelease(folder);
    LStringLongTemplate<char> text;
    path.GetString(text);
    if (text.GetLength() > 0)
        RunOpenLauncher(text.GetText());
}

} // namespace

bool RunOpenLauncher(const char* item) {
    return item != nullptr && RunProgram({gLOpenLauncher, item});
}

void LRevealInFinder(const char* path) {
    if (path == nullptr || path[0] == 0 || access(path, F_OK) != 0)
        return;
    const bool folder = IsFolder(path);
    if (folder && RunOpenLauncher(path))
        return;
    LCFString text;
    text.SetString(path);
    CFURLRef url =
        CFURLCreateWithFileSystemPath(nullptr, text.String, kCFURLPOSIXPathStyle, folder);
    if (url == nullptr)
        return;
    if (!ShowItem(url))
        OpenContainingFolder(url);
    CFRelease(url);
}

bool LOpenFile(const char* path) {
    return path != nullptr && path[0] != 0 && access(path, F_OK) == 0 && RunOpenLauncher(path);
}

bool LOpenAddressBook() {
    return LOpenFile("/Applications/Address Book.app");
}

bool LOpenSoundPane() {
    return LOpenFile("/System/Library/PreferencePanes/Sound.prefPane");
}

bool LOpenUniversalAccessPane() {
    return LOpenFile("/System/Library/PreferencePanes/UniversalAccessPref.prefPane");
}
