#include "tests/server_ctlr/ctlr_fixture.h"

#include <fstream>
#include <thread>

#include "platform/files.h"
#include "platform/registry.h"

namespace fs = std::filesystem;

namespace ctlrtest {

bool eventually(const std::function<bool()>& done, double seconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void installMarkerProgram(const testing_support::TempUnitRoot& root,
                          const std::wstring& originalPath) {
    root.writeFile(originalPath, "#!/bin/sh\ntouch \"$0.ran\"\n");
    fs::permissions(root.hostPath(originalPath), fs::perms::owner_all, fs::perm_options::add);
}

bool markerExists(const testing_support::TempUnitRoot& root, const std::wstring& originalPath) {
    return fs::exists(root.hostPath(originalPath) + ".ran");
}

void writeRegistry(const testing_support::TempUnitRoot& root, const std::string& body) {
    root.writeFile(L"registry.reg", "REGEDIT4\n\n" + body);
    host::reloadRegistry();
}

ExitRecorder::ExitRecorder() {
    host::setExitHandler([state = state_](int code) {
        int none = kNone;
        if (state->code.load() == kNone) state->tick = host::GetTickCount();
        state->code.compare_exchange_strong(none, code);
    });
}

ExitRecorder::~ExitRecorder() {
    host::setExitHandler([](int) {});
}

}  // namespace ctlrtest
