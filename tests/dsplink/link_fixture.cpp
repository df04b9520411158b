#include "tests/dsplink/link_fixture.h"

#include "platform/text.h"

namespace linktest {

dspStatus TestOwner::getStatus(BYTE* detail) {
    ++statusQueries;
    if (!link) return dspNoUsbComm;
    BYTE block[65] = {};
    DWORD size = sizeof block;
    link->lock();
    const dspStatus r = link->primitiveGetStatus(block, &size);
    link->unlock();
    if (r != dspOk) return r;
    if (block[0] != 1) return dspMsgMixup;
    if (detail) std::copy(block + 4, block + 64, detail);
    return block[2] > 14 ? dspDead : static_cast<dspStatus>(block[2]);
}

int TestOwner::count(const std::wstring& fragment) const {
    int n = 0;
    for (const auto& line : lines())
        if (line.find(fragment) != std::wstring::npos) ++n;
    return n;
}

std::wstring dumpOf(const wchar_t* title, const std::vector<BYTE>& frame) {
    std::wstring text = title;
    for (std::size_t i = 0; i < 64; ++i) {
        text += host::wformat(L"%02x", i < frame.size() ? static_cast<unsigned>(frame[i]) : 0u);
        if (i % 4 == 3) text += L' ';
    }
    return text;
}

LinkTest::LinkTest() {
    setDeviceChangeHook([this](DWORD event) {
        std::lock_guard<std::mutex> lock(removalMutex);
        removals.push_back({event, host::GetTickCount()});
    });
}

LinkTest::~LinkTest() {
    setDeviceChangeHook({});
    host::registerStreamDriver(L"DSP1:", nullptr);
}

std::unique_ptr<CommPolicy_USB> LinkTest::openLink() {
    const HANDLE h = dsp->open();
    EXPECT_NE(h, INVALID_HANDLE_VALUE);
    auto link = std::make_unique<CommPolicy_USB>(&owner, h);
    owner.link = link.get();
    return link;
}

}  // namespace linktest
