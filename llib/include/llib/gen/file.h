// Paths and files. LFile is a class used as a namespace for the static path, file and folder
// operations.
//
// Paths are NUL-terminated UTF-8. On input both '/' and '\' separate components; operations that
// insert a separator insert '/'. Every output buffer (out) is a caller's path buffer of 260 bytes
// (259 characters and the terminator): each operation below keeps its output within it, cutting
// silently. out must not overlap an input unless a comment allows it. The path operations do
// not touch the file system (except the two volume queries) and allocate nothing. Any thread.
#pragma once

#include <dirent.h>

class LFile {
public:
    // Splitting. /a/b/c.txt: folder /a/b, base folder /a, file c.txt, name c, extension .txt.

    // The path up to its last separator (which is dropped); "/" for a path whose only separator
    // is a leading '/', "" for a path without one (c.txt). out may be path.
    static void _GetFolderFromPath(char* out, const char* path);
    // The first component, at least two characters long: /Volumes/Disk/x gives /Volumes,
    // C:\dir\x gives C:, //server/x gives //server.
    static void _GetBaseFolderFromPath(char* out, const char* path);
    // The last component; "" when the path ends with a separator. A component longer than 259
    // characters is cut there, and what follows it is not looked at.
    static void _GetFileFromPath(char* out, const char* path);
    // The last component without its extension: c.tar.gz gives c.tar; .profile stays .profile.
    static void _GetFileNameFromPath(char* out, const char* path);
    // The extension with its dot (the last '.' after the last separator), or "": /a.d/file
    // gives "", /a/.profile gives .profile.
    static void _GetFileExtensionFromPath(char* out, const char* path);
    // path with its extension replaced by extension (given with its dot), or extension added
    // when there is none; a dot at the very start of the path is not an extension
    // (.profile + .bak gives .profile.bak). out may be path.
    static void _ApplyNewFileExtension(char* out, const char* path, const char* extension);

    // Joining. folder + '/' (unless folder is empty or ends with a separator) + name +
    // extension; the folder counts at most 258 characters. Returns the number of characters of
    // name and extension stored. out may be folder (which is then extended in place).
    static unsigned long _MakeFilePath(char* out, const char* folder, const char* name,
                                       const char* extension);
    // path made absolute against baseFolder, extension appended. A path that begins with a
    // separator, or whose first component holds ':' (D:stuff), is absolute already. Leading
    // "./" are skipped; each leading "../" takes the last folder off the base (/a/b/ and ../c
    // give /a/c), keeping a root separator, and stays in the path once the base is shorter
    // than two characters. out may be baseFolder or path.
    static void MakeAbsoluteFilePath(char* out, const char* baseFolder, const char* path,
                                     const char* extension);
    // path relative to baseFolder (not empty), comparing whole components and using only '/' as
    // separator: one "../" for each base folder left after the common part, then the rest of
    // the path (/a/b/ and /a/c/d give ../c/d). Cut to 260 bytes; always true.
    static bool MakeRelativeFilePath(char* out, const char* baseFolder, const char* path);
    static bool MakeRelativeFolder(char* out, const char* baseFolder, const char* folder);
    // absolutePath relative to baseFolder, with either separator: base /Users/me/Music and
    // /Users/me/Movies/x.mov give ../Movies/x.mov, base /Users/me/Music/ and
    // /Users/me/Music/a.wav give a.wav; paths with no folder in common come back unchanged.
    // False, with out empty, when the result would not fit.
    static bool GetRelativePathFromAbsolutePath(char* out, const char* baseFolder,
                                                const char* absolutePath);

    // Cleaning user-typed names. PreprocessName drops control characters and " * / : < > ? \ |
    // (keeping at most 259 characters) and is true when anything is kept, even spaces only.
    // PreprocessPath keeps the separators, dropping control characters and " * : < > ? |, and
    // is true only when a character other than a space is kept.
    static bool PreprocessName(const char* in, char* out);
    static bool PreprocessPath(const char* in, char* out);
    // For a double-quoted shell argument: a backslash before every '"' and '`'; at most 259
    // characters written. Returns out.
    static char* EscapeFilePath(const char* in, char* out);

