#pragma once
// The requests of the board's digital-I/O driver "DIO1:" and of its SPI bus
// drivers "SPI1:".."SPI4:", as their users and the simulated devices see them.
#include "platform/win_types.h"

namespace host {

// "DIO1:" (ReadFile/WriteFile move one 32-bit word, bit n = line n).
// Line directions: input one word, bit set = the line is an output.
inline constexpr DWORD IOCTL_DIO_SET_DIRECTION = 0x105;
// Interrupt mask: input one word; a set bit keeps that line from reporting.
inline constexpr DWORD IOCTL_DIO_MASK_INTERRUPTS = 0x103;
// Interrupt arming: input two words, the lines and the edges to report
// (bit 0 falling, bit 1 rising; 0 disarms). An armed line reports through the
// named event "DIOInt<line>".
inline constexpr DWORD IOCTL_DIO_ARM_INTERRUPTS = 0x113;
inline constexpr DWORD DIO_EDGE_FALLING = 1;
inline constexpr DWORD DIO_EDGE_RISING = 2;
// Change notice: input the HANDLE of an event, which the driver sets whenever
// what a read answers changes other than by the caller's own writes and
// direction requests (NULL_HANDLE ends it). Only the simulated block offers
// it; a driver without it answers ERROR_NOT_SUPPORTED and callers keep polling.
inline constexpr DWORD IOCTL_DIO_NOTIFY_CHANGES = 0x117;

// "SPIn:": one exchange. The input buffer is the address of a pointer to an
// SpiExchange; the size given with it is that of the request on the board (20).
inline constexpr DWORD IOCTL_SPI_EXCHANGE = 16;
inline constexpr DWORD SPI_EXCHANGE_INPUT_SIZE = 20;

// Bus set-up read by the driver for every exchange.
struct SpiBusConfig {
    BYTE chipSelect;
    DWORD clockHz;
    // Transfer length minus one: 0, 7, 15 or 31 bits. The low (code + 1) bits of
    // the transmit word go out most significant first; the bits received land
    // in the low bits of the receive word.
    BYTE bitCountCode;
    DWORD flags[4];
    BYTE reserved;
};

struct SpiExchange {
    SpiBusConfig* config;
    DWORD* tx;
    DWORD* rx;
    DWORD count;   // transfers, one word each
    HANDLE event;  // auto-reset event the driver sets when the exchange is done
};

}  // namespace host
