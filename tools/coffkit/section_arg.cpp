#include "tools/coffkit/section_arg.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace coffkit {
namespace {

[[noreturn]] void fail(std::string_view arg, const std::string& why) {
    throw std::invalid_argument("'" + std::string(arg) + "': " + why);
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::uint32_t parse32(std::string_view arg, std::string_view text, const char* what) {
    const auto value = parseNumber(text);
    if (!value || *value > 0xFFFFFFFFu)
        fail(arg, std::string("bad ") + what + " '" + std::string(text) + "'");
    return static_cast<std::uint32_t>(*value);
}

std::optional<std::uint32_t> flagsFrom(std::string_view text) {
    if (auto n = parseNumber(text)) {
        if (*n > 0xFFFFFFFFu) return std::nullopt;
        return static_cast<std::uint32_t>(*n);
    }
    static const std::pair<std::string_view, std::uint32_t> kNames[] = {
        {"text", coff::STYP_TEXT}, {"data", coff::STYP_DATA}, {"bss", STYP_BSS},
        {"copy", coff::STYP_COPY}, {"noload", STYP_NOLOAD},   {"dsect", STYP_DSECT}};
    std::uint32_t flags = 0;
    while (!text.empty()) {
        const std::size_t plus = text.find('+');
        const std::string_view word = text.substr(0, plus);
        bool known = false;
        for (const auto& [name, bit] : kNames) {
            if (word == name) {
                flags |= bit;
                known = true;
            }
        }
        if (!known) return std::nullopt;
        text = plus == std::string_view::npos ? std::string_view{} : text.substr(plus + 1);
    }
    return flags;
}

std::vector<std::uint8_t> readWholeFile(std::string_view arg, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail(arg, "cannot open '" + path + "'");
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::uint8_t> parseHex(std::string_view arg, std::string_view digits) {
    if (digits.size() % 2 != 0) fail(arg, "hex: needs an even number of digits");
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        std::uint8_t b = 0;
        const auto [end, ec] = std::from_chars(digits.data() + i, digits.data() + i + 2, b, 16);
        if (ec != std::errc{} || end != digits.data() + i + 2) fail(arg, "bad hex digits");
        bytes.push_back(b);
    }
    return bytes;
}

// Fills data or the declared size from CONTENT; answers whether it was bss:.
bool parseContent(std::string_view arg, std::string_view content, CoffSectionSpec& section) {
    if (content.starts_with("@")) {
        section.data = readWholeFile(arg, std::string(content.substr(1)));
        return false;
    }
    if (content.starts_with("hex:")) {
        section.data = parseHex(arg, content.substr(4));
        return false;
    }
    if (content.starts_with("bss:")) {
        section.uninitializedSize = parse32(arg, content.substr(4), "length");
        return true;
    }
    if (content.starts_with("pattern:")) {
        const std::string_view rest = content.substr(8);
        const std::size_t colon = rest.find(':');
        if (colon == std::string_view::npos) fail(arg, "pattern: needs BYTE:LEN");
        const std::uint32_t byte = parse32(arg, rest.substr(0, colon), "byte");
        if (byte > 0xFF) fail(arg, "pattern byte above 0xFF");
        const std::uint32_t length = parse32(arg, rest.substr(colon + 1), "length");
        constexpr std::uint32_t kMaxPattern = 256u << 20;  // keeps a typo from eating memory
        if (length > kMaxPattern) fail(arg, "pattern length above 256 MiB");
        section.data.assign(length, static_cast<std::uint8_t>(byte));
        return false;
    }
    fail(arg, "content must be @FILE, pattern:BYTE:LEN, hex:DIGITS or bss:LEN");
}

}  // namespace

CoffSectionSpec parseSectionArg(std::string_view arg) {
    const std::size_t eq = arg.find('=');
    if (eq == std::string_view::npos) fail(arg, "expected NAME:ADDR[:FLAGS]=CONTENT");
    const std::string_view head = arg.substr(0, eq);

    // Split off ADDR and FLAGS from the right, so names may hold ':'.
    std::vector<std::string_view> fields;
    for (std::string_view rest = head;;) {
        const std::size_t colon = rest.rfind(':');
        if (colon == std::string_view::npos || fields.size() == 2) {
            fields.push_back(rest);
            break;
        }
        fields.push_back(rest.substr(colon + 1));
        rest = rest.substr(0, colon);
    }
    if (fields.size() < 2) fail(arg, "expected NAME:ADDR[:FLAGS]=CONTENT");

    CoffSectionSpec section;
    std::optional<std::uint32_t> flags;
    std::string_view name;
    if (fields.size() == 3 && parseNumber(fields[1]) && flagsFrom(fields[0])) {
        name = fields[2];
        section.address = parse32(arg, fields[1], "address");
        flags = flagsFrom(fields[0]);
    } else {
        // NAME:ADDR, with any further ':' belonging to the name.
        const std::size_t colon = head.rfind(':');
        name = head.substr(0, colon);
        section.address = parse32(arg, head.substr(colon + 1), "address");
    }
    if (name.empty()) fail(arg, "empty section name");
    section.name = std::string(name);

    const bool bss = parseContent(arg, arg.substr(eq + 1), section);
    section.flags = flags.value_or(bss ? STYP_BSS : coff::STYP_TEXT);
    return section;
}

DspProgramVersion parseVersionArg(std::string_view arg) {
    const std::size_t dot = arg.find('.');
    if (dot == std::string_view::npos) fail(arg, "version must be MAJOR.MINOR");
    const auto major = parseNumber(arg.substr(0, dot));
    const auto minor = parseNumber(arg.substr(dot + 1));
    if (!major || !minor || *major > 0xFFFF || *minor > 0xFFFF)
        fail(arg, "version must be MAJOR.MINOR, each 0-65535");
    return {static_cast<std::uint16_t>(*major), static_cast<std::uint16_t>(*minor)};
}

}  // namespace coffkit
