// The login user: name, root and administrator tests, switching the process's user.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "llib/mac/genutils.h"

namespace {

// Groups whose members administer the machine: "admin" as on the original system, and the
// groups Linux distributions use for the same purpose.
bool IsAdministratorsGroup(const char* name) {
    return strcmp(name, "admin") == 0 || strcmp(name, "sudo") == 0 || strcmp(name, "wheel") == 0;
}

} // namespace

void LGetUserName(char* out) {
    out[0] = 0;
    const char* name = getenv("LOGNAME");
    if (name == nullptr)
        name = getenv("USER");
    if (name != nullptr) {
        strncpy(out, name, 259);
        out[259] = 0;
    }
}

bool LIsUserRoot() {
    if (getuid() == 0)
        return true;
    const char* user = getenv("USER");
    return user != nullptr && strcmp(user, "root") == 0;
}

bool LIsUserAdministrator() {
    if (LIsUserRoot())
        return true;
    const long most = sysconf(_SC_NGROUPS_MAX);
    if (most <= 0)
        return false;
    std::vector<gid_t> groups(static_cast<size_t>(most) + 1);
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    for (int i = 0; i < count; ++i) {
        const group* entry = getgrgid(groups[static_cast<size_t>(i)]);
        if (entry != nullptr && entry->gr_name != nullptr && IsAdministratorsGroup(entry->gr_name))
            return true;
    }
    return false; // also when getgroups fails
}

bool LIsUserRunningAsAdministrator() {
    return LIsUserAdministrator();
}

bool LSwitchToRoot() {
    return setuid(0) == 0;
}

bool LSwitchToUser() {
    char name[260];
    LGetUserName(name);
    const passwd* entry = getpwnam(name);
    return entry != nullptr && setuid(entry->pw_uid) == 0;
}
