#pragma once
// The step a session's thread last entered. The numbers are what the
// supervision reports ("Tovel hung in state %d") and what a request trace
// names as the end reason, so they never change.
enum class SessionState : int {
    Constructed = 0,      // thread not yet in its loop
    ClosedByClient = 1,   // ended: the client closed the connection
    ControlReplying = 2,  // sending the reply of a Rem_Control request
    Receiving = 3,        // waiting in a receive
    SocketError = 4,      // ended on a receive error, or a Rem_Control reply failed to send
    PrimSend = 5,         // checking a Rem_PrimSend is whole, handing it to the link
    PrimGetReceived = 6,
    PrimGetReading = 7,
    PrimGetReplying = 8,
    GetStatusReceived = 9,
    GetStatusReading = 10,
    GetStatusReplying = 11,
    AtomicGetReceived = 12,
    AtomicGetExchanging = 13,
    AtomicGetReplying = 14,
    AtomicSendReceived = 15,
    AtomicSendExchanging = 16,
    AtomicSendReplying = 17,
    EnumBoards = 18,
    CofStart = 19,
    CofData = 20,
    CofEnd = 21,
    DspBoot = 22,
    Reboot = 23,
    Version = 24,
    CmdLineControl = 25,
    UnknownControl = 26,
    BadCommand = 27,          // unknown opcode at the head of the buffer
    BytesLeft = 28,           // bytes left behind a request, or an unserved head
    LongFormIncomplete = 29,  // an incomplete Rem_AtomicSend or Rem_Control
};
