#pragma once
// DigitalOutput: a line of the digital-I/O driver driven by the program. It
// is active-high, keeps the last level written, and is registered with the
// driver at its line when it is made.
#include "panel/digital_input.h"

class DioDriver;

class DigitalOutput : public DigitalInput {
  public:
    // On the process's digital-I/O driver (DioDriver::instance()).
    explicit DigitalOutput(int line);
    // On a given driver (none: the output only records its level).
    DigitalOutput(int line, DioDriver* driver);
    ~DigitalOutput() override;

    bool isInput() const override { return false; }
    bool isOutput() const override { return true; }

    void setOn();
    void setOff();
    // The level last written; false before the first write.
    bool isOn() const;

  private:
    void drive(bool level);
};
