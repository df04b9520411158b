#pragma once
// Files under the unit root. The original's absolute paths ("\Program
// Files\Orvane Instruments\480\rf.cof") name files below one host folder,
// the unit root, chosen at start. Names match case-insensitively as on the
// original, so "\FlashFx Disk2" and "\FlashFX Disk2" are one folder.
#include <string>

#include "platform/win_types.h"

namespace host {

void setUnitRoot(const std::string& hostFolder);
std::string unitRoot();

// Host path for an original path. Each existing component is matched without
// regard to case; missing components keep the spelling given. Both '\' and '/'
// separate components.
std::string mapPath(const std::wstring& originalPath);

// Access and share bits, creation dispositions, attributes.
inline constexpr DWORD GENERIC_READ = 0x80000000u;
inline constexpr DWORD GENERIC_WRITE = 0x40000000u;
inline constexpr DWORD FILE_SHARE_READ = 0x1;
inline constexpr DWORD FILE_SHARE_WRITE = 0x2;
inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;
inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;
inline constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFFu;

// Opens a file (an original path) or a stream device ("DSP1:", "DIO1:",
// "SPI2:", see devices.h). Share modes are enforced between openers inside
// this process: an open whose access conflicts with another open's share mode
// fails with ERROR_SHARING_VIOLATION (32). INVALID_HANDLE_VALUE on failure,
// with the last error set.
HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD shareMode, DWORD creation,
                   DWORD flags = FILE_ATTRIBUTE_NORMAL);

BOOL ReadFile(HANDLE h, void* buffer, DWORD toRead, DWORD* read);
BOOL WriteFile(HANDLE h, const void* buffer, DWORD toWrite, DWORD* written);
DWORD SetFilePointer(HANDLE h, LONG distance, DWORD method);
DWORD GetFileSize(HANDLE h);
BOOL FlushFileBuffers(HANDLE h);

DWORD GetFileAttributesW(const wchar_t* path);
BOOL CreateDirectoryW(const wchar_t* path);
BOOL DeleteFileW(const wchar_t* path);
BOOL MoveFileW(const wchar_t* from, const wchar_t* to);
// Puts `replacement` in the place of `replaced` in one step, so that readers
// of `replaced` find either the old file or the new one, never none. When
// `backup` is given and `replaced` exists, the old file is kept under that
// name (an earlier backup is overwritten). Unlike the Windows call, a missing
// `replaced` is no error: the replacement simply takes its name.
BOOL ReplaceFileW(const wchar_t* replaced, const wchar_t* replacement, const wchar_t* backup);

}  // namespace host
