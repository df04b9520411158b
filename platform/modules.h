#pragma once
// Loadable libraries (LoadLibrary/GetProcAddress). The host has no DLLs: a
// backend registers a module under its file name with named entry points,
// and the system looks them up as it would in a real library.
#include <map>
#include <string>

#include "platform/win_types.h"

namespace host {

using FARPROC = void (*)();

void registerModule(const std::wstring& name, std::map<std::string, FARPROC> entries);
void unregisterModule(const std::wstring& name);

// NULL with ERROR_MOD_NOT_FOUND (126) for an unknown module.
HANDLE LoadLibraryW(const wchar_t* name);
// nullptr with ERROR_PROC_NOT_FOUND (127) for a missing entry.
FARPROC GetProcAddressW(HANDLE module, const char* entry);
BOOL FreeLibrary(HANDLE module);

template <class Fn>
Fn procAs(FARPROC p) {
    return reinterpret_cast<Fn>(p);
}

}  // namespace host
