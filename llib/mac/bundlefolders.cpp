// Where the running program lives: its bundle folder and resources folder.
#include "llib/gen/file.h"
#include "llib/mac/cfutils.h"

void LGetBundleFolder(char* out, unsigned long size) {
    LCFURL url;
    if (size > 0)
        out[0] = 0;
    if (url.CreateFromApplicationBundle())
        url.GetString(out, size);
}

void LGetInstalledApplicationResourcesFolder(char* out, unsigned long size) {
    LCFURL url;
    if (size > 0)
        out[0] = 0;
    if (url.CreateFromApplicationBundleResourcesFolder())
        url.GetString(out, size);
}

void LFile::GetProgramExecutablePath(char* out) {
    LGetBundleFolder(out, 260);
}
