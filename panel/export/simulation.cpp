// The simulated counter chip behind the exported library's test hooks.
#include <memory>
#include <mutex>

#include "sim/spi_counter.h"
#include "tovel/knob.h"

namespace tovel::simulation {
namespace {

// One chip for the process: the SPI port keeps the device it opened first,
// so a second chip installed later would never be read.
std::shared_ptr<sim::Ls7366rCounter>& chip() {
    static std::shared_ptr<sim::Ls7366rCounter> installed;
    return installed;
}
std::mutex& chipMutex() {
    static std::mutex m;
    return m;
}

std::shared_ptr<sim::Ls7366rCounter> installedChip() {
    std::lock_guard<std::mutex> lock(chipMutex());
    return chip();
}

}  // namespace

void installCounterChip() {
    std::lock_guard<std::mutex> lock(chipMutex());
    if (!chip()) chip() = sim::installSpiCounter(1, 1);
}

void turnCounterChip(int counts) {
    if (auto c = installedChip()) c->turn(counts);
}

std::uint32_t counterChipCount() {
    auto c = installedChip();
    return c ? c->count() : 0;
}

}  // namespace tovel::simulation
