#pragma once
// The section descriptions mkcof takes on its command line:
//
//   NAME:ADDR[:FLAGS]=CONTENT
//
//   ADDR     number (0x.. hex, or decimal)
//   FLAGS    number, or names joined by '+': text data bss copy noload dsect
//            (default: bss for bss: content, text otherwise)
//   CONTENT  @FILE            the bytes of FILE
//            pattern:BYTE:LEN LEN bytes of value BYTE
//            hex:HEXDIGITS    the bytes written out, e.g. hex:0102A0FF
//            bss:LEN          no data in the file, LEN bytes declared
//
// A NAME that itself contains ':' needs explicit FLAGS, so that the last two
// fields are taken as ADDR and FLAGS.
#include <string_view>

#include "tools/coffkit/coff_writer.h"
#include "tools/coffkit/dsp_version.h"

namespace coffkit {

// Throws std::invalid_argument with a message for people.
CoffSectionSpec parseSectionArg(std::string_view arg);
// "MAJOR.MINOR", each 0-65535.
DspProgramVersion parseVersionArg(std::string_view arg);

}  // namespace coffkit
