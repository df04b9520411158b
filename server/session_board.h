#pragma once
// What a session asks of the board it serves: the link's raw primitives, the
// board controller's confirmed exchanges, and the few board operations the
// control sub-commands use. The session's serving core sees the board only
// through this, so it can be driven in process with a fake board.
#include <cstdint>
#include <string>

#include "boards/dsp_status.h"
#include "platform/win_types.h"

class UsbCtlr;

class SessionBoard {
  public:
    virtual ~SessionBoard() = default;
    // The link's primitives (called without the link's lock).
    virtual dspStatus primitiveSendData(const BYTE* packet, int size) = 0;
    virtual dspStatus primitiveGetData(BYTE* buffer, int* size) = 0;
    virtual dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) = 0;
    // The board controller's exchanges.
    virtual dspStatus atomicSend(std::uint32_t opcode, const BYTE* data, int length) = 0;
    virtual dspStatus atomicGet(std::uint32_t opcode, const BYTE* data, int length,
                                BYTE replyOpcode, BYTE* reply, int* replyLength) = 0;
    virtual dspStatus status() = 0;
    virtual dspStatus boot() = 0;
    // The board kind's DSP image name, without folder ("t1.cof").
    virtual std::wstring cofFileName() = 0;
    // Scans for boards as every caller does and answers how many are registered.
    virtual int enumerateBoards() = 0;
};

// The session's board as the unit has it: one registered board controller.
class UsbCtlrBoard final : public SessionBoard {
  public:
    explicit UsbCtlrBoard(UsbCtlr* ctlr) : ctlr_(ctlr) {}
    dspStatus primitiveSendData(const BYTE* packet, int size) override;
    dspStatus primitiveGetData(BYTE* buffer, int* size) override;
    dspStatus primitiveGetStatus(BYTE* buffer, DWORD* size) override;
    dspStatus atomicSend(std::uint32_t opcode, const BYTE* data, int length) override;
    dspStatus atomicGet(std::uint32_t opcode, const BYTE* data, int length, BYTE replyOpcode,
                        BYTE* reply, int* replyLength) override;
    dspStatus status() override;
    dspStatus boot() override;
    std::wstring cofFileName() override;
    int enumerateBoards() override;

  private:
    UsbCtlr* const ctlr_;
};
