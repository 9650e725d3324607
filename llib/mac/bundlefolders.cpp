// Where the running program lives: its bundle folder and resources folder.
#include "llib/gen/file.h"
#include "llib/mac/cfutils.h"

namespace {

// The path of the folder that `locate` finds, or an empty string when it finds none.
void BundleFolder(bool (LCFURL::*locate)(), char* out, unsigned long size) {
    LCFURL url;
    if (size > 0)
        out[0] = 0;
    if ((url.*locate)())
        url.GetString(out, size);
}

} // namespace

void LGetBundleFolder(char* out, unsigned long size) {
    BundleFolder(&LCFURL::CreateFromApplicationBundle, out, size);
}

void LGetInstalledApplicationResourcesFolder(char* out, unsigned long size) {
    BundleFolder(&LCFURL::CreateFromApplicationBundleResourcesFolder, out, size);
}

void LFile::GetProgramExecutablePath(char* out) {
    LGetBundleFolder(out, 260);
}
