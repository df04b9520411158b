#pragma once
// The system registry, kept in a REGEDIT4 text file ("registry.reg") in the
// unit root:
//   REGEDIT4
//
//   [HKEY_LOCAL_MACHINE\COMM\Firewall\Rules\InboundTovel]
//   "Port"=dword:00000d75
//
//   [HKEY_LOCAL_MACHINE\Platform]
//   "Name"="Kestrix Platform"
// Key and value names match case-insensitively. The file is read when first
// needed and again whenever it changed since (an operator may edit it while
// the unit runs); every write goes to the file at once, atomically (temporary
// file, then rename), and RegFlushKey writes it again.
// A malformed file is reported (debug output and the failing call's error)
// and never rewritten.
#include <string>

#include "platform/win_types.h"

namespace host {

using HKEY = std::uintptr_t;
inline constexpr HKEY HKEY_LOCAL_MACHINE = 0x80000002u;

inline constexpr DWORD REG_NONE = 0;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;

// Answers ERROR_SUCCESS or an error code, like the originals.
LONG RegOpenKeyExW(HKEY parent, const wchar_t* subKey, HKEY* result);
LONG RegCreateKeyExW(HKEY parent, const wchar_t* subKey, HKEY* result,
                     DWORD* disposition = nullptr);
// ERROR_FILE_NOT_FOUND (2) when the value is absent; ERROR_MORE_DATA (234)
// when `data` is too small (the size needed is stored in *size). A null
// `data` asks only for type and size. REG_SZ data are host wide characters
// (wchar_t) including the terminating NUL; sizes count bytes.
LONG RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* type, BYTE* data, DWORD* size);
LONG RegSetValueExW(HKEY key, const wchar_t* name, DWORD type, const BYTE* data, DWORD size);
LONG RegFlushKey(HKEY key);
LONG RegCloseKey(HKEY key);

// Forget what was read so the next call reads the file again (tests, and a
// new unit root).
void reloadRegistry();

// Convenience wrappers for the system's own code.
bool regReadDword(const std::wstring& key, const std::wstring& name, DWORD* out);
bool regReadString(const std::wstring& key, const std::wstring& name, std::wstring* out);

}  // namespace host
