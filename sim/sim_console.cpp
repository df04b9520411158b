#include "sim/sim_console.h"

#include <charconv>
#include <sstream>

#include "platform/handles.h"
#include "platform/sync.h"
#include "platform/text.h"
#include "sim/dio_block.h"
#include "sim/dsp_bus.h"
#include "sim/spi_counter.h"
#include "sim/watchdog_hardware.h"

namespace sim {
namespace {

constexpr int kPowerFailLine = 17;

std::vector<std::string> split(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

// Whole decimal (or 0x-prefixed hexadecimal) numbers only.
template <class T>
bool parseNumber(const std::string& text, T& out) {
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty()) return false;
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out, base);
    return ec == std::errc() && end == digits.data() + digits.size();
}

std::string error(const std::string& why) {
    return "error " + why;
}

}  // namespace

SimConsole::SimConsole(std::shared_ptr<SimDspBus> bus, std::shared_ptr<DioBlock> dio,
                       std::shared_ptr<Ls7366rCounter> counter)
    : bus_(std::move(bus)), dio_(std::move(dio)), counter_(std::move(counter)) {}

SimConsole::~SimConsole() {
    if (rotaryEvent_ != NULL_HANDLE) host::CloseHandle(rotaryEvent_);
}

std::string SimConsole::execute(const std::string& line) {
    Words words = split(line);
    if (words.empty()) return error("empty command");
    const std::string& command = words[0];
    if (command == "boards" && words.size() == 1) return boards();
    if (command == "attach") return attach(words);
    if (command == "detach") return detach(words);
    if (command == "fault") return fault(words);
    if (command == "powerfail" && words.size() == 1) return powerFail();
    if (command == "knob") return knob(words);
    if (command == "watchdog" && words.size() == 1) return watchdog();
    if (command == "leds" && words.size() == 1) return leds();
    if (command == "cpu" && words.size() == 1) return cpu();
    if (const auto extension = extensions_.find(command); extension != extensions_.end())
        return extension->second(words);
    if (command == "help")
        return "ok commands: boards | attach KIND[:SERIAL] | detach SLOT | fault SLOT fail CODE "
               "COUNT | "
               "fault SLOT state CODE | fault SLOT hang | fault SLOT mixup | fault SLOT latency MS "
               "| "
               "fault SLOT clear | powerfail | knob DELTA | watchdog | leds | cpu";
    return error("unknown command or wrong arguments: " + line.substr(0, 80));
}

void SimConsole::addCommand(const std::string& name, Handler handler) {
    extensions_[name] = std::move(handler);
}

std::string SimConsole::boards() {
    if (!bus_) return error("no simulated DSP boards");
    std::ostringstream out;
    out << "ok";
    const auto list = bus_->boards();
    out << " count=" << list.size();
    for (const BoardInfo& b : list) {
        out << "; slot=" << b.slot << " kind=" << kindName(b.kind) << " serial=" << b.serial
            << " state=" << static_cast<int>(b.state) << " seq=" << static_cast<int>(b.sequence)
            << " running=" << (b.programRunning ? "yes" : "no")
            << " version=" << toString(b.version) << " held=" << (b.held ? "yes" : "no");
    }
    return out.str();
}

std::string SimConsole::attach(const Words& words) {
    if (!bus_) return error("no simulated DSP boards");
    if (words.size() != 2) return error("usage: attach KIND[:SERIAL]");
    const std::string& arg = words[1];
    const auto colon = arg.find(':');
    auto kind = parseBoardKind(arg.substr(0, colon));
    if (!kind)
        return error("unknown board kind '" + arg.substr(0, colon) + "' (t1, rf, ip, ipg, pots)");
    BoardSpec spec = defaultBoardSpec(*kind);
    if (colon != std::string::npos) {
        std::uint32_t serial = 0;
        if (!parseNumber(arg.substr(colon + 1), serial) || serial == 0)
            return error("bad serial number");
        spec.detail.serial = serial;
    }
    auto board = bus_->attach(spec);
    if (!board) return error("no free slot");
    return "ok slot=" + std::to_string(bus_->slotOf(*board));
}

std::string SimConsole::detach(const Words& words) {
    if (!bus_) return error("no simulated DSP boards");
    int slot = 0;
    if (words.size() != 2 || !parseNumber(words[1], slot)) return error("usage: detach SLOT");
    if (!bus_->detach(slot)) return error("no board in slot " + words[1]);
    return "ok detached slot=" + words[1];
}

