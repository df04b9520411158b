#pragma once
// A front-panel digital output as an LED line for the blinkers. Header-only,
// so that the device library does not depend on the panel library; whoever
// uses it links the panel library.
#include "device/led_line.h"
#include "panel/digital_output.h"

class DigitalOutputLed final : public LedLine {
  public:
    explicit DigitalOutputLed(DigitalOutput* output) : output_(output) {}
    void setOn() override { output_->setOn(); }
    void setOff() override { output_->setOff(); }
    bool isOn() const override { return output_->isOn(); }
    DigitalOutput* output() const { return output_; }

  private:
    DigitalOutput* output_;  // not owned
};
