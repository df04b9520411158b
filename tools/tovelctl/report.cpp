#include "tools/tovelctl/report.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "boards/dsp_status.h"
#include "platform/text.h"
#include "tools/tovelclient/tovel_client.h"

namespace tovelctl {

Report& Report::status(const std::string& name, std::uint32_t value) {
    // Status 0 has no text of its own (it borrows "DSP Dead!"): call it success.
    const auto code = static_cast<std::int32_t>(value);
    Field field{name, static_cast<std::int64_t>(value), true, "success", "success"};
    if (value != 0) {
        field.shortText = host::narrow(dspStatusShortText(code));
        field.longText = host::narrow(dspStatusText(code));
    }
    fields_.push_back(std::move(field));
    return *this;
}

Report& Report::data(const std::vector<std::uint8_t>& bytes) {
    hasData_ = true;
    data_ = bytes;
    return *this;
}

Report& Report::add(const std::string& name, Value value) {
    fields_.push_back(Field{name, std::move(value), false, {}, {}});
    return *this;
}

std::string hexDump(const std::vector<std::uint8_t>& bytes, const std::string& indent) {
    std::string out;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        const std::size_t n = std::min<std::size_t>(16, bytes.size() - offset);
        char label[32];
        std::snprintf(label, sizeof label, "%04zx: ", offset);
        out += indent + label + tovelclient::toHex(std::span(bytes).subspan(offset, n), " ") + "\n";
    }
    return out;
}

namespace {

nlohmann::ordered_json jsonValue(const Report::Value& value) {
    return std::visit([](const auto& v) { return nlohmann::ordered_json(v); }, value);
}

std::string textValue(const Report::Value& value) {
    if (auto* s = std::get_if<std::string>(&value)) return *s;
    if (auto* b = std::get_if<bool>(&value)) return *b ? "yes" : "no";
    return std::to_string(std::get<std::int64_t>(value));
}

}  // namespace

void Report::print(std::ostream& out, bool json) const {
    if (json) {
        nlohmann::ordered_json line{{"command", command_}};
        for (const auto& f : fields_) {
            line[f.name] = jsonValue(f.value);
            if (f.isStatus) {
                line[f.name + "Short"] = f.shortText;
                line[f.name + "Text"] = f.longText;
            }
        }
        if (hasData_) {
            line["length"] = data_.size();
            line["data"] = tovelclient::toHex(data_);
        }
        // Bytes that are not UTF-8 (a file name) become U+FFFD, so the line stays JSON.
        out << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
        return;
    }
    // People read a status as "4 (short / long)" on one line.
    std::vector<std::pair<std::string, std::string>> lines;
    for (const auto& f : fields_) {
        std::string text = textValue(f.value);
        if (f.isStatus) {
            text += " (" + f.shortText;
            if (f.longText != f.shortText) text += " / " + f.longText;
            text += ")";
        }
        lines.emplace_back(f.name, text);
    }
    if (hasData_) lines.emplace_back("length", std::to_string(data_.size()));
    std::size_t width = 0;
    for (const auto& line : lines) width = std::max(width, line.first.size());
    for (const auto& [name, text] : lines)
        out << name << ":" << std::string(width - name.size() + 1, ' ') << text << "\n";
    if (hasData_ && !data_.empty()) out << "data:\n" << hexDump(data_, "  ");
}

}  // namespace tovelctl
