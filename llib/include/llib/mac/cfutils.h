// Text and locations moved between the library's UTF-8 strings and the platform's string, URL
// and bundle objects and its older FSSpec file records, and the actions that hand something to
// the desktop: reveal an item in the file browser, open a file or folder with its default
// application, open a web address, and build the maker's web page addresses.
//
// On Linux the desktop is reached through the freedesktop conventions: items and addresses are
// opened with xdg-open, and an item is revealed through the file manager's
// org.freedesktop.FileManager1.ShowItems D-Bus call (made with gdbus). Both programs are named
// by globals below, so that a test can put its own in their place. The actions run their program
// on the calling thread and wait for it to exit.
//
// Wrappers are not thread-safe: each object belongs to one thread at a time. Output buffers are
// NUL-terminated and the caller's; a size counts the terminator.
#pragma once

#include <cwchar>

#include "llib/gen/stringlong.h"
#include "llib/mac/filerecord.h"

typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef struct __CFBundle* CFBundleRef;

// An owned platform string; null when empty.
class LCFString {
public:
    LCFString() = default;
    // The string of a NUL-terminated 16-bit (UTF-16) text; a null text leaves it empty.
    explicit LCFString(const unsigned short* text);
    ~LCFString() { Release(); }
    LCFString(const LCFString&) = delete;
    LCFString& operator=(const LCFString&) = delete;

    // Replaces the string with UTF-8 text. Malformed UTF-8 is not refused: it is decoded
    // leniently (see LCopyUnicodeFromUTF8), so any text gives a string. A null text empties it.
    void SetString(const char* utf8);

    // The text as UTF-8: into a growable string (replacing its contents), or into out, cut
    // between whole characters to fit size bytes. An empty wrapper gives the empty text.
    void GetString(LStringLongTemplate<char>& out) const;
    void GetString(char* out, unsigned long size) const;
    // The text as 32-bit characters, surrogate pairs joined into one character.
    void GetString(LStringLongTemplate<wchar_t>& out) const;
    void GetString(wchar_t* out, unsigned long size) const;

    // Releases the string and empties the wrapper.
    void Release();

    CFStringRef String = nullptr;
};

// An owned platform URL; null when empty. Every Create* releases what the object holds first
// and returns whether a URL was made.
class LCFURL {
public:
    LCFURL() = default;
    ~LCFURL() { Release(); }
    LCFURL(const LCFURL&) = delete;
    LCFURL& operator=(const LCFURL&) = delete;

    // A URL of a file-system path, percent-encoded into at most 259 characters (a longer
    // encoding is cut, and may then not make a URL).
    bool CreateFromFullPath(const char* path);
    // A URL of web address text (UTF-8; characters that have no place in a URL are
    // percent-encoded).
    bool CreateFromWebURL(const char* url);
    // The folder of the running executable, which plays the application bundle on Linux.
    bool CreateFromApplicationBundle();
    // The absolute URL of the application bundle's resources folder: the same folder on Linux.
    bool CreateFromApplicationBundleResourcesFolder();

    // The URL as a POSIX path, percent-decoded, cut between whole characters to fit size
    // bytes; empty when the wrapper is empty or the URL names no file.
    void GetString(char* out, unsigned long size) const;

    // Opens url (web address text) with its default handler (xdg-open); whether that worked is
    // not reported. Leaves the wrapper empty.
    void GotoURL(const char* url);

    // Releases the URL and empties the wrapper.
    void Release();

    CFURLRef URL = nullptr;
};

// A platform bundle, not owned: the application's by default.
class LCFBundle {
public:
    // The application bundle: the running executable's folder.
    LCFBundle();
    // Another bundle, which the caller keeps alive while this object is used.
    explicit LCFBundle(CFBundleRef bundle) : Bundle(bundle) {}

