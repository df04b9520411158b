#include "dsplink/coff_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "boards/error_log.h"
#include "dsplink/wire.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/text.h"

namespace coff {

bool isC6000TargetId(std::uint16_t targetIdReadLittleEndian) {
    return targetIdReadLittleEndian == kTargetIdC6000 ||
           targetIdReadLittleEndian == static_cast<std::uint16_t>(kTargetIdC6000 << 8);
}

FileHeader decodeFileHeader(std::span<const std::uint8_t, kFileHeaderSize> bytes) {
    FileHeader h;
    // The target ID alone decides the byte order of every other field.
    h.targetId = wire::readU16le(bytes, 20);
    h.bigEndian = h.targetId == static_cast<std::uint16_t>(kTargetIdC6000 << 8);
    const bool be = h.bigEndian;
    h.versionId =
        wire::read<std::uint16_t>(bytes, 0, be);  // shown only; the reader accepts any version
    h.sectionCount = wire::read<std::uint16_t>(bytes, 2, be);
    h.timeStamp = wire::read<std::uint32_t>(bytes, 4, be);
    h.symbolTablePos = wire::read<std::uint32_t>(bytes, 8, be);
    h.symbolCount = wire::read<std::uint32_t>(bytes, 12, be);
    h.optionalHeaderSize = wire::read<std::uint16_t>(bytes, 16, be);
    h.flags = wire::read<std::uint16_t>(bytes, 18, be);
    return h;
}

SectionHeader decodeSectionHeader(std::span<const std::uint8_t, kSectionHeaderSize> bytes,
                                  bool bigEndian) {
    const std::uint8_t* p = bytes.data();
    SectionHeader s;
    std::memcpy(s.name, p, 8);
    s.name[8] = '\0';
    s.nameInStringTable = p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 0;
    if (s.nameInStringTable) s.stringTableOffset = wire::read<std::uint32_t>(bytes, 4, bigEndian);
    s.physicalAddress = wire::read<std::uint32_t>(bytes, 8, bigEndian);
    s.virtualAddress = wire::read<std::uint32_t>(bytes, 12, bigEndian);
    s.size = wire::read<std::uint32_t>(bytes, 16, bigEndian);
    s.rawDataPos = wire::read<std::uint32_t>(bytes, 20, bigEndian);
    s.relocationPos = wire::read<std::uint32_t>(bytes, 24, bigEndian);
    s.lineNumberPos = wire::read<std::uint32_t>(bytes, 28, bigEndian);
    s.relocationCount = wire::read<std::uint32_t>(bytes, 32, bigEndian);
    s.lineNumberCount = wire::read<std::uint32_t>(bytes, 36, bigEndian);
    s.flags = wire::read<std::uint32_t>(bytes, 40, bigEndian);
    s.reserved = wire::read<std::uint16_t>(bytes, 44, bigEndian);
    s.page = wire::read<std::uint16_t>(bytes, 46, bigEndian);
    return s;
}

}  // namespace coff

namespace {

constexpr const wchar_t* kClassName = L"CommPolicy_USB";

class FileHandle {
  public:
    explicit FileHandle(HANDLE h) : handle_(h) {}
    ~FileHandle() {
        if (*this) host::CloseHandle(handle_);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    explicit operator bool() const {
        return handle_ != INVALID_HANDLE_VALUE && handle_ != NULL_HANDLE;
    }
    HANDLE get() const { return handle_; }

  private:
    HANDLE handle_;
};

HANDLE openForReading(const std::wstring& path) {
    return host::CreateFileW(path.c_str(), host::GENERIC_READ, host::FILE_SHARE_READ,
                             host::OPEN_EXISTING, host::FILE_ATTRIBUTE_NORMAL);
}

// Where the parser's bytes come from: a stream with a size, a position and
// reads that may come back short.
class ByteSource {
  public:
    virtual ~ByteSource() = default;
    virtual DWORD size() = 0;  // host::INVALID_FILE_SIZE when it cannot be told
    virtual bool seek(std::uint32_t position) = 0;
    // Reads up to `count` bytes; answers how many arrived.
    virtual std::size_t read(std::uint8_t* buffer, std::size_t count) = 0;
};

class FileSource final : public ByteSource {
  public:
    explicit FileSource(HANDLE h) : handle_(h) {}
    DWORD size() override { return host::GetFileSize(handle_); }
    bool seek(std::uint32_t position) override {
        return host::SetFilePointer(handle_, static_cast<LONG>(position), host::FILE_BEGIN) !=
               host::INVALID_SET_FILE_POINTER;
    }
    // Goes on after short reads.
    std::size_t read(std::uint8_t* buffer, std::size_t count) override {
        std::size_t total = 0;
        while (total < count) {
            const DWORD want = static_cast<DWORD>(
                std::min<std::size_t>(count - total, std::numeric_limits<std::int32_t>::max()));
            DWORD got = 0;
            if (!host::ReadFile(handle_, buffer + total, want, &got) || got == 0) break;
            total += got;
        }
        return total;
    }

