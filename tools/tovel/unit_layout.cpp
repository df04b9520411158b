#include "tools/tovel/unit_layout.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "boards/error_log.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "server/tovel_ctlr.h"
#include "tools/unitkit/default_images.h"

namespace fs = std::filesystem;

namespace tovelcmd {
namespace {

constexpr const wchar_t* kPlatformKey = L"\\Platform";
// The registry file in the unit root; the helper scripts find the root by it.
constexpr const char* kRegistryFile = "registry.reg";

bool makeFolder(const std::wstring& original, LayoutResult& result) {
    const fs::path folder = host::mapPath(original);
    std::error_code ec;
    if (fs::is_directory(folder, ec)) return true;
    if (!fs::create_directories(folder, ec) || ec) {
        result.ok = false;
        result.error = "cannot create " + folder.string() + ": " + ec.message();
        return false;
    }
    result.created.push_back(folder.string());
    return true;
}

bool writeNewFile(const fs::path& file, const std::string& bytes, bool executable,
                  LayoutResult& result) {
    std::error_code ec;
    if (fs::exists(file, ec)) return true;
    fs::create_directories(file.parent_path(), ec);
    std::ofstream out(file, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
        result.ok = false;
        result.error = "cannot write " + file.string();
        return false;
    }
    if (executable) {
        fs::permissions(file,
                        fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                        fs::perm_options::add, ec);
    }
    result.created.push_back(file.string());
    return true;
}

// The registry of a new unit: the remote-command port and the KTX platform.
bool writeRegistry(const std::string& platformName, LayoutResult& result) {
    const fs::path file = fs::path(host::unitRoot()) / kRegistryFile;
    std::error_code ec;
    if (fs::exists(file, ec)) return true;
    host::reloadRegistry();
    host::HKEY port = 0;
    host::HKEY platform = 0;
    const DWORD portNumber = TovelCtlr::kDefaultPort;
    const std::wstring name = host::widen(platformName);
    bool ok =
        host::RegCreateKeyExW(host::HKEY_LOCAL_MACHINE, TovelCtlr::kPortKey, &port) ==
            ERROR_SUCCESS &&
        host::RegSetValueExW(port, L"Port", host::REG_DWORD,
                             reinterpret_cast<const BYTE*>(&portNumber),
                             sizeof portNumber) == ERROR_SUCCESS &&
        host::RegCreateKeyExW(host::HKEY_LOCAL_MACHINE, kPlatformKey, &platform) == ERROR_SUCCESS &&
        host::RegSetValueExW(
            platform, L"Name", host::REG_SZ, reinterpret_cast<const BYTE*>(name.c_str()),
            static_cast<DWORD>((name.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS &&
        host::RegFlushKey(port) == ERROR_SUCCESS;
    if (port) host::RegCloseKey(port);
    if (platform) host::RegCloseKey(platform);
    if (!ok) {
        result.ok = false;
        result.error = "cannot write the registry " + file.string();
        return false;
    }
    result.created.push_back(file.string());
    return true;
}

}  // namespace

std::string resetHelperScript(const std::string& program, const std::string& wouldDo) {
    // The unit root is found from the script's own place, so a unit root can
    // be moved or copied as a whole.
    return "#!/bin/sh\n"
           "# Stands in for the unit's " +
           program + ", which " + wouldDo +
           ".\n"
           "# Tovel starts it and goes on; this one only records the request.\n"
           "root=$(cd \"$(dirname \"$0\")\" && while [ ! -f " +
           kRegistryFile +
           " ] && [ \"$(pwd)\" != / ]; do cd ..; done; pwd)\n"
           "line=\"$(date '+%Y-%m-%d %H:%M:%S') " +
           program + ": would " + wouldDo +
           "\"\n"
           "echo \"$line\" >> \"$root/reset-helpers.log\"\n"
           "echo \"$line\" >&2\n";
}

LayoutResult layOutUnit(const std::string& platformName) {
    LayoutResult result;
    std::error_code ec;
    const fs::path root = host::unitRoot();
    if (!fs::is_directory(root, ec)) {
        if (!fs::create_directories(root, ec) || ec) {
            result.ok = false;
            result.error = "cannot create the unit root " + root.string() + ": " + ec.message();
            return result;
        }
        result.created.push_back(root.string());
    }
    if (!makeFolder(installFolder, result) || !makeFolder(logFolder, result)) return result;
    const fs::path install = host::mapPath(installFolder);
    for (const auto& image : unitkit::defaultImages()) {
        if (fs::exists(install / image.fileName, ec)) continue;
        const auto bytes = unitkit::buildDefaultImage(image);
        if (!writeNewFile(install / image.fileName, std::string(bytes.begin(), bytes.end()), false,
                          result))
            return result;
    }
    if (!writeRegistry(platformName, result)) return result;
    if (!writeNewFile(
            host::mapPath(TovelCtlr::kResetHelper),
            resetHelperScript("TriggerWatchdog.exe", "force a hardware reset of the unit"), true,
            result))
        return result;
    if (!writeNewFile(host::mapPath(TovelCtlr::kRestartProgram),
                      resetHelperScript("restart.exe", "restart the unit"), true, result))
        return result;
    return result;
}

}  // namespace tovelcmd
