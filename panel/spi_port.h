#pragma once
// SpiPort: one of the unit's SPI ports 1 to 4 ("SPI1:".."SPI4:"), used to talk
// to a chip on it one transfer at a time. One object per port, made on first
// use and kept for the life of the process.
#include <stdexcept>
#include <string>

#include "platform/dio_spi.h"
#include "platform/sync.h"
#include "platform/win_types.h"

// What getPort throws: "Invalid Port Number!! Must be 1 - 4" or "SPI Port not found!".
class SpiPortError : public std::runtime_error {
  public:
    explicit SpiPortError(const std::wstring& text);
    const std::wstring& text() const { return text_; }

  private:
    std::wstring text_;
};

class SpiPort {
  public:
    static constexpr int firstPort = 1;
    static constexpr int lastPort = 4;
    static constexpr DWORD clockHz = 100000;
    static constexpr DWORD exchangeTimeoutMs = 1000;
    static constexpr DWORD failedRead = 0xFFFFFFFFu;

    // The port's object, made on first use with `chipSelect`; later calls
    // answer it as it is (their chip select is not compared). Throws
    // SpiPortError for a port outside 1..4 or a missing driver.
    static SpiPort* getPort(int port, int chipSelect);

    // Sends the low `bits` bits of `value`; true when the exchange completed.
    bool writeSPI(DWORD value, int bits);
    // Sends `command` (one byte) first in a transfer of `bits` and answers the
    // bits that followed it (with 24 bits: the 16 bits after the command
    // byte); 0xFFFFFFFF when the exchange did not complete in time.
    DWORD readSPI(DWORD command, int bits);

    // The driver's transfer-length code for a number of bits: 0, 7, 15 or 31.
    static BYTE bitCountCode(int bits);

    int portNumber() const { return port_; }
    const host::SpiBusConfig& busConfig() const { return config_; }
    DWORD lastReceived() const { return rx_; }

    SpiPort(const SpiPort&) = delete;
    SpiPort& operator=(const SpiPort&) = delete;

  private:
    SpiPort(int port, int chipSelect);
    ~SpiPort() = delete;  // kept for the life of the process
    // Issues the exchange request; true when the driver accepted it.
    bool exchange();
    // Sets the transfer length of the next exchange.
    void setBits(int bits) { config_.bitCountCode = bitCountCode(bits); }

    host::CriticalSection lock_;  // one transfer at a time
    const int port_;
    HANDLE handle_ = INVALID_HANDLE_VALUE;
    DWORD tx_ = 0;
    DWORD rx_ = 0;
    host::SpiBusConfig config_{};
    // The request is passed by the address of the pointer to it, with the
    // request's size on the board: keep the request right behind the pointer so
    // those bytes are ours whatever the driver reads.
    struct {
        host::SpiExchange* requestPointer = nullptr;
        host::SpiExchange request{};
    } transfer_;
    HANDLE event_ = NULL_HANDLE;
};
