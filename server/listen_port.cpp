// The remote-command port, configured in the key that also opens the unit's
// firewall for it.
#include <array>
#include <cstring>

#include "app/message_channels.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "server/tovel_ctlr.h"

DWORD TovelCtlr::getListenPort() {
    host::HKEY key = 0;
    if (host::RegOpenKeyExW(host::HKEY_LOCAL_MACHINE, kPortKey, &key) != ERROR_SUCCESS) {
        statusMessage(L"Error opening registry key, using port# 3445...");
        return kDefaultPort;
    }
    // The first four bytes are the port, whatever type the value has.
    std::array<BYTE, 1024> buffer{};
    DWORD size = static_cast<DWORD>(buffer.size());
    DWORD type = 0;
    const LONG error = host::RegQueryValueExW(key, L"Port", &type, buffer.data(), &size);
    if (error == ERROR_SUCCESS) {
        host::RegCloseKey(key);
        DWORD port = 0;
        std::memcpy(&port, buffer.data(), sizeof port);
        return port;
    }
    statusMessage(host::wformat(L"Error #%u while reading port #; setting to 3445, restarting...",
                                static_cast<unsigned>(error)));
    host::Sleep(kPortRepairPauseMs);
    const DWORD repaired = kDefaultPort;
    host::RegSetValueExW(key, L"Port", host::REG_DWORD, reinterpret_cast<const BYTE*>(&repaired),
                         sizeof repaired);
    host::RegFlushKey(key);
    host::RegCloseKey(key);
    // The system program restarts the unit; meanwhile the controller listens
    // on the default port.
    host::CreateProcessW(kRestartProgram, L"");
    return kDefaultPort;
}
