#include "tools/tovelctl/trace_table.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <istream>
#include <ostream>

namespace tovelctl {
namespace {

using nlohmann::json;

constexpr std::size_t kPayloadColumn = 24;  // hex digits shown; the trace has up to 128

std::string column(const json& line, const char* key) {
    const auto it = line.find(key);
    if (it == line.end() || it->is_null()) return "";
    return it->is_string() ? it->get<std::string>() : it->dump();
}

std::string row(const json& line) {
    char text[256];
    if (line.contains("dropped")) {
        std::snprintf(text, sizeof text, "--- %s records dropped (the trace queue was full)",
                      column(line, "dropped").c_str());
        return text;
    }
    const std::string event = column(line, "event");
    if (!event.empty()) {
        std::snprintf(text, sizeof text, "%8s  session %s %s (slot %s, serial %s)%s%s",
                      column(line, "t_ms").c_str(), column(line, "session").c_str(), event.c_str(),
                      column(line, "slot").c_str(), column(line, "serial").c_str(),
                      event == "end" ? ": " : "", column(line, "reason").c_str());
        return text;
    }
    std::string payload = column(line, "payload");
    if (payload.size() > kPayloadColumn) payload = payload.substr(0, kPayloadColumn) + "...";
    const std::string op =
        line.contains("sub") ? "sub " + column(line, "sub") : column(line, "dsp_opcode");
    const std::string status = line.contains("status")
                                   ? column(line, "status") + " " + column(line, "status_text")
                                   : "(no reply)";
    std::snprintf(
        text, sizeof text, "%8s %7s %4s %-10s %7s %6s %-28s %6s %7s  %s",
        column(line, "t_ms").c_str(), column(line, "session").c_str(), column(line, "slot").c_str(),
        column(line, "request").c_str(), op.c_str(), column(line, "size").c_str(), status.c_str(),
        column(line, "reply_length").c_str(), column(line, "took_ms").c_str(), payload.c_str());
    return text;
}

bool passes(const json& line, const TraceFilter& filter) {
    if (filter.session && line.value("session", 0u) != *filter.session) return false;
    if (filter.status || filter.nonzero) {
        if (!line.contains("status")) return false;  // only replies have a status
        const auto status = line["status"].get<std::uint32_t>();
        if (filter.nonzero && status == 0) return false;
        if (filter.status && status != *filter.status) return false;
    }
    return true;
}

}  // namespace

bool parseStatusFilter(const std::string& text, TraceFilter& filter) {
    if (text == "nonzero") {
        filter.nonzero = true;
        return true;
    }
    std::size_t used = 0;
    try {
        const unsigned long value = std::stoul(text, &used, 0);
        if (used != text.size() || text[0] == '-' || value > 0xffffffffUL) return false;
        filter.status = static_cast<std::uint32_t>(value);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool printTrace(std::istream& in, const std::string& name, const TraceFilter& filter, bool json,
                std::ostream& out, std::string& error) {
    if (!json)
        out << "    t_ms session slot request    opcode   size status                       "
               "length took_ms  payload\n";
    std::string text;
    for (int number = 1; std::getline(in, text); ++number) {
        if (text.empty()) continue;
        const nlohmann::json line =
            nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
        if (!line.is_object() || !(line.contains("session") || line.contains("dropped"))) {
            error = name + ":" + std::to_string(number) + ": not a trace record";
            return false;
        }
        if (!passes(line, filter)) continue;
        out << (json ? text : row(line)) << "\n";
    }
    return true;
}

}  // namespace tovelctl
