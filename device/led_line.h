#pragma once
// An output line with an LED on it, as the blinkers drive it: the digital
// outputs of the front-panel I/O framework (see digital_output_led.h), or a
// stand-in in tests.
class LedLine {
  public:
    virtual ~LedLine() = default;
    virtual void setOn() = 0;  // drive the line to its active level
    virtual void setOff() = 0;
    virtual bool isOn() const = 0;  // whether the last level written was the active one
};
