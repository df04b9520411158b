#pragma once
// Why a file is not loadable, in one line: for files cofinfo refuses before
// the reader runs (not a regular file, too large), and for every result of
// the reader, also those it does not log, naming the section and its pointer
// where a section is to blame.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "tools/cofinfo/image_headers.h"
#include "tools/cofinfo/reader_verdict.h"

namespace cofinfo {

// The reader counts file positions in 31 bits; larger files cannot be read.
inline constexpr std::uint64_t kLargestReadableFile = 0x7FFFFFFF;

// A reason to refuse the file before the reader runs (a FIFO would block
// it), or nullopt. A missing file is left to the reader (141).
std::optional<std::string> refuseBeforeReading(const std::filesystem::path& file);

// The reason for a refusal by the reader (result not 0).
std::string readerRefusalReason(const std::optional<ImageHeaders>& image,
                                const ReaderVerdict& verdict);

}  // namespace cofinfo
