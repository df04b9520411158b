#include "tools/scenariokit/scenario_file.h"

#include <toml++/toml.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>

#include "dsplink/wire.h"

namespace scenario {
namespace {

constexpr std::int64_t kMaxLatencyMs = 60000;  // as `tovelsim fault SLOT latency` allows
constexpr std::int64_t kMaxDelayMs = 600000;
constexpr std::int64_t kMaxEventMs = 86400000;  // a day
constexpr std::int64_t kMaxKnobDelta = 1000000;
constexpr std::size_t kMaxReplyBytes = wire::kMaxPayload;  // the largest DSP packet payload

// An error at a place in the file.
struct Invalid {
    toml::source_position at;
    std::string what;
};

[[noreturn]] void fail(const toml::node& node, std::string what) {
    throw Invalid{node.source().begin, std::move(what)};
}

// Every key of `table` must be one of `allowed`.
void onlyKeys(const toml::table& table, std::initializer_list<std::string_view> allowed,
              std::string_view where) {
    for (const auto& [key, value] : table) {
        if (std::find(allowed.begin(), allowed.end(), key.str()) != allowed.end()) continue;
        std::string list;
        for (std::string_view a : allowed) list += (list.empty() ? "" : ", ") + std::string(a);
        throw Invalid{key.source().begin, "unknown key \"" + std::string(key.str()) + "\" in " +
                                              std::string(where) + " (expected " + list + ")"};
    }
}

const toml::node* find(const toml::table& table, std::string_view key) {
    return table.get(key);
}

const toml::node& require(const toml::table& table, std::string_view key, std::string_view where) {
    const toml::node* node = find(table, key);
    if (!node) fail(table, std::string(where) + " needs \"" + std::string(key) + "\"");
    return *node;
}

std::int64_t integer(const toml::node& node, std::string_view key, std::int64_t low,
                     std::int64_t high) {
    const auto* value = node.as_integer();
    const std::string range = std::to_string(low) + ".." + std::to_string(high);
    if (!value) fail(node, "\"" + std::string(key) + "\" must be an integer " + range);
    if (value->get() < low || value->get() > high)
        fail(node, "\"" + std::string(key) + "\" must be in " + range);
    return value->get();
}

std::string string(const toml::node& node, std::string_view key) {
    const auto* value = node.as_string();
    if (!value) fail(node, "\"" + std::string(key) + "\" must be a string");
    return value->get();
}

bool boolean(const toml::node& node, std::string_view key) {
    const auto* value = node.as_boolean();
    if (!value) fail(node, "\"" + std::string(key) + "\" must be true or false");
    return value->get();
}

// The array of tables under `key`, or none.
std::vector<const toml::table*> tables(const toml::table& parent, std::string_view key) {
    std::vector<const toml::table*> out;
    const toml::node* node = find(parent, key);
    if (!node) return out;
    const auto* array = node->as_array();
    if (!array)
        fail(*node, "\"" + std::string(key) + "\" must be an array of tables ([[" +
                        std::string(key) + "]])");
    for (const toml::node& item : *array) {
        const auto* table = item.as_table();
        if (!table) fail(item, "each \"" + std::string(key) + "\" must be a table");
        out.push_back(table);
    }
    return out;
}

std::vector<BYTE> hexBytes(const toml::node& node) {
    std::string text = string(node, "data");
    std::erase_if(text, [](char c) { return c == ' '; });
    const auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    if (text.size() % 2 != 0 || text.size() / 2 > kMaxReplyBytes ||
        !std::all_of(text.begin(), text.end(), [&](char c) { return nibble(c) >= 0; }))
        fail(node, "\"data\" must be hexadecimal bytes (\"00ff...\"), at most " +
                       std::to_string(kMaxReplyBytes));
    std::vector<BYTE> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<BYTE>(nibble(text[i]) * 16 + nibble(text[i + 1])));
    return bytes;
}

void readUnit(const toml::node& node, Scenario& out) {
    const auto* unit = node.as_table();
    if (!unit) fail(node, "\"unit\" must be a table ([unit])");
    onlyKeys(*unit, {"platform", "boards_at_start"}, "[unit]");
    if (const auto* n = find(*unit, "platform")) out.platform = string(*n, "platform");
    if (const auto* n = find(*unit, "boards_at_start"))
        out.boardsAtStart = boolean(*n, "boards_at_start");
}

sim::ReplyRule readReply(const toml::table& table) {
    onlyKeys(table, {"opcode", "reply_opcode", "data", "echo", "delay_ms"}, "[[board.reply]]");
    sim::ReplyRule rule;
    rule.opcode =
        static_cast<BYTE>(integer(require(table, "opcode", "[[board.reply]]"), "opcode", 0, 255));
    rule.replyOpcode = rule.opcode;
    if (const auto* n = find(table, "reply_opcode"))
        rule.replyOpcode = static_cast<BYTE>(integer(*n, "reply_opcode", 0, 255));
    const auto* data = find(table, "data");
    const auto* echo = find(table, "echo");
    const auto* delay = find(table, "delay_ms");
    if ((data != nullptr) + (echo != nullptr) + (delay != nullptr) != 1)
        fail(table, "[[board.reply]] needs exactly one of \"data\", \"echo\" or \"delay_ms\"");
    if (data) {
        rule.kind = sim::ReplyRule::Kind::Data;
        rule.data = hexBytes(*data);
    } else if (echo) {
        if (!boolean(*echo, "echo")) fail(*echo, "\"echo\" can only be true");
        rule.kind = sim::ReplyRule::Kind::Echo;
    } else {
        rule.kind = sim::ReplyRule::Kind::Delay;
        rule.delayMs = static_cast<DWORD>(integer(*delay, "delay_ms", 0, kMaxDelayMs));
    }
    return rule;
}

void readBoards(const toml::table& root, Scenario& out) {
    std::map<sim::BoardKind, std::uint32_t> lastSerial;
    for (const toml::table* table : tables(root, "board")) {
        if (out.boards.size() == static_cast<std::size_t>(kLastSlot))
            fail(*table, "at most " + std::to_string(kLastSlot) + " boards fit the bus");
        onlyKeys(*table, {"kind", "serial", "latency_ms", "reply"}, "[[board]]");
        Board board;
        const toml::node& kindNode = require(*table, "kind", "[[board]]");
        const auto kind = sim::parseBoardKind(string(kindNode, "kind"));
        if (!kind) fail(kindNode, "unknown board kind (expected t1, rf, ip, ipg or pots)");
        board.kind = *kind;
        if (const auto* n = find(*table, "serial")) {
            board.serial = static_cast<std::uint32_t>(integer(*n, "serial", 1, 0xFFFFFFFF));
        } else {
            // A kind named again gets the next serial, so the registry sees two boards.
            const auto last = lastSerial.find(board.kind);
            board.serial = last == lastSerial.end()
                               ? sim::defaultBoardSpec(board.kind).detail.serial
                               : last->second + 1;
        }
        for (const Board& other : out.boards)
            if (other.serial == board.serial)
                fail(*table, "serial " + std::to_string(board.serial) + " is used twice");
        lastSerial[board.kind] = board.serial;
        if (const auto* n = find(*table, "latency_ms"))
            board.latencyMs = static_cast<DWORD>(integer(*n, "latency_ms", 0, kMaxLatencyMs));
        for (const toml::table* reply : tables(*table, "reply"))
            board.replies.push_back(readReply(*reply));
        out.boards.push_back(std::move(board));
    }
}

// The console command of a fault event: "fault SLOT fail CODE COUNT" etc.
std::string faultCommand(const toml::table& table, int slot) {
    const toml::node& faultNode = require(table, "fault", "a fault event");
    const std::string fault = string(faultNode, "fault");
    const std::string prefix = "fault " + std::to_string(slot) + " ";
    const auto number = [&](std::string_view key, std::int64_t low, std::int64_t high) {
        return std::to_string(integer(require(table, key, "this fault"), key, low, high));
    };
    if (fault == "fail") {
        onlyKeys(table, {"at_ms", "action", "slot", "fault", "code", "count"}, "a fail fault");
        return prefix + "fail " + number("code", 1, 0xFFFFFFFF) + " " + number("count", 0, 1000000);
    }
    if (fault == "state") {
        onlyKeys(table, {"at_ms", "action", "slot", "fault", "code"}, "a state fault");
        return prefix + "state " + number("code", 0, 255);
    }
    if (fault == "latency") {
        onlyKeys(table, {"at_ms", "action", "slot", "fault", "ms"}, "a latency fault");
        return prefix + "latency " + number("ms", 0, kMaxLatencyMs);
    }
    if (fault == "hang" || fault == "mixup") {
        onlyKeys(table, {"at_ms", "action", "slot", "fault"}, "a " + fault + " fault");
        return prefix + fault;
    }
    fail(faultNode, "unknown fault (expected fail, state, hang, mixup or latency)");
}

Event readEvent(const toml::table& table, const Scenario& scenario) {
    Event event;
    event.atMs =
        static_cast<DWORD>(integer(require(table, "at_ms", "[[event]]"), "at_ms", 0, kMaxEventMs));
    const toml::node& actionNode = require(table, "action", "[[event]]");
    const std::string action = string(actionNode, "action");
    const auto slot = [&] {
        return static_cast<int>(
            integer(require(table, "slot", "this event"), "slot", kFirstSlot, kLastSlot));
    };
    if (action == "attach") {
        onlyKeys(table, {"at_ms", "action", "slot"}, "an attach event");
        event.action = Action::Attach;
        event.slot = slot();
        if (event.slot > static_cast<int>(scenario.boards.size()))
            fail(*table.get("slot"), "an attach event's \"slot\" must name a [[board]] (1.." +
                                         std::to_string(scenario.boards.size()) + ")");
        const Board& board = scenario.boards[event.slot - 1];
        event.command = "attach " + std::string(sim::kindName(board.kind)) + ":" +
                        std::to_string(board.serial) + " slot=" + std::to_string(event.slot);
    } else if (action == "detach" || action == "clear") {
        onlyKeys(table, {"at_ms", "action", "slot"}, "a " + action + " event");
        event.action = action == "detach" ? Action::Detach : Action::Clear;
        event.slot = slot();
        event.command = action == "detach" ? "detach " + std::to_string(event.slot)
                                           : "fault " + std::to_string(event.slot) + " clear";
    } else if (action == "fault") {
        event.action = Action::Fault;
        event.slot = slot();
        event.command = faultCommand(table, event.slot);
    } else if (action == "powerfail") {
        onlyKeys(table, {"at_ms", "action"}, "a powerfail event");
        event.action = Action::PowerFail;
        event.command = "powerfail";
    } else if (action == "knob") {
        onlyKeys(table, {"at_ms", "action", "delta"}, "a knob event");
        event.action = Action::Knob;
        event.command = "knob " + std::to_string(integer(require(table, "delta", "a knob event"),
                                                         "delta", -kMaxKnobDelta, kMaxKnobDelta));
    } else {
        fail(actionNode,
             "unknown action (expected attach, detach, fault, clear, powerfail or knob)");
    }
    return event;
}

Scenario read(const toml::table& root, const std::string& name) {
    Scenario out;
    out.file = name;
    onlyKeys(root, {"unit", "board", "event"}, "the file");
    if (const auto* unit = find(root, "unit")) readUnit(*unit, out);
    readBoards(root, out);
    for (const toml::table* table : tables(root, "event"))
        out.events.push_back(readEvent(*table, out));
    std::stable_sort(out.events.begin(), out.events.end(),
                     [](const Event& a, const Event& b) { return a.atMs < b.atMs; });
    return out;
}

std::string where(const std::string& name, const toml::source_position& at) {
    return name + ":" + std::to_string(at.line) + ":" + std::to_string(at.column) + ": ";
}

}  // namespace

ParseResult parseScenarioText(std::string_view text, const std::string& name) {
    try {
        const toml::table root = toml::parse(text, name);
        return {read(root, name), {}};
    } catch (const toml::parse_error& e) {
        return {std::nullopt, where(name, e.source().begin) + std::string(e.description())};
    } catch (const Invalid& e) {
        return {std::nullopt, where(name, e.at) + e.what};
    }
}

ParseResult parseScenarioFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {std::nullopt, path + ": cannot read the file"};
    std::ostringstream text;
    text << in.rdbuf();
    return parseScenarioText(text.str(), path);
}

}  // namespace scenario
