#include "tools/coffkit/coff_writer.h"

#include <algorithm>
#include <limits>
#include <span>
#include <stdexcept>

#include "dsplink/wire.h"

namespace coffkit {
namespace {

class ByteWriter {
  public:
    explicit ByteWriter(bool bigEndian) : bigEndian_(bigEndian) {}

    void put16(std::uint16_t v) { wire::write(grow(2), 0, v, bigEndian_); }
    void put32(std::uint32_t v) { wire::write(grow(4), 0, v, bigEndian_); }
    void putBytes(const void* data, std::size_t n) {
        const auto* p = static_cast<const std::uint8_t*>(data);
        bytes_.insert(bytes_.end(), p, p + n);
    }
    std::size_t size() const { return bytes_.size(); }
    std::vector<std::uint8_t> take() { return std::move(bytes_); }

  private:
    std::span<std::uint8_t> grow(std::size_t n) {
        bytes_.resize(bytes_.size() + n);
        return std::span(bytes_).last(n);
    }

    bool bigEndian_;
    std::vector<std::uint8_t> bytes_;
};

std::uint32_t checked32(std::uint64_t value, const char* what) {
    if (value > std::numeric_limits<std::uint32_t>::max())
        throw std::invalid_argument(std::string("COFF image too large: ") + what);
    return static_cast<std::uint32_t>(value);
}

bool hasData(const CoffSectionSpec& s) {
    return !s.data.empty();
}

struct Layout {
    std::vector<std::uint32_t> rawDataPos;  // per section, 0 without data
    std::vector<std::uint32_t> nameOffset;  // per section, string table offset or 0
    std::string stringTable;                // names after the 4-byte length
    std::uint32_t stringTablePos = 0;
};

Layout layOut(const CoffImageSpec& spec, std::uint32_t optSize) {
    Layout layout;
    std::uint64_t pos = coff::kFileHeaderSize + optSize +
                        coff::kSectionHeaderSize * std::uint64_t{spec.sections.size()};
    for (const CoffSectionSpec& s : spec.sections) {
        layout.rawDataPos.push_back(hasData(s) ? checked32(pos, "section data") : 0);
        if (hasData(s)) pos += s.data.size();
        if (s.name.size() > 8) {
            layout.nameOffset.push_back(checked32(4 + layout.stringTable.size(), "names"));
            layout.stringTable += s.name;
            layout.stringTable += '\0';
        } else {
            layout.nameOffset.push_back(0);
        }
    }
    layout.stringTablePos = layout.stringTable.empty() ? 0 : checked32(pos, "string table");
    return layout;
}

void writeOptionalHeader(ByteWriter& out, const CoffImageSpec& spec) {
    std::uint64_t textSize = 0, dataSize = 0, bssSize = 0;
    std::optional<std::uint32_t> textStart, dataStart;
    for (const CoffSectionSpec& s : spec.sections) {
        if (s.flags & coff::STYP_TEXT) {
            textSize += s.data.size();
            if (!textStart) textStart = s.address;
        } else if (s.flags & coff::STYP_DATA) {
            dataSize += s.data.size();
            if (!dataStart) dataStart = s.address;
        } else if (s.flags & STYP_BSS) {
            bssSize += s.uninitializedSize;
        }
    }
    out.put16(coff::kOptionalHeaderMagic);
    out.put16(0);  // linker version stamp
    out.put32(checked32(textSize, "text"));
    out.put32(checked32(dataSize, "data"));
    out.put32(checked32(bssSize, "bss"));
    out.put32(spec.entry);
    out.put32(textStart.value_or(0));
    out.put32(dataStart.value_or(0));
}

}  // namespace

CoffSectionSpec dataSection(std::string name, std::uint32_t address, std::uint32_t flags,
                            std::vector<std::uint8_t> data) {
    CoffSectionSpec s;
    s.name = std::move(name);
    s.address = address;
    s.flags = flags;
    s.data = std::move(data);
    return s;
}

CoffSectionSpec bssSection(std::string name, std::uint32_t address, std::uint32_t size) {
    CoffSectionSpec s;
    s.name = std::move(name);
    s.address = address;
    s.flags = STYP_BSS;
    s.uninitializedSize = size;
    return s;
}

std::vector<std::uint8_t> buildCoffImage(const CoffImageSpec& spec) {
    if (spec.sections.size() > std::numeric_limits<std::uint16_t>::max())
        throw std::invalid_argument("COFF image: more than 65535 sections");
    const std::uint32_t optSize = spec.optionalHeader ? coff::kOptionalHeaderSize : 0;
    const Layout layout = layOut(spec, optSize);

    ByteWriter out(spec.bigEndian);
    out.put16(spec.versionId);
    out.put16(spec.sectionCountField.value_or(static_cast<std::uint16_t>(spec.sections.size())));
    out.put32(spec.timeStamp);
    out.put32(layout.stringTablePos);  // symbol table (empty) sits just before the strings
    out.put32(0);                      // no symbols
    out.put16(spec.optionalHeaderSizeField.value_or(static_cast<std::uint16_t>(optSize)));
    const std::uint16_t flags = coff::F_RELFLG | coff::F_EXEC | coff::F_LNNO | coff::F_LSYMS |
                                (spec.bigEndian ? coff::F_BIG : coff::F_LITTLE);
    out.put16(spec.flagsField.value_or(flags));
    out.put16(spec.targetIdField.value_or(coff::kTargetIdC6000));
    if (spec.optionalHeader) writeOptionalHeader(out, spec);

    for (std::size_t i = 0; i < spec.sections.size(); ++i) {
        const CoffSectionSpec& s = spec.sections[i];
        char name[8] = {};
        if (s.name.size() > 8) {
            // Zero in the first four bytes, the string table offset in the next four.
            ByteWriter offset(spec.bigEndian);
            offset.put32(layout.nameOffset[i]);
            const std::vector<std::uint8_t> bytes = offset.take();
            std::copy(bytes.begin(), bytes.end(), name + 4);
        } else {
            std::copy(s.name.begin(), s.name.end(), name);
        }
        out.putBytes(name, sizeof name);
        out.put32(s.address);  // physical
        out.put32(s.address);  // virtual
        const std::uint32_t size =
            hasData(s) ? checked32(s.data.size(), "section") : s.uninitializedSize;
        out.put32(s.sizeField.value_or(size));
        out.put32(s.rawDataPosField.value_or(layout.rawDataPos[i]));
        out.put32(0);  // relocations
        out.put32(0);  // line numbers
        out.put32(0);
        out.put32(0);
        out.put32(s.flags);
        out.put16(0);  // reserved
        out.put16(0);  // memory page
    }
    for (const CoffSectionSpec& s : spec.sections) out.putBytes(s.data.data(), s.data.size());
    if (!layout.stringTable.empty()) {
        out.put32(checked32(4 + layout.stringTable.size(), "names"));
        out.putBytes(layout.stringTable.data(), layout.stringTable.size());
    }
    return out.take();
}

}  // namespace coffkit
