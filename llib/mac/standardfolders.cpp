// The user's and the system's standard folders, asked of the platform's folder manager with
// fixed fall-backs.
#include <cstring>
#include <pwd.h>
#include <unistd.h>

#include "llib/gen/file.h"
#include "llib/gen/stringtools.h"
#include "llib/mac/genutils.h"
#include "llib/mac/makerconfig.h"
#include "platform/folders.h"

namespace {

// Below the home folder, where the user data folder is when the folder manager cannot give it.
const char* const kUserDataFallback = ".local/share";

// The login name's home folder from the password database, where the original system has
// /Users/<name>; the running user's when the name is unknown.
void UserHome(char* out) {
    char name[260];
    LGetUserName(name);
    struct passwd entry;
    struct passwd* found = nullptr;
    char buffer[4096];
    if (name[0] != 0)
        getpwnam_r(name, &entry, buffer, sizeof buffer, &found);
    if (found == nullptr)
        getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found);
    if (found != nullptr)
        tplsnprintf(out, 260, "%s", found->pw_dir);
    else
        tplsnprintf(out, 260, "/home/%s", name);
}

bool FindFolder(char* out, SInt16 domain, OSType type, Boolean create) {
    FSRef ref;
    return FSFindFolder(domain, type, create, &ref) == noErr &&
           FSRefMakePath(&ref, reinterpret_cast<UInt8*>(out), 260) == noErr;
}

void GetUserSpecialFolder(char* out, OSType type, const char* fallback) {
    out[0] = 0;
    if (FindFolder(out, kUserDomain, type, kCreateFolder))
        return;
    char home[260];
    UserHome(home);
    LFile::_MakeFilePath(out, home, fallback, "");
}

// The user data folder's path as LFile::GetUserDataFolder gives it when it can make the folder,
// without making it or anything on the way (the home folder included).
void GetUserDataFolderPath(char* out) {
    out[0] = 0;
    if (FSFindFolderPath(kUserDomain, kApplicationSupportFolderType, reinterpret_cast<UInt8*>(out),
                         260) == noErr)
        return;
    char home[260];
    UserHome(home);
    LFile::_MakeFilePath(out, home, kUserDataFallback, "");
}

void GetSystemFolder(char* out, OSType type, const char* fallback) {
    if (!FindFolder(out, kOnSystemDisk, type, kDontCreateFolder))
        tplsnprintf(out, 260, "%s", fallback);
}

} // namespace

void LFile::GetUserDataFolder(char* out) {
    GetUserSpecialFolder(out, kApplicationSupportFolderType, kUserDataFallback);
}

void LFileGetUserDataFolderAppDoNotCreate(char* out) {
    char folder[260];
    GetUserDataFolderPath(folder);
    if (LApplicationIsOldApplicationDataLocation())
        LFile::_MakeFilePath(folder, folder, LMAKER_FOLDER_NAME, "");
    LFile::_MakeFilePath(out, folder, LMAKER_APPLICATION_NAME, "");
}

void LFile::GetUserDownloadFolder(char* out) {
    GetUserSpecialFolder(out, kDownloadsFolderType, "Downloads");
}

void LFile::GetUserDesktopFolder(char* out) {
    GetUserSpecialFolder(out, kDesktopFolderType, "Desktop");
}

void LFile::GetUserDocumentsFolder(char* out) {
    GetUserSpecialFolder(out, kDocumentsFolderType, "Documents");
}

void LFile::GetUserPicturesFolder(char* out) {
    GetUserSpecialFolder(out, kPictureDocumentsFolderType, "Pictures");
}

void LFile::GetUserVideoFolder(char* out) {
    GetUserSpecialFolder(out, kMovieDocumentsFolderType, "Movies");
}

void LFile::GetUserMusicFolder(char* out) {
    GetUserSpecialFolder(out, kMusicDocumentsFolderType, "Music");
}

void LFile::GetUserFolder(char* out) {
    out[0] = 0;
    if (!FindFolder(out, kUserDomain, kCurrentUserFolderType, kCreateFolder))
        UserHome(out);
}

void LFile::GetUserApplicationsFolder(char* out) {
    GetUserFolder(out);
    _MakeFilePath(out, out, "Applications", "");
}

void LFile::GetApplicationsFolder(char* out) {
    GetSystemFolder(out, kApplicationsFolderType, "/Applications");
}

void LFile::GetMountedDrivesFolder(char* out) {
    GetSystemFolder(out, kServersFolderType, "/Volumes");
}

void LFile::GetNetworkSharesFolder(char* out) {
    GetSystemFolder(out, kServersFolderType, "/Volumes");
}

void LFile::GetSharedDataFolder(char* out) {
    char shared[260];
    if (FindFolder(shared, kUserDomain, kSharedUserDataFolderType, kCreateFolder))
        tplsnprintf(out, 260, "%s/Library/Application Support", shared);
    else
        tplsnprintf(out, 260, "/usr/local/share/Library/Application Support");
    if (!TestFolderExists(out))
        CreateFolderTree(out);
}

void LFile::GetCurrentDirectory(char* out) {
    if (getcwd(out, 260) == nullptr)
        out[0] = 0;
}

int LFile::SetCurrentDirectory(const char* path) {
    return path != nullptr ? chdir(path) : -1;
}
