// The running processes, from /proc: the list, look-ups by command name, and the few process
// questions the original system answers through its process manager.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <vector>

#include "llib/gen/sharedlock.h"
#include "llib/mac/genutils.h"

int gGuiUid = -1;

namespace {

// The command name of process pid (what the kernel keeps: at most 15 characters); false when
// the process is gone.
bool ReadCommandName(int pid, char (&name)[17]) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t got = read(fd, name, sizeof name - 1);
    close(fd);
    if (got <= 0)
        return false;
    name[got] = 0;
    if (name[got - 1] == '\n')
        name[got - 1] = 0;
    return true;
}

std::vector<kinfo_proc> ReadProcessList() {
    std::vector<kinfo_proc> entries;
    DIR* folder = opendir("/proc");
    if (folder == nullptr)
        return entries;
    while (const dirent* entry = readdir(folder)) {
        if (!isdigit(static_cast<unsigned char>(entry->d_name[0])))
            continue;
        kinfo_proc process{};
        process.p_pid = atoi(entry->d_name);
        if (ReadCommandName(process.p_pid, process.p_comm)) // a process may end meanwhile
            entries.push_back(process);
    }
    closedir(folder);
    return entries;
}

} // namespace

int LGetBSDProcessList(kinfo_proc** list) {
    *list = nullptr;
    const std::vector<kinfo_proc> entries = ReadProcessList();
    if (entries.empty())
        return 0;
    auto* copy = static_cast<kinfo_proc*>(malloc(entries.size() * sizeof(kinfo_proc)));
    if (copy == nullptr)
        return 0;
    memcpy(copy, entries.data(), entries.size() * sizeof(kinfo_proc));
    *list = copy;
    return static_cast<int>(entries.size());
}

int LGetBSDProcessUid(const char* name) {
    kinfo_proc* list = nullptr;
    const int count = LGetBSDProcessList(&list);
    int found = -1;
    for (int i = 0; i < count && name != nullptr; ++i)
        if (strcasecmp(list[i].p_comm, name) == 0) {
            found = list[i].p_pid;
            break;
        }
    free(list);
    return found;
}

int LGetProcessUid(const char* name) {
    const int known = __atomic_load_n(&gGuiUid, __ATOMIC_ACQUIRE);
    if (known >= 0)
        return known;
    const int found = LGetBSDProcessUid(name);
    {
        LSystemLockMutex lock("UID");
        lock.LockForever();
        __atomic_store_n(&gGuiUid, found, __ATOMIC_RELEASE);
        lock.Unlock();
    }
    return found;
}

bool LIsApplicationRunning(const char* name) {
    if (name == nullptr)
        return false;
    char wanted[260];
    strncpy(wanted, name, sizeof wanted - 1);
    wanted[sizeof wanted - 1] = 0;
    for (const kinfo_proc& process : ReadProcessList())
        if (strcmp(process.p_comm, wanted) == 0)
            return true;
    return false;
}

int LSetMaximumNumberOfOpenFiles() {
    rlimit limits{};
    if (getrlimit(RLIMIT_NOFILE, &limits) != 0)
        return -1;
    limits.rlim_cur = 1024;
    return setrlimit(RLIMIT_NOFILE, &limits);
}

bool LGetPSNFromSignature(unsigned long, unsigned long, ProcessSerialNumber* psn) {
    if (psn != nullptr)
        *psn = {0, 0};
    return false;
}

bool LIsApplicationBundled() {
    return false;
}