std::string SimConsole::fault(const Words& words) {
    if (!bus_) return error("no simulated DSP boards");
    int slot = 0;
    if (words.size() < 3 || !parseNumber(words[1], slot))
        return error("usage: fault SLOT WHAT ...");
    auto board = bus_->board(slot);
    if (!board) return error("no board in slot " + words[1]);
    const std::string& what = words[2];
    if (what == "fail" && words.size() == 5) {
        DWORD code = 0;
        unsigned count = 0;
        if (!parseNumber(words[3], code) || !parseNumber(words[4], count) || code == 0)
            return error("usage: fault SLOT fail CODE COUNT");
        board->failNextTransfers(count, code);
        return "ok next " + words[4] + " transfers fail with " + words[3];
    }
    if (what == "state" && words.size() == 4) {
        unsigned state = 0;
        if (!parseNumber(words[3], state) || state > 255)
            return error("usage: fault SLOT state CODE (0..255)");
        board->reportState(static_cast<BYTE>(state));
        return "ok reports state " + words[3];
    }
    if (what == "hang" && words.size() == 3) {
        board->freeze(true);
        return "ok hung";
    }
    if (what == "mixup" && words.size() == 3) {
        board->mixUp(MixUp::ReplyOpcode);
        return "ok next reply carries a wrong opcode";
    }
    if (what == "latency" && words.size() == 4) {
        DWORD ms = 0;
        if (!parseNumber(words[3], ms) || ms > 60000)
            return error("usage: fault SLOT latency MS (0..60000)");
        board->setTransferLatency(ms);
        return "ok latency " + words[3] + " ms";
    }
    if (what == "clear" && words.size() == 3) {
        board->clearFaults();
        return "ok faults cleared";
    }
    return error(
        "unknown fault; use fail CODE COUNT, state CODE, hang, mixup, latency MS or clear");
}

std::string SimConsole::powerFail() {
    if (!dio_) return error("no simulated digital I/O");
    // A fresh rising edge on the power-fail line, however often it is asked.
    dio_->setInput(kPowerFailLine, false);
    dio_->setInput(kPowerFailLine, true);
    if (panel_.powerFailHandled && !panel_.powerFailHandled())
        return "ok line 17 raised; this platform has no power-fail handling: the unit runs on";
    return "ok line 17 raised";
}

std::string SimConsole::knob(const Words& words) {
    if (!counter_) return error("no simulated knob counter");
    int delta = 0;
    std::string text = words.size() == 2 ? words[1] : "";
    if (!text.empty() && text[0] == '+') text.erase(0, 1);
    if (words.size() != 2 || !parseNumber(text, delta) || delta < -1000000 || delta > 1000000)
        return error("usage: knob DELTA (-1000000..1000000)");
    counter_->turn(delta);
    publishKnobCount();
    return "ok turned " + words[1];
}

// The unit's counting component: it hands the chip's count to the knobs of
// every program on this unit root through "RotaryEvent" and its event data,
// as a knob's counter reader does on the unit.
void SimConsole::publishKnobCount() {
    if (rotaryEvent_ == NULL_HANDLE)
        rotaryEvent_ = host::CreateEventW(false, false, L"RotaryEvent");
    if (rotaryEvent_ == NULL_HANDLE) return;
    host::SetEventData(rotaryEvent_, counter_->count());
    host::SetEvent(rotaryEvent_);
}

std::string SimConsole::watchdog() {
    const WatchdogState s = watchdogState();
    if (!s.present) return error("no simulated watchdog");
    std::ostringstream out;
    out << "ok armed=" << (s.armed ? "yes" : "no") << " expired=" << (s.expired ? "yes" : "no")
        << " interval_ms=" << s.intervalMs << " since_service_ms=" << s.sinceServiceMs
        << " remaining_ms=" << s.remainingMs << " hardware=\"" << host::narrow(s.hardware) << "\"";
    return out.str();
}

std::string SimConsole::leds() {
    return panel_.leds ? panel_.leds() : error("no status dialog to read the LEDs from");
}

std::string SimConsole::cpu() {
    return panel_.cpu ? panel_.cpu() : error("no status dialog to read the load from");
}

}  // namespace sim
