#include "panel/digital_output.h"

#include "panel/dio_driver.h"

DigitalOutput::DigitalOutput(int line) : DigitalOutput(line, DioDriver::instance()) {}

DigitalOutput::DigitalOutput(int line, DioDriver* driver) : DigitalInput(1, true) {
    if (!driver) return;
    useDriver(driver);
    driver->registerPoint(this, line);
}

DigitalOutput::~DigitalOutput() {
    shutDown();
}

void DigitalOutput::setOn() {
    drive(activeLevel());
}

void DigitalOutput::setOff() {
    drive(!activeLevel());
}

void DigitalOutput::drive(bool level) {
    if (driver()) driver()->write(level, this);
    append(IOValue(level));
}

bool DigitalOutput::isOn() const {
    auto value = currentValue();
    return value && value->level();
}
