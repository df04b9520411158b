#include "boards/dsp_status.h"

#include "platform/text.h"

std::wstring dspStatusShortText(dspStatus status) {
    switch (status) {
        case dspInReset:
            return L"DSP in Reset!";
        case dspIdled:
            return L"DSP Idled!";
        case dspRunning:
        case dspResultReady:
        case dspAck:
        case dspCommandDone:
            return L"No Error!";
        case dspResultOverrun:
            return L"DSP overrun!";
        case dspBadCommand:
            return L"Bad DSP command!";
        case dspBadUsbCommand:
            return L"Bad USB command!";
        case dspNoUsbComm:
            return L"No USB Comm!";
        case dspUsbCommFailed:
            return L"USB Comm failed!";
        case dspUsbTimeout:
            return L"USB Comm time-out!";
        case dspMsgMixup:
            return L"DSP msg mixup!";
        case dspWrongCofVersion:
            return L"Wrong COF Version!";
        case dspEthernetError:
            return L"Ethernet Error!";
        default:
            return L"DSP Dead!";
    }
}

std::wstring dspStatusText(dspStatus status) {
    switch (status) {
        case dspInReset:
            return L"DSP Stuck in Reset state!";
        case dspIdled:
            return L"DSP Stuck in Idle state!";
        case dspRunning:
        case dspResultReady:
        case dspAck:
        case dspCommandDone:
            return L"Unknown or Not a DSP Error!";
        case dspResultOverrun:
            return L"DSP Result overrun!";
        case dspBadCommand:
            return L"DSP received corrupt command!";
        case dspBadUsbCommand:
            return L"Cypress received invalid deviceID!";
        case dspNoUsbComm:
            return L"Can't open USB/DSP driver!";
        case dspUsbCommFailed:
            return L"DeviceIOControl Failed!";
        case dspUsbTimeout:
            return L"DSP Comm timed out!";
        case dspMsgMixup:
            return L"Unexpected DSP response!";
        // Built from a format without placeholders on the original.
        case dspWrongCofVersion:
            return host::wformat(L"Wrong COF Version!");
        case dspEthernetError:
            return L"Ethernet Comm Error!";
        default:
            return L"DSP not responding!";
    }
}
