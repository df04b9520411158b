#pragma once
// A simulated LS7366R quadrature counter chip on an SPI port ("SPI1:" by
// default, chip select 1). The program sets it up and reads it through the
// SPI driver's exchange request; a test or a person turns the encoder.
//
// Each exchange is one chip-select-low transfer of 1, 8, 16 or 32 bits: the
// first byte is the instruction (operation in bits 7-6: clear, read, write,
// load; register in bits 5-3: MDR0, MDR1, DTR, CNTR, OTR, STR), the bytes
// after it carry the register, most significant byte first. Reading CNTR
// latches it into OTR and shifts that out. Bits the chip does not drive (the
// instruction byte, bytes past the register, other chip selects) read as 1.
#include <memory>
#include <mutex>

#include "platform/dio_spi.h"
#include "platform/win_types.h"

namespace sim {

class Ls7366rCounter {
  public:
    explicit Ls7366rCounter(BYTE chipSelect = 1);

    // The encoder moves: the counter counts `delta` (negative: down), wrapping
    // at its width, unless counting is disabled (MDR1 bit 2).
    void turn(int delta);
    // CNTR, within the counter width set by MDR1 (4 bytes at power-up).
    DWORD count() const;
    void setCount(DWORD value);
    // Back to the power-up state: registers cleared, counters and faults off.
    void reset();
    BYTE mdr0() const;
    BYTE mdr1() const;
    int counterBytes() const;

    // Exchanges seen, and the bus set-up of the last one.
    int exchanges() const;
    host::SpiBusConfig lastBusConfig() const;
    // While set, exchanges are carried out but their event is never set.
    void withholdCompletion(bool withhold);

    // The driver side: one exchange request (IOCTL_SPI_EXCHANGE).
    bool ioControl(DWORD code, const void* in, DWORD inSize, DWORD& error);

  private:
    DWORD transfer(DWORD tx, int bits);  // under mutex_
    BYTE answer(BYTE instruction, int index, BYTE in);
    DWORD widthMask() const;

    const BYTE chipSelect_;
    mutable std::mutex mutex_;
    BYTE mdr0_ = 0;
    BYTE mdr1_ = 0;
    DWORD dtr_ = 0;
    DWORD cntr_ = 0;
    DWORD otr_ = 0;
    BYTE str_ = 0;
    int exchanges_ = 0;
    host::SpiBusConfig lastConfig_{};
    bool withhold_ = false;
};

// Registers a counter as the driver of "SPI<port>:" and answers it.
std::shared_ptr<Ls7366rCounter> installSpiCounter(int port = 1, BYTE chipSelect = 1);
void uninstallSpiCounter(int port = 1);

}  // namespace sim
