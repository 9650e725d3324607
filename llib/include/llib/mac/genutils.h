// Operating-system helpers of the utility layer.
#pragma once

// The operating-system version packed as the system reports it: major in two decimal digits in
// the high byte; minors up to 8 in the low byte's high nibble (10.4 is 0x1040), minors from 9 on
// in two decimal digits (10.9 is 0x1009, 10.10 is 0x1010).
unsigned short LMakeMacOSVersion(unsigned char major, unsigned char minor);

// True when the running system's version is major.minor or later. Any thread.
bool IsOSMacVersionOrLater(unsigned char major, unsigned char minor);

// 10.4 or later, and 10.5 or later; computed on the first call and kept for the process.
bool IsOSMacTigerOrLater();
bool IsOSMacLeopardOrLater();

// The system version as two decimal numbers: 10 and 68 for 10.6.8 (minor and bug-fix digits
// together).
void LGetOSVersion(unsigned char& first, unsigned char& second);
// True when the processor and system run 64-bit programs.
bool LIsOS64Bit();

// Users.

// The login name ($LOGNAME, else $USER) into out (260 bytes); empty when neither is set.
void LGetUserName(char* out);
// True for the real user id 0, or when $USER is "root".
bool LIsUserRoot();
// True for root and for members of an administrators' group ("admin", and on Linux also
// "sudo" and "wheel"). LIsUserRunningAsAdministrator answers the same.
bool LIsUserAdministrator();
bool LIsUserRunningAsAdministrator();
// Switch the process's user to root, or to the login user; true on success.
bool LSwitchToRoot();
bool LSwitchToUser();

// Processes.

// One entry of the process list: identifier and command name (the kernel keeps at most 15
// characters).
struct kinfo_proc {
    int p_pid;
    char p_comm[17];
};

// The running processes into *list (malloc'd, freed by the caller); the number of entries, 0
// (and no list) on failure.
int LGetBSDProcessList(kinfo_proc** list);
// The identifier of the first process whose command name equals name ignoring case; -1.
int LGetBSDProcessUid(const char* name);
// As LGetBSDProcessUid, kept in gGuiUid once found (written under the machine-wide "UID" lock).
int LGetProcessUid(const char* name);
extern int gGuiUid;
// True when a process's command name equals name exactly (names longer than the kernel keeps,
// 15 characters, never match).
bool LIsApplicationRunning(const char* name);
// Raises the soft limit of open files to 1024; setrlimit's result.
int LSetMaximumNumberOfOpenFiles();

struct ProcessSerialNumber {
    unsigned long highLongOfPSN;
    unsigned long lowLongOfPSN;
};
// The running application with the creator signature and file type; Linux has no such
// signatures, so nothing matches: false with psn {0, 0}.
bool LGetPSNFromSignature(unsigned long signature, unsigned long type, ProcessSerialNumber* psn);
// True when the program runs from an application bundle (a folder) rather than as a bare
// executable; on Linux, programs are bare executables.
bool LIsApplicationBundled();
