#include "app/led_outputs.h"

#include <array>
#include <mutex>

#include "device/digital_output_led.h"
#include "panel/digital_output.h"
#include "panel/dio_driver.h"

namespace {

struct Outputs {
    std::mutex mutex;
    std::array<DigitalOutput*, DioDriver::lineCount> byLine{};
};

}  // namespace

DigitalOutput* ledOutput(int line) {
    if (line < 0 || line >= DioDriver::lineCount) return nullptr;
    // Never destroyed: blinker threads may write the lines until the very
    // end, as the driver itself stays (see DioDriver::instance()).
    static Outputs* const outputs = new Outputs;
    std::lock_guard<std::mutex> lock(outputs->mutex);
    DigitalOutput*& output = outputs->byLine[static_cast<std::size_t>(line)];
    if (!output) output = new DigitalOutput(line);
    return output;
}

std::unique_ptr<LedLine> makeLedLine(int line) {
    DigitalOutput* output = ledOutput(line);
    if (!output) return nullptr;
    return std::make_unique<DigitalOutputLed>(output);
}
