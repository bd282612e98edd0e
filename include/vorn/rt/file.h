// Files, directories, the module file name and path pieces, with Windows paths mapped
// onto the Linux file system.
//
// Path mapping (every function here that takes a path applies it):
//   - "\" and "/" are both separators;
//   - a drive "X:" at the start maps to the directory $VORN_DRIVES/x (the drive
//     letter in lower case); VORN_DRIVES defaults to $XDG_DATA_HOME/vorndb/drives
//     and XDG_DATA_HOME to ~/.local/share; "." and ".." are resolved by name and
//     ".." stops at the drive's root, and the file calls resolve symbolic links
//     beneath the drive too, so a drive path never reaches outside the drive's
//     directory (docs/platform.md says where that does not hold);
//   - any other path (absolute or relative) passes through with its
//     separators turned into "/".
// Names are case-sensitive, as the Linux file system is.
#pragma once

#include "vorn/rt/types.h"

struct SECURITY_ATTRIBUTES;

// dwDesiredAccess
#define GENERIC_READ 0x80000000u
// dwShareMode
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
// dwCreationDisposition
#define OPEN_EXISTING 3u
// attributes
#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u

struct OVERLAPPED;
using LPOVERLAPPED = OVERLAPPED*;

// Opens an existing file to read it (GENERIC_READ) or query it (0); files are
// written whole by VornReplaceFileA, so other access and dispositions other
// than OPEN_EXISTING are ERROR_INVALID_PARAMETER. Sharing: a handle opened
// with dwShareMode 0 takes an exclusive advisory lock (flock) on the file, any
// other share mode a shared one; an open that conflicts with a lock held
// through another handle fails with ERROR_SHARING_VIOLATION.
// INVALID_HANDLE_VALUE and GetLastError on failure (ERROR_FILE_NOT_FOUND,
// ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED for a directory, ...).
VORNAPI HANDLE WINAPI CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                                  SECURITY_ATTRIBUTES* lpSecurityAttributes, DWORD dwCreationDisposition,
                                  DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
// lpOverlapped must be null (no asynchronous I/O). Reads until the request is
// satisfied or the end of the file; reading at the end succeeds with 0 bytes
// read. ERROR_ACCESS_DENIED without GENERIC_READ.
VORNAPI BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                             LPOVERLAPPED lpOverlapped);
VORNAPI BOOL WINAPI GetFileSizeEx(HANDLE hFile, LARGE_INTEGER* lpFileSize);
// Creates one directory (its parent must exist): ERROR_ALREADY_EXISTS,
// ERROR_PATH_NOT_FOUND. A drive's own directory is made on demand.
VORNAPI BOOL WINAPI CreateDirectoryA(LPCSTR lpPathName, SECURITY_ATTRIBUTES* lpSecurityAttributes);
// Deletes a file: ERROR_FILE_NOT_FOUND when it is missing,
// ERROR_PATH_NOT_FOUND when its directory is, ERROR_ACCESS_DENIED for a
// directory or a read-only file (FILE_ATTRIBUTE_READONLY), ERROR_INVALID_NAME
// for a name that ends in a separator. A symbolic link at the name is
// deleted itself, never what it leads to. An open file may be deleted (the
// sharing locks are advisory).
VORNAPI BOOL WINAPI DeleteFileA(LPCSTR lpFileName);

// VornReplaceFileA: lpFileName is a Linux path, taken as it is (no drive
// mapping; "\" is an ordinary character).
#define VORN_REPLACE_HOST_PATH 0x00000001u
// VornReplaceFileA: a new file is readable and writable by its owner only
// (0600 less the umask); a file that exists keeps its bits.
#define VORN_REPLACE_PRIVATE 0x00000002u

// Replaces a file's contents in one atomic step, so that a reader sees the
// old file or the new one and a failure leaves the old one: the bytes go to a
// new temporary file in the file's directory (a fresh name each time, created
// exclusively and never through a symbolic link; see VornIsTemporaryFileNameA),
// which is flushed to the disk and renamed over the file. A file that exists
// keeps its permission bits; a new one gets 0666 (0600 with
// VORN_REPLACE_PRIVATE) less the umask. A symbolic
// link at the name is replaced, not written through. ERROR_ACCESS_DENIED for a
// read-only file (FILE_ATTRIBUTE_READONLY) or a directory, ERROR_PATH_NOT_FOUND
// when the directory is missing (it is not created), ERROR_INVALID_PARAMETER
// for a null or empty name, a null buffer with a size, or unknown flags; the
// failure text (vorn/rt/diagnostic.h) gives the reason. The temporary file
// never outlives the call, except when the process dies during it.
VORNAPI BOOL WINAPI VornReplaceFileA(LPCSTR lpFileName, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, DWORD dwFlags);
// Whether lpName (a name without directory) has the form of VornReplaceFileA's
// temporary files: "." + the start of the file's name + ".~" + six letters or
// digits. Listings of a directory leave such names out.
VORNAPI BOOL WINAPI VornIsTemporaryFileNameA(LPCSTR lpName);

struct WIN32_FIND_DATAA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    CHAR cFileName[MAX_PATH];
    CHAR cAlternateFileName[14];
};
using LPWIN32_FIND_DATAA = WIN32_FIND_DATAA*;

// The pattern's last component may hold "*" and "?" (matched as Windows
// does, except that letter case counts; "*.*" matches every name); entries
// come in name order. "." and ".." are listed for a "*" pattern as on Windows,
// except in a drive's root directory, which has none there either.
// INVALID_HANDLE_VALUE with ERROR_FILE_NOT_FOUND when nothing matches,
// ERROR_PATH_NOT_FOUND when the directory is missing. FindNextFileA: FALSE with
// ERROR_NO_MORE_FILES at the end.
VORNAPI HANDLE WINAPI FindFirstFileA(LPCSTR lpFileName, LPWIN32_FIND_DATAA lpFindFileData);
VORNAPI BOOL WINAPI FindNextFileA(HANDLE hFindFile, LPWIN32_FIND_DATAA lpFindFileData);
VORNAPI BOOL WINAPI FindClose(HANDLE hFindFile);

// The module file name. hModule null is the executable, otherwise the base
// address of a loaded shared object (dladdr's dli_fbase); ERROR_MOD_NOT_FOUND
// for anything else. Returns the length copied without terminator; a name that
// does not fit is cut to nSize - 1 characters and terminated, and the result
// is nSize with ERROR_INSUFFICIENT_BUFFER.
VORNAPI DWORD WINAPI GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename, DWORD nSize);

// Where a Windows path lands on this machine (for messages that name both).
// Returns the length written without terminator, or the size needed including
// the terminator when nSize is too small; 0 on error (ERROR_INVALID_PARAMETER
// for an empty path).
VORNAPI DWORD WINAPI VornMapPathA(LPCSTR lpWindowsPath, LPSTR lpLinuxPath, DWORD nSize);

// C runtime path helpers with Windows semantics: both "\" and "/" separate;
// a drive is a letter and ":"; the extension starts at the last "." of the
// last component. Output buffers may be null; sizes are _MAX_*.
#define _MAX_PATH 260
#define _MAX_DRIVE 3
#define _MAX_DIR 256
#define _MAX_FNAME 256
#define _MAX_EXT 256
VORNAPI void _splitpath(const char* path, char* drive, char* dir, char* fname, char* ext);
// Composes drive, dir (a separator "\" is added if missing), fname and ext (a
// "." is added if missing). Any part may be null or empty.
VORNAPI void _makepath(char* path, const char* drive, const char* dir, const char* fname, const char* ext);
