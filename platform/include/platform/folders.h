// The folder manager: where the user's and the system's standard folders are. On Linux the user's
// folders are the XDG base and user directories, read from the environment and
// $XDG_CONFIG_HOME/user-dirs.dirs each time they are asked for (so a test can point $HOME and
// the XDG variables at a temporary tree).
//
//   'asup' (kUserDomain)  $XDG_DATA_HOME, else $HOME/.local/share
//   'desk' 'down' 'docs' 'pdoc' 'mdoc' 0xB5'doc'  XDG_DESKTOP_DIR, XDG_DOWNLOAD_DIR,
//                         XDG_DOCUMENTS_DIR, XDG_PICTURES_DIR, XDG_VIDEOS_DIR, XDG_MUSIC_DIR from
//                         user-dirs.dirs; fnfErr when it names none (the caller falls back)
//   'cusr' (kUserDomain)  $HOME, else the home folder from the password database
//   'sdat' (kUserDomain)  the first folder of $XDG_DATA_DIRS (else /usr/local/share): the
//                         data shared by every user of the machine
//   'apps' (kOnSystemDisk)  /usr/share/applications, where installed applications are listed
//   0x737276C4 (servers, kOnSystemDisk)  /media, where removable and network volumes appear
//
// Any thread; nothing is cached.
#pragma once

#include "platform/files.h"

enum : SInt16 { kOnSystemDisk = -32768, kUserDomain = -32763 };
enum : Boolean { kDontCreateFolder = 0, kCreateFolder = 1 };

enum : OSType {
    kApplicationSupportFolderType = 0x61737570, // 'asup'
    kDownloadsFolderType = 0x646F776E,          // 'down'
    kDesktopFolderType = 0x6465736B,            // 'desk'
    kDocumentsFolderType = 0x646F6373,          // 'docs'
    kPictureDocumentsFolderType = 0x70646F63,   // 'pdoc'
    kMovieDocumentsFolderType = 0x6D646F63,     // 'mdoc'
    kMusicDocumentsFolderType = 0xB5646F63,     // 0xB5 'doc'
    kCurrentUserFolderType = 0x63757372,        // 'cusr'
    kApplicationsFolderType = 0x61707073,       // 'apps'
    kServersFolderType = 0x737276C4,            // 'srv' 0xC4
    kSharedUserDataFolderType = 0x73646174,     // 'sdat'
};

// Resolves folderType in domain into *ref; with createFolder a missing folder (and the folders
// leading to it) is made. noErr, fnfErr when the type has no folder here or it is missing and
// not to be (or cannot be) created, paramErr for a null ref.
OSErr FSFindFolder(SInt16 domain, OSType folderType, Boolean createFolder, FSRef* ref);

// Where folderType in domain is, into path (maxPathSize bytes with the terminator), whether or
// not that folder exists; nothing is made. noErr, fnfErr when the type has no folder here,
// paramErr when an argument is null or the path does not fit.
OSStatus FSFindFolderPath(SInt16 domain, OSType folderType, UInt8* path, UInt32 maxPathSize);

// The path of ref into path (maxPathSize bytes with the terminator): noErr, or paramErr when
// an argument is null or the path does not fit.
OSStatus FSRefMakePath(const FSRef* ref, UInt8* path, UInt32 maxPathSize);
