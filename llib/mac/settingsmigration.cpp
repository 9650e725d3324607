// Moving the shared settings from the old machine-wide folder into the user's own data folder,
// once per user.
#include "llib/gen/file.h"
#include "llib/mac/genutils.h"
#include "llib/unix/filehandle.h"

void LFileMigrateGetMigrationPerformedFile(char* out) {
    LFile::GetUserDataFolderApp(out);
    LFile::_MakeFilePath(out, out, "Shared", "");
    LFile::_MakeFilePath(out, out, ".SharedFolderMigrated", "");
}

void LFileMigrateSharedSettings() {
    if (!IsOSMacTigerOrLater())
        return;
    char marker[260];
    LFileMigrateGetMigrationPerformedFile(marker);
    if (LFile::TestFileExists(marker))
        return;
    char current[260];
    char old[260];
    LFile::GetUserDataFolderApp(current);
    LFile::_MakeFilePath(current, current, "Shared", "");
    LFile::GetOldSharedDataFolderAppWithNoCreation(old);
    if (LFile::TestFolderExists(old) && !LFile::TestFolderExists(current)) {
        LFile::CreateFolder(current);
        LFile::CopyFolderFiles(old, current);
    }
    // Without a "Shared" folder there is nothing to mark, and the check runs again next time.
    LWriteFile written(marker);
}
