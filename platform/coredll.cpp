#include "platform/coredll.h"

#include <unistd.h>

#include <map>
#include <string>

#include "platform/modules.h"

namespace host {

void FileSystemPowerFunction(DWORD flags) {
    if (flags == FSNOTIFY_POWER_OFF) ::sync();
}

void ensureCoreLibrary() {
    if (HANDLE present = LoadLibraryW(kCoreLibraryName); present != NULL_HANDLE) {
        FreeLibrary(present);
        return;
    }
    registerModule(kCoreLibraryName,
                   {{kFileSystemPowerEntry, reinterpret_cast<FARPROC>(&FileSystemPowerFunction)}});
}

}  // namespace host
