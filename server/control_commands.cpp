// The Rem_Control sub-commands of a session: board count, COF download,
// boot, restart, version and command-line control.
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "app/message_channels.h"
#include "boards/error_log.h"
#include "boards/usb_ctlr.h"
#include "dsplink/wire.h"
#include "platform/debug_out.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/last_error.h"
#include "platform/modules.h"
#include "platform/rapi_util.h"
#include "platform/text.h"
#include "server/remote_protocol.h"
#include "server/session_owner.h"
#include "server/tovel.h"

namespace {

using remproto::kServerVersion;
constexpr std::size_t kLongestFileErrorText = 255;

}  // namespace

void Tovel::runControl(int sub, const std::uint8_t* payload, std::uint32_t size) {
    controlLength_ = 0;
    switch (sub) {
        case RemCtl_EnumBoards:
            return enumBoards();
        case RemCtl_CofStart:
            return cofStart();
        case RemCtl_CofData:
            return cofData(payload, size);
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

void Tovel::enumBoards() {
    state_ = 18;
    UsbCtlr::EnumDevices(false, true, false);
    boardData_[0] = static_cast<std::uint8_t>(UsbCtlr::GetCtlrCount() % 256);
    controlLength_ = 1;
    controlStatus_ = dspRunning;
}

void Tovel::cofStart() {
    state_ = 19;
    const std::wstring name = ctlr_->getCofFileName();
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

void Tovel::cofData(const std::uint8_t* payload, std::uint32_t size) {
    state_ = 20;
    if (cofDownload_.isOpen()) {
        if (!cofDownload_.write(payload, size)) throw std::runtime_error("COF file write failed");
    } else {
        statusMessage(L"COF Data ecountered without open file!\n");
    }
    controlStatus_ = dspOk;
}

void Tovel::cofEnd() {
    state_ = 21;
    if (cofDownload_.isOpen()) {
        debugMessage(L"COF DOWNLOAD: COF END, closing cof file\n");
        cofDownload_.commit();
    } else {
        statusMessage(L"COF END ecountered without open file!\n");
    }
    controlStatus_ = dspOk;
}

void Tovel::closeCofFile() {
    cofDownload_.abandon();
}

void Tovel::dspBoot() {
    state_ = 22;
    const dspStatus r = ctlr_->boot();
    if (r == dspOk) {
        controlStatus_ = static_cast<std::uint32_t>(ctlr_->getStatus(nullptr));
    } else {
        statusMessage(L"DSP Boot fails! Rebooting to known state...\n");
        owner_->requestRestart();
        controlStatus_ = dspWrongCofVersion;
    }
}

void Tovel::reboot() {
    state_ = 23;
    statusMessage(L"Controller Reboot Requested...\n");
    owner_->requestRestart();
    controlStatus_ = dspRunning;
}

void Tovel::version() {
    state_ = 24;
    wire::writeU32le(boardData_, 0, kServerVersion);
    controlLength_ = 4;
    controlStatus_ = dspRunning;
}

void Tovel::cmdLineControl() {
    host::LockGuard lock(owner_->tovelLock());
    state_ = 25;
    if (HANDLE lib = host::LoadLibraryW(L"RapiUtil.dll"); lib != NULL_HANDLE) {
        if (auto entry = host::GetProcAddressW(lib, "ControlViaCmdLine"))
            host::procAs<host::ControlViaCmdLineFn>(entry)(0, 0, 0, 0, 0);
        host::FreeLibrary(lib);
    }
    owner_->requestRestart();
    controlStatus_ = dspRunning;
}

void Tovel::unknownControl(int sub) {
    state_ = 26;
    const std::wstring text = host::wformat(
        L"SW/Comm Error! Unknown opCode %d in ServerThreadCallback, Rem_Control API!!", sub);
    host::NKDbgPrintfW(L"%s", text.c_str());
    LogError(text);
    controlStatus_ = static_cast<std::uint32_t>(ctlr_->getStatus(nullptr));
    boardData_[0] = 0;
    controlLength_ = 1;
}
