// The Rem_Control sub-commands of a session: board count, COF download,
// boot, restart, version and command-line control.
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "app/message_channels.h"
#include "boards/error_log.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/modules.h"
#include "platform/rapi_util.h"
#include "platform/text.h"
#include "server/session_core.h"
#include "server/session_owner.h"

namespace {

using remproto::kServerVersion;
constexpr std::size_t kLongestFileErrorText = 255;

}  // namespace

void SessionCore::runControl(int sub, std::span<const std::uint8_t> payload) {
    controlLength_ = 0;
    switch (sub) {
        case RemCtl_EnumBoards:
            return enumBoards();
        case RemCtl_CofStart:
            return cofStart();
        case RemCtl_CofData:
            return cofData(payload);
        case RemCtl_CofEnd:
            return cofEnd();
        case RemCtl_DspBoot:
            return dspBoot();
        case RemCtl_Reboot:
            return reboot();
        case RemCtl_Version:
            return version();
        case RemCtl_CmdLineControl:
            return cmdLineControl();
        default:
            return unknownControl(sub);
    }
}

void SessionCore::enumBoards() {
    state_ = SessionState::EnumBoards;
    boardData_[0] = static_cast<std::uint8_t>(board_.enumerateBoards() % 256);
    controlLength_ = 1;
    controlStatus_ = dspRunning;
}

void SessionCore::cofStart() {
    state_ = SessionState::CofStart;
    const std::wstring name = board_.cofFileName();
    // The bytes go beside the image; the image is replaced only at the end.
    if (cofDownload_.open(name)) {
        debugMessage(L"COF DOWNLOAD: Open local file '" + name + L"' success!\n");
    } else {
        std::wstring why = host::FormatMessageText(host::GetLastError()).value_or(L"");
        if (why.size() > kLongestFileErrorText) why.resize(kLongestFileErrorText);
        statusMessage(host::wformat(L"Error Opening '%S' for exclusive write access: '%S'!\n",
                                    host::narrow(name).c_str(), host::narrow(why).c_str()));
    }
    controlStatus_ = dspOk;
}

void SessionCore::cofData(std::span<const std::uint8_t> payload) {
    state_ = SessionState::CofData;
    if (cofDownload_.isOpen()) {
        if (!cofDownload_.write(payload.data(), static_cast<std::uint32_t>(payload.size())))
            throw std::runtime_error("COF file write failed");
    } else {
        statusMessage(L"COF Data ecountered without open file!\n");
    }
    controlStatus_ = dspOk;
}

void SessionCore::cofEnd() {
    state_ = SessionState::CofEnd;
    if (cofDownload_.isOpen()) {
        debugMessage(L"COF DOWNLOAD: COF END, closing cof file\n");
        cofDownload_.commit();
    } else {
        statusMessage(L"COF END ecountered without open file!\n");
    }
    controlStatus_ = dspOk;
}

void SessionCore::dspBoot() {
    state_ = SessionState::DspBoot;
    const dspStatus r = board_.boot();
    if (r == dspOk) {
        controlStatus_ = static_cast<std::uint32_t>(board_.status());
    } else {
        statusMessage(L"DSP Boot fails! Rebooting to known state...\n");
        owner_->requestRestart();
        controlStatus_ = dspWrongCofVersion;
    }
}

void SessionCore::reboot() {
    state_ = SessionState::Reboot;
    statusMessage(L"Controller Reboot Requested...\n");
    owner_->requestRestart();
    controlStatus_ = dspRunning;
}

void SessionCore::version() {
    state_ = SessionState::Version;
    remproto::writeU32le(boardData_, 0, kServerVersion);
    controlLength_ = 4;
    controlStatus_ = dspRunning;
}

void SessionCore::cmdLineControl() {
    host::LockGuard lock(owner_->tovelLock());
    state_ = SessionState::CmdLineControl;
    if (HANDLE lib = host::LoadLibraryW(L"RapiUtil.dll"); lib != NULL_HANDLE) {
        if (auto entry = host::GetProcAddressW(lib, "ControlViaCmdLine"))
            host::procAs<host::ControlViaCmdLineFn>(entry)(0, 0, 0, 0, 0);
        host::FreeLibrary(lib);
    }
    owner_->requestRestart();
    controlStatus_ = dspRunning;
}

void SessionCore::unknownControl(int sub) {
    state_ = SessionState::UnknownControl;
    const std::wstring text = host::wformat(
        L"SW/Comm Error! Unknown opCode %d in ServerThreadCallback, Rem_Control API!!", sub);
    host::NKDbgPrintfW(L"%s", text.c_str());
    LogError(text);
    controlStatus_ = static_cast<std::uint32_t>(board_.status());
    boardData_[0] = 0;
    controlLength_ = 1;
}
