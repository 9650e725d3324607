// This library's own data folders: per user, shared between the maker's applications, and the
// old machine-wide place those shared settings had.
#include <cstring>

#include "llib/gen/file.h"
#include "llib/gen/stringtools.h"
#include "llib/mac/genutils.h"
#include "llib/mac/makerconfig.h"

namespace {

bool IsOldApplication(const char* name) {
    static const char* const kOldApplications[] = LMAKER_OLD_APPLICATION_NAMES;
    for (const char* const* old = kOldApplications; name != nullptr && *old != nullptr; ++old)
        if (strcmp(*old, name) == 0)
            return true;
    return false;
}

// The maker's folder inside folder, created, when this process uses the old location.
void AddMakerFolder(char* folder) {
    if (LApplicationIsOldApplicationDataLocation()) {
        LFile::_MakeFilePath(folder, folder, LMAKER_FOLDER_NAME, "");
        LFile::CreateFolder(folder);
    }
}

} // namespace

bool LApplicationIsOldApplicationDataLocation(const char* name) {
    static const bool old = IsOldApplication(name);
    return old;
}

bool LApplicationIsOldApplicationDataLocation() {
    return LApplicationIsOldApplicationDataLocation(LMAKER_APPLICATION_NAME);
}

bool LFile::GetUserDataFolderApp(char* out, const char* application) {
    GetUserDataFolder(out);
    AddMakerFolder(out);
    _MakeFilePath(out, out, application != nullptr ? application : "", "");
    return CreateFolder(out);
}

bool LFile::GetUserDataFolderApp(char* out) {
    return GetUserDataFolderApp(out, LMAKER_APPLICATION_NAME);
}

bool LFile::GetUserDataFolderAppSubFolder(const char* sub, char* out) {
    GetUserDataFolderApp(out);
    _MakeFilePath(out, out, sub != nullptr ? sub : "", "");
    return CreateFolder(out);
}

void LFile::GetSharedDataFolderApp(char* out) {
    // The sandboxed application's own data folder: on Linux a Flatpak keeps it in
    // ~/.var/app/<id>/data.
    char home[260];
    GetUserFolder(home);
    tplsnprintf(out, 260, "%s/.var/app/%s/data/%s/Shared", home, LMAKER_SANDBOX_CONTAINER_ID,
                LMAKER_APPLICATION_NAME);
    if (TestFolderExists(out))
        return;
    if (IsOSMacTigerOrLater())
        GetUserDataFolderAppSubFolder("Shared", out);
    else
        GetOldSharedDataFolderApp(out);
}

void LFile::GetSharedDataFolderAppSubFolder(const char* sub, char* out) {
    GetSharedDataFolderApp(out);
    _MakeFilePath(out, out, sub != nullptr ? sub : "", "");
    if (!TestFolderExists(out)) {
        CreateFolder(out);
        SetFolderSecurityAllAccess(out);
    }
}

void LFile::GetOldSharedDataFolderApp(char* out) {
    GetSharedDataFolder(out);
    AddMakerFolder(out);
    _MakeFilePath(out, out, LMAKER_APPLICATION_NAME, "");
    CreateFolder(out);
}

void LFile::GetOldSharedDataFolderAppWithNoCreation(char* out) {
    GetSharedDataFolder(out);
    if (LApplicationIsOldApplicationDataLocation())
        _MakeFilePath(out, out, LMAKER_FOLDER_NAME, "");
    _MakeFilePath(out, out, LMAKER_APPLICATION_NAME, "");
}
