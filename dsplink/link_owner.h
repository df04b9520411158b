#pragma once
// What the DSP link needs from the board controller that owns it. The board
// controller (UsbCtlr) implements this; tests can supply their own owner.
#include <string>

#include "boards/dsp_status.h"
#include "platform/win_types.h"

class LinkOwner {
  public:
    virtual ~LinkOwner() = default;
    // One line about this board to the event log (board name first).
    virtual void logMsg(std::wstring msg) = 0;
    // Set once the registry retires the board; the link then skips recovery.
    virtual bool isRemoving() const = 0;
    // File name of the board kind's DSP image, without folder ("rf.cof").
    virtual std::wstring getCofFileName() = 0;
    // The DSP's state (takes the link lock); `detail` receives 60 bytes or is null.
    virtual dspStatus getStatus(BYTE* detail) = 0;
    // Whether the board runs an acceptable DSP program and answers.
    virtual bool isAlive() = 0;
};