    // Wildcard match of a whole name, byte for byte: '?' matches any one character, '*' any
    // run. A pattern character equal to the name's is matched as itself first, so a '*' facing
    // a '*' in the name stands for that character only. No escapes. Empty matches only empty.
    // Time grows with the product of the lengths at worst, never exponentially.
    template <class T>
    static bool IsMatch(const T* pattern, const T* name);
    // IsMatch on lower-cased copies of pattern and name, each cut to 259 bytes.
    static bool IsMatchInsensitive(const char* pattern, const char* name);

    // "n Bytes", "n KB", "n MB", "n GB" or "n TB" in binary units, truncated: 1023 gives
    // 1023 Bytes, 2047 gives 1 KB, 2^40 gives 1 TB.
    static void GetSizeFormattedBytes(unsigned long long bytes, char* out);
    // The drive part of a path for display: C:\ for C:\dir (the leading letters and digits),
    // "/" for a path from the root, "" otherwise.
    static void GetHumanReadableDriveFromPath(char* out, const char* path);

    // Volume queries, on the file system the existing path lies on; false when it cannot be
    // resolved. A network volume is NFS, SMB/CIFS, AFS, Coda, 9P, Ceph, GlusterFS or a FUSE
    // file system that reaches over the network (sshfs, rclone, s3fs, ...). An audio CD is a
    // volume mounted by an audio-CD file system (cdfs, cddfs).
    static bool IsNetworkPath(const char* path);
    static bool IsOnAudioCD(const char* path);

    // Tags a file as UTF-8 text: the extended attribute "com.apple.TextEncoding" (on Linux in
    // the user namespace) set to "utf-8;134217984". setxattr's result: 0, or -1 where the file
    // system keeps no user attributes.
    static int SetFileAttributeTextEncodingUTF8(const char* path);

    // Folders. A folder's entries are read in the order the file system gives them.
    //
    // Iterates the entries of one folder whose names match a wildcard pattern (IsMatchInsensitive).
    // Names that begin with '.' (hidden files, "." and "..") are never returned. The usual loop:
    // open, then while szName() is not empty use the entry and call Next().
    class FolderIterator {
    public:
        FolderIterator() = default;
        virtual ~FolderIterator();
        FolderIterator(const FolderIterator&) = delete;
        FolderIterator& operator=(const FolderIterator&) = delete;

        // Positions on the first entry of folder matching pattern (each kept to 259 bytes);
        // false, closed, when folder is not an existing folder or has no such entry.
        bool Open(const char* folder, const char* pattern);
        // path naming a regular file: its folder with its last component as pattern, so only
        // that file (and names differing only in case) is returned. Any other path: the folder
        // itself with "*".
        bool Open(const char* path);
        // Moves to the next matching entry; false, closed and with an empty name, at the end.
        bool Next();
        // The current entry is a folder, or a symbolic link to one.
        bool IsFolder() const;
        void Close();
        // The current entry's name; empty when there is none.
        const char* szName() const { return entry.d_name; }

    protected:
        virtual bool _Matches(const char* name) const;

        DIR* dir = nullptr;
        struct dirent entry = {};
        char szFolder[260] = {};
        char szPattern[260] = {};
    };
    // Every entry, "." and ".." and hidden names included, whatever the pattern.
    class FolderIteratorAllFiles : public FolderIterator {
    public:
        explicit FolderIteratorAllFiles(const char* path) { Open(path); }
        bool IsDotFolder() const;

    protected:
        bool _Matches(const char* name) const override;
    };

