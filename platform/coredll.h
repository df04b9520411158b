#pragma once
// The core system library "coredll.dll" as the host offers it. Only the
// entry that the power-fail handling looks up is there:
// "FileSystemPowerFunction", which on Linux flushes the file systems with
// sync() when told that power is going off.
#include "platform/win_types.h"

namespace host {

inline constexpr const wchar_t* kCoreLibraryName = L"coredll.dll";
inline constexpr const char* kFileSystemPowerEntry = "FileSystemPowerFunction";

// Flags of FileSystemPowerFunction.
inline constexpr DWORD FSNOTIFY_POWER_ON = 1;
inline constexpr DWORD FSNOTIFY_POWER_OFF = 2;

// The entry's signature.
using FileSystemPowerFn = void (*)(DWORD flags);

// Power off: writes every buffered file-system change out (sync()). Other
// flags do nothing: the host's file systems need no wake-up.
void FileSystemPowerFunction(DWORD flags);

// Registers "coredll.dll" with its entry unless a module of that name is
// already registered (a test may have put its own in place).
void ensureCoreLibrary();

}  // namespace host