    // The bundle's version, "CFBundleVersion", as major.minor: 1.23 gives 1 and 23, 2.05 gives
    // 2 and 5, 3 gives 3 and 0, and a version starting with 'V' is read after its first blank
    // (V 2.05), or after the V when it has none. False, with major and minor untouched, when the
    // bundle has no version or it is empty. On Linux a bundle's version is the CFBundleVersion line
    // of the file Info.txt in its folder ("CFBundleVersion = 1.23").
    bool GetVersionNumber(int& major, int& minor) const;

    CFBundleRef Bundle;
};

// A NUL-terminated 16-bit (UTF-16) text, not owned.
class LUnicodeString {
public:
    explicit LUnicodeString(const unsigned short* text) : pText(text) {}

    // The text as UTF-8 or as 32-bit characters (surrogate pairs joined); a null or empty text
    // gives the empty text.
    void GetString(LStringLongTemplate<char>& out) const;
    void GetString(LStringLongTemplate<wchar_t>& out) const;

    const unsigned short* pText;
};

// An FSSpec and whether it names something.
//
// Linux has no catalogue that finds a folder by id, so the platform keeps one per process: a
// folder's id is its inode number (cut to 31 bits, moved on when it collides), recorded with
// its path when it is handed out, and the root "/" is the volume's root folder, id 2, whose
// parent is id 1. An FSSpec therefore turns back into a path only in the process that
// made it, and only while its folders stay where they were.
class LToFSSpec {
public:
    LToFSSpec() = default;
    // The FSSpec of path (see CStringToFSSpec); valid when that succeeded.
    explicit LToFSSpec(const char* path) { bValid = CStringToFSSpec(path, &Spec) == 0; }

    // The FSSpec's POSIX path: /Docs/report for report in the folder Docs at the root.
    // out (size bytes with the terminator) is emptied first and stays empty for an invalid
    // FSSpec; a longer path is cut between characters to fit, and nothing is written for a size
    // of 0.
    void GetString(char* out, unsigned long size) const;

    // Fills spec for path: an existing file or folder, or a name not yet used in an existing
    // folder. 0 on success; -43 (file not found) when the folder that would hold it does not
    // exist or the name is not valid UTF-8 or longer than 63 bytes; -108 (out of memory) when
    // an object cannot be made; otherwise the platform's status (-37 for an existing item whose
    // name is longer than 63 bytes).
    static int CStringToFSSpec(const char* path, FSSpec* spec);

    FSSpec Spec = {};
    bool bValid = false;
};

// Shows path in the file browser: a folder is opened itself; a file (or a folder that did not
// open) is shown selected in its folder through the file manager's ShowItems call, and when
// that call fails the folder holding it is opened instead. Failures are not reported.
void LRevealInFinder(const char* path);

// Opens an existing file or folder with its default application (xdg-open PATH); true when
// the item exists and the opener ran and exited with status 0.
bool LOpenFile(const char* path);

// Open the address book, the sound and the accessibility settings. They name the original
// platform's fixed application paths, which do not exist on Linux: false there.
bool LOpenAddressBook();
bool LOpenSoundPane();
bool LOpenUniversalAccessPane();

// The programs the actions run, found through PATH: "xdg-open" to open a file, a folder or an
// address (run as OPENER ITEM), and "gdbus" for the file manager's ShowItems call (run as
// REVEALER call --session --dest org.freedesktop.FileManager1 --object-path
// /org/freedesktop/FileManager1 --method org.freedesktop.FileManager1.ShowItems
// "['file:///...']" ""). Tests may point them at other programs.
extern const char* gLOpenLauncher;
extern const char* gLRevealLauncher;

// The maker's web page addresses, written into out (260 bytes; cut to fit); the number of
// characters written. A page whose name begins with '+' is http://PRIMARY/NAME.html with the
// name after the '+'; any other page is http://SECOND/PAGE.html; knowledge-base article n is
// http://SECOND/kb/n.html (the hosts are in makerconfig.h).
int GetOrvelWebPageURL(char* out, const char* page);
int GetKBWebPageURL(char* out, int number);

// Open those addresses with the default web browser; failures are not reported.
void OpenOrvelWebPage(const char* page);
void OpenKBWebPage(int number);