    // Something exists at path (of any type; symbolic links followed).
    static bool TestFolderExists(const char* path);
    static bool TestFileExists(const char* path);
    // stat (following symbolic links) says a folder, or a regular file; false when it fails.
    static bool IsFolder(const char* path);
    static bool IsFile(const char* path);
    // mkdir with mode 0777 (less the umask); false when something exists at path already.
    static bool CreateFolder(const char* path);
    // Creates the missing folders leading to path, then path; false when path existed already
    // or a step failed.
    static bool CreateFolderTree(const char* path);
    // Deletes the folder with everything in it, continuing past entries that cannot be
    // deleted; true when the folder itself was removed. A symbolic link is deleted as a link:
    // the tree operations never reach through one, so nothing outside the tree is touched. An
    // entry whose full path would not fit in 259 characters is left alone.
    static bool DeleteFolderTree(const char* path);
    // The same, first clearing a file's immutable and append-only flags where permitted.
    static bool DeleteFolderTreeAlways(const char* path);
    // Deletes the folder's entries that are not folders, then the folder; false when a
    // sub-folder kept it.
    static bool DeleteFolderAndFiles(const char* path);
    // Deletes the (not hidden) entries of folder matching pattern whose status-change time is
    // more than days days ago; nothing when days < 1. The limit is computed in 32 bits: days of
    // 24856 or more wrap around.
    static void DeleteOldFiles(const char* folder, const char* pattern, int days);
    // Copies a file in 8192-byte pieces, then gives the copy the source's modification time and
    // permission bits. A symbolic link is copied as a link. False only when either file could
    // not be opened (or the link not made); a short write is not reported.
    static bool CopyFile(const char* source, const char* destination);
    // Copies the folder's entries, hidden ones included, into destination (created when
    // missing), folders recursively; symbolic links are copied as links. Single failures are
    // ignored.
    static void CopyFolderFiles(const char* source, const char* destination);
    // Mode 0777 on path and, for a folder, on everything in it (not through symbolic links).
    static void SetFolderSecurityAllAccess(const char* path);
    // The archive attribute: set while the file's content changed after its backup date, which
    // is kept in the extended attribute user.com.apple.backupdate (absent: never backed up).
    // SetFileAttributeArchive returns 0 or the errno of the failing call.
    static int SetFileAttributeArchive(const char* path, bool set);
    static bool IsSetFileAttributeArchive(const char* path);
    // The status-change time (st_ctime), seconds since 1970; false, or 0, when stat fails.
    static bool GetFileCreateTime(long& time, const char* path);
    static long GetFileCreateTime(const char* path);

    // Standard folders, each into a 260-byte buffer. The user's folders are asked of the
    // platform (XDG on Linux, see platform/folders.h), which creates them when missing; when it
    // cannot answer, the fall-back is the folder of that name in the user's home folder (the
    // one the password database gives for the login name).
    static void GetUserDataFolder(char* out);         // $XDG_DATA_HOME, else ~/.local/share
    static void GetUserDownloadFolder(char* out);     // ~/Downloads
    static void GetUserDesktopFolder(char* out);      // ~/Desktop
    static void GetUserDocumentsFolder(char* out);    // ~/Documents
    static void GetUserPicturesFolder(char* out);     // ~/Pictures
    static void GetUserVideoFolder(char* out);        // ~/Movies
    static void GetUserMusicFolder(char* out);        // ~/Music
    static void GetUserFolder(char* out);             // the home folder
    static void GetUserApplicationsFolder(char* out); // the home folder's Applications
    static void GetApplicationsFolder(char* out);     // /usr/share/applications
    static void GetMountedDrivesFolder(char* out);    // /media
    static void GetNetworkSharesFolder(char* out);    // /media
    // The machine's shared data folder, its "Library/Application Support", created when
    // missing.
    static void GetSharedDataFolder(char* out);

