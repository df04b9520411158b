#include "tests/server_ctlr/ctlr_fixture.h"

#include <filesystem>

#include "platform/files.h"
#include "platform/registry.h"

namespace fs = std::filesystem;

namespace ctlrtest {

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
