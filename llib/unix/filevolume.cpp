// Which kind of volume a path lies on, from the file-system type the kernel reports for it.
#include "llib/gen/file.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

namespace {

// Magic numbers of statfs's f_type for the network file systems the kernel serves itself.
const unsigned long kNetworkMagics[] = {
    0x6969,     // NFS
    0x517B,     // SMB
    0xFF534D42, // CIFS
    0xFE534D42, // SMB2
    0x5346414F, // AFS (OpenAFS)
    0x6B414653, // AFS (kAFS)
    0x73757245, // Coda
    0x564C,     // NCP
    0x01021997, // 9P
    0x00C36400, // Ceph
};
constexpr unsigned long kFuseMagic = 0x65735546;

// FUSE file systems (by their subtype) that reach over the network.
const char* const kNetworkFuseTypes[] = {
    "fuse.sshfs",  "fuse.rclone",   "fuse.s3fs",    "fuse.glusterfs", "fuse.curlftpfs",
    "fuse.davfs2", "fuse.smbnetfs", "fuse.gcsfuse", "fuse.goofys",    "fuse.ceph-fuse"};
const char* const kAudioCDTypes[] = {"cdfs", "cddafs", "fuse.cddfs", "fuse.cdfs"};

// The file-system type of the mount that holds the path ("ext4", "fuse.sshfs"), from the
// mount table: the entry whose device number is the path's. type holds 256 bytes. False when
// there is none.
bool MountType(const char* path, char* type) {
    struct stat status {};
    if (stat(path, &status) != 0)
        return false;
    FILE* table = fopen("/proc/self/mountinfo", "re");
    if (table == nullptr)
        return false;
    bool found = false;
    char line[4096];
    while (!found && fgets(line, sizeof line, table) != nullptr) {
        // "36 35 98:0 /root /mount options - type source options"
        unsigned int major = 0, minor = 0;
        if (sscanf(line, "%*u %*u %u:%u", &major, &minor) != 2)
            continue;
        if (makedev(major, minor) != status.st_dev)
            continue;
        const char* dash = strstr(line, " - ");
        if (dash == nullptr)
            continue;
        found = sscanf(dash + 3, "%255s", type) == 1;
    }
    fclose(table);
    return found;
}

bool TypeIsOneOf(const char* type, const char* const* types, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (strcmp(type, types[i]) == 0)
            return true;
    return false;
}

} // namespace

bool LFile::IsNetworkPath(const char* path) {
    struct statfs volume {};
    if (path == nullptr || statfs(path, &volume) != 0)
        return false;
    const unsigned long magic = static_cast<unsigned long>(volume.f_type);
    for (unsigned long network : kNetworkMagics)
        if (magic == network)
            return true;
    if (magic != kFuseMagic)
        return false;
    char type[256];
    return MountType(path, type) &&
           TypeIsOneOf(type, kNetworkFuseTypes,
                       sizeof kNetworkFuseTypes / sizeof *kNetworkFuseTypes);
}

bool LFile::IsOnAudioCD(const char* path) {
    char type[256];
    return path != nullptr && MountType(path, type) &&
           TypeIsOneOf(type, kAudioCDTypes, sizeof kAudioCDTypes / sizeof *kAudioCDTypes);
}