    // This library's (or application's) folder in the user's data folder, inside the maker's
    // folder for the maker's older applications; created with the maker's folder. True when
    // the last folder was created now, false when it existed already or could not be made.
    static bool GetUserDataFolderApp(char* out, const char* application);
    static bool GetUserDataFolderApp(char* out);
    // The sub-folder sub of it, created; true when created now.
    static bool GetUserDataFolderAppSubFolder(const char* sub, char* out);
    // The settings shared by the maker's applications: the "Shared" folder in the data folder
    // of the maker's sandboxed application when that exists, else the "Shared" folder of this
    // library's data folder (created).
    static void GetSharedDataFolderApp(char* out);
    // Its sub-folder sub; created, and opened to every user, when missing.
    static void GetSharedDataFolderAppSubFolder(const char* sub, char* out);
    // The old, machine-wide place of the shared settings: this library's folder in the shared
    // data folder (inside the maker's folder for older applications), created; WithNoCreation
    // creates only the shared data folder itself.
    static void GetOldSharedDataFolderApp(char* out);
    static void GetOldSharedDataFolderAppWithNoCreation(char* out);

    // The folder of the running program (see LGetBundleFolder).
    static void GetProgramExecutablePath(char* out);
    // getcwd into out (empty when it does not fit); chdir's result.
    static void GetCurrentDirectory(char* out);
    static int SetCurrentDirectory(const char* path);

    // Opening with advisory locks standing in for share modes (see llib/unix/filehandle.h).
    // Each returns the descriptor, -1 on failure; a lock not obtained within timeoutMs does not
    // fail the open.
    // Read-only, with a shared lock.
    static int _OpenRead(const char* path, unsigned int timeoutMs);
    // Read-write, created (mode 0666 less the umask) when missing, with an exclusive lock, then
    // emptied.
    static int _OpenWrite(const char* path, unsigned int timeoutMs);
    // Write-only, created when missing, with an exclusive lock, positioned at the end (later
    // writes go where the position is: the descriptor is not in append mode).
    static int _OpenAppendAlways(const char* path, unsigned int timeoutMs);

    // What the thread's last error number says after a failed call: another holder's lock
    // (EACCES or EAGAIN), an existing file (EEXIST), no permission (EACCES), no such file
    // (ENOENT).
    static bool IsErrorSharingViolation();
    static bool IsErrorAlreadyExists();
    static bool IsErrorPermissionDenied();
    static bool IsErrorFileNotFound();

    // True when another holder's lock keeps the file from being taken exclusively (for reading
    // or writing alike); false when it is free or missing.
    static bool TestFileShareReadBlocked(const char* path);
    static bool TestFileShareWriteBlocked(const char* path);
};

// True when name is one of the maker's older applications, which keep their data inside the
// maker's folder. Answered once, on the first call, and that answer is kept for every later call
// whatever its name; the form without a name asks for this library ("LTavix"), which is not one.
bool LApplicationIsOldApplicationDataLocation(const char* name);
bool LApplicationIsOldApplicationDataLocation();
// The path GetUserDataFolderApp gives ($XDG_DATA_HOME honoured), formed without creating
// anything, not even the home folder.
void LFileGetUserDataFolderAppDoNotCreate(char* out);
// The file whose presence says the shared settings were migrated: ".SharedFolderMigrated" in
// the "Shared" folder of this library's data folder.
void LFileMigrateGetMigrationPerformedFile(char* out);
// Once per user: copies the old machine-wide shared settings into the user's own "Shared"
// folder when that does not exist yet, then writes the marker. The old folder is left alone.
void LFileMigrateSharedSettings();

// The folder of the running program's executable, which stands for the application bundle on
// Linux, into size bytes; its resources folder is the same folder. Empty when unknown.
void LGetBundleFolder(char* out, unsigned long size);
void LGetInstalledApplicationResourcesFolder(char* out, unsigned long size);

// -1 when text is shorter than suffix, else tstrcmp of text's last strlen(suffix) characters
// and suffix (0 when text ends with suffix).
int tstrcmpend(const char* text, const char* suffix);

// True for the ASCII letters and digits only.
bool LFileIsLetterOrNumber(char c);
