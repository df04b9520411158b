#include "server/session_board.h"

#include "boards/usb_ctlr.h"

dspStatus UsbCtlrBoard::primitiveSendData(const BYTE* packet, int size) {
    return ctlr_->link->primitiveSendData(packet, size);
}

dspStatus UsbCtlrBoard::primitiveGetData(BYTE* buffer, int* size) {
    return ctlr_->link->primitiveGetData(buffer, size);
}

dspStatus UsbCtlrBoard::primitiveGetStatus(BYTE* buffer, DWORD* size) {
    return ctlr_->link->primitiveGetStatus(buffer, size);
}

dspStatus UsbCtlrBoard::atomicSend(std::uint32_t opcode, const BYTE* data, int length) {
    return ctlr_->atomicSend(opcode, data, length);
}

dspStatus UsbCtlrBoard::atomicGet(std::uint32_t opcode, const BYTE* data, int length,
                                  BYTE replyOpcode, BYTE* reply, int* replyLength) {
    return ctlr_->atomicGet(opcode, data, length, replyOpcode, reply, replyLength);
}

dspStatus UsbCtlrBoard::status() {
    return ctlr_->getStatus(nullptr);
}

dspStatus UsbCtlrBoard::boot() {
    return ctlr_->boot();
}

std::wstring UsbCtlrBoard::cofFileName() {
    return ctlr_->getCofFileName();
}

int UsbCtlrBoard::enumerateBoards() {
    UsbCtlr::EnumDevices(false, true, false);
    return UsbCtlr::GetCtlrCount();
}
