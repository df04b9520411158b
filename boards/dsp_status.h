#pragma once
// The one status vocabulary of the board path. The numbers are fixed: the DSP
// firmware reports them and the remote client receives them unchanged.
#include <cstdint>
#include <string>

enum dspStatus : std::int32_t {
    dspOk = 0,
    dspDead = 1,
    dspInReset = 2,
    dspIdled = 3,
    dspRunning = 4,
    dspResultReady = 5,
    dspResultOverrun = 6,
    dspAck = 7,
    dspCommandDone = 8,
    dspBadCommand = 9,
    dspBadUsbCommand = 10,
    dspNoUsbComm = 11,
    dspUsbCommFailed = 12,
    dspUsbTimeout = 13,
    dspMsgMixup = 14,
    dspWrongCofVersion = 15,
    dspEthernetError = 16,
    dspBootNotRunning = 154,
};

std::wstring dspStatusShortText(dspStatus status);
std::wstring dspStatusText(dspStatus status);
inline std::wstring dspStatusShortText(std::int32_t status) {
    return dspStatusShortText(static_cast<dspStatus>(status));
}
inline std::wstring dspStatusText(std::int32_t status) {
    return dspStatusText(static_cast<dspStatus>(status));
}