  private:
    HANDLE handle_;
};

// Behaves as the file source does on a file holding the same bytes: a
// position past the end (or one the host could not seek to) reads nothing.
class MemorySource final : public ByteSource {
  public:
    explicit MemorySource(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
    DWORD size() override {
        return bytes_.size() >= host::INVALID_FILE_SIZE ? host::INVALID_FILE_SIZE
                                                        : static_cast<DWORD>(bytes_.size());
    }
    bool seek(std::uint32_t position) override {
        if (position > static_cast<std::uint32_t>(std::numeric_limits<LONG>::max())) return false;
        position_ = position;
        return true;
    }
    std::size_t read(std::uint8_t* buffer, std::size_t count) override {
        if (position_ >= bytes_.size()) return 0;
        const std::size_t n = std::min(count, bytes_.size() - position_);
        std::memcpy(buffer, bytes_.data() + position_, n);
        position_ += n;
        return n;
    }

  private:
    std::span<const std::uint8_t> bytes_;
    std::size_t position_ = 0;
};

// A name field as text: bytes up to the first NUL, each byte one character.
std::wstring nameText(const char* field, std::size_t maxLength) {
    std::wstring text;
    for (std::size_t i = 0; i < maxLength && field[i] != '\0'; ++i)
        text += static_cast<wchar_t>(static_cast<unsigned char>(field[i]));
    return text;
}

void logSectionFailure(const wchar_t* format, const coff::SectionHeader& header) {
    LogError(host::wformat(format, kClassName, nameText(header.name, 8).c_str()));
}

// Steps after the stream is open: headers, section table, section data.
int readOpenImage(ByteSource& source, const std::wstring& path, CoffSectionTable& sections,
                  int& sectionCount) {
    const DWORD fileSize = source.size();
    std::array<std::uint8_t, coff::kFileHeaderSize> rawHeader{};
    if (fileSize == host::INVALID_FILE_SIZE ||
        source.read(rawHeader.data(), rawHeader.size()) != rawHeader.size()) {
        LogError(host::wformat(L"%s: failure to read header %s!", kClassName, path.c_str()));
        return kCoffHeaderUnreadable;
    }
    const coff::FileHeader header = coff::decodeFileHeader(rawHeader);
    if (!coff::isC6000TargetId(header.targetId)) {
        LogError(host::wformat(L"%s: %S Is Not A C67xxx Coff File!", kClassName,
                               host::narrow(path).c_str()));
        return kCoffNotC6000;
    }

    // Only as many headers as the file can hold are read, so a corrupt count
    // never sizes an allocation beyond the file.
    const std::uint64_t tablePos = coff::kFileHeaderSize + header.optionalHeaderSize;
    const std::uint64_t fitting =
        tablePos < fileSize ? (fileSize - tablePos) / coff::kSectionHeaderSize : 0;
    const std::size_t toRead =
        static_cast<std::size_t>(std::min<std::uint64_t>(header.sectionCount, fitting));
    std::vector<std::uint8_t> rawTable(toRead * coff::kSectionHeaderSize);
    std::size_t headersRead = 0;
    if (toRead > 0 && source.seek(static_cast<std::uint32_t>(tablePos)))
        headersRead = source.read(rawTable.data(), rawTable.size()) / coff::kSectionHeaderSize;
    if (headersRead < header.sectionCount) {
        // Headers that were never read must not be used; a partial table is
        // as useless to the boot as a missing one.
        LogError(host::wformat(
            L"%s::readCoffFile section headers of %s end after %d of the %d declared!", kClassName,
            path.c_str(), static_cast<int>(headersRead), static_cast<int>(header.sectionCount)));
        return kCoffHeadersTruncated;
    }

    std::vector<coff::SectionHeader> table;
    table.reserve(headersRead);
    for (std::size_t i = 0; i < headersRead; ++i)
        table.push_back(coff::decodeSectionHeader(
            std::span<const std::uint8_t, coff::kSectionHeaderSize>(
                rawTable.data() + i * coff::kSectionHeaderSize, coff::kSectionHeaderSize),
            header.bigEndian));

    // Refused as a whole rather than cut: a boot with sections missing would
    // start a DSP program that is not the one in the file.
    const auto withData = std::count_if(table.begin(), table.end(), [](const auto& s) {
        return coff::sectionHasData(s.size, s.flags);
    });
    if (withData > kMaxCoffSections) {
        LogError(host::wformat(
            L"%s::readCoffFile %s has %d sections with data, more than the %d that can be "
            L"loaded!",
            kClassName, path.c_str(), static_cast<int>(withData), kMaxCoffSections));
        return kCoffTooManySections;
    }

    for (const coff::SectionHeader& s : table) {
        // Seeking past the end of a file succeeds on this platform (only the
        // read then fails), so such a position is not a failed seek: a section
        // with nothing to load is skipped, one with data cannot be read (148).
        const bool pastEnd = s.rawDataPos >= fileSize;
        if (!pastEnd && !source.seek(s.rawDataPos)) return kCoffSeekFailed;
        if (!coff::sectionHasData(s.size, s.flags)) continue;

        CoffSection& record = sections[static_cast<std::size_t>(sectionCount)];
        // A size running past the end of the file cannot be read; saying so
        // before allocating keeps a corrupt size from claiming gigabytes.
        if (pastEnd || s.size > fileSize - s.rawDataPos) {
            logSectionFailure(L"%s: failure to read section %s!", s);
            return kCoffSectionUnreadable;
        }
        try {
            record.data.resize(s.size);
        } catch (const std::bad_alloc&) {
            record.data = {};
            logSectionFailure(L"%s: failure to alloc section %s!", s);
            return kCoffAllocFailed;
        }
        if (source.read(record.data.data(), s.size) != s.size) {
            record.data = {};
            logSectionFailure(L"%s: failure to read section %s!", s);
            return kCoffSectionUnreadable;
        }
        record.size = s.size;
        record.address = s.virtualAddress;
        std::memcpy(record.name, s.name, 7);
        record.name[7] = '\0';
        // Bytes after an embedded NUL are not part of the name.
        const std::size_t length = std::strlen(record.name);
        std::fill(record.name + length, record.name + 8, '\0');
        record.flags = s.flags;
        record.filePos = s.rawDataPos;
        ++sectionCount;
    }
    return 0;
}

}  // namespace

int readCoffImage(const std::wstring& path, CoffSectionTable& sections, int& sectionCount) {
    sections.fill(CoffSection{});
    sectionCount = 0;
    {
        FileHandle probe(openForReading(path));
        if (!probe) {
            LogError(host::wformat(L"SW Error #550937: Unable to open COF file %s!", path.c_str()));
            return kCoffOpenFailed;
        }
        if (host::GetFileSize(probe.get()) == 0) {
            LogError(host::wformat(L"SW Error #550938: COF file %ls is empty!", path.c_str()));
            return kCoffEmpty;
        }
    }
    FileHandle stream(openForReading(path));
    if (!stream) {
        LogError(host::wformat(L"%s: input file %s wont open!", kClassName, path.c_str()));
        return kCoffStreamFailed;
    }
    FileSource source(stream.get());
    return readOpenImage(source, path, sections, sectionCount);
}

int readCoffImageBytes(std::span<const std::uint8_t> image, const std::wstring& path,
                       CoffSectionTable& sections, int& sectionCount) {
    sections.fill(CoffSection{});
    sectionCount = 0;
    MemorySource source(image);
    return readOpenImage(source, path, sections, sectionCount);
}
