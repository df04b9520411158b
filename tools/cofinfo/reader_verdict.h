#pragma once
// Runs the DSP link's own COFF reader on a host file and collects what it
// writes to the event log, so cofinfo's verdict is the one a boot would get.
#include <filesystem>
#include <string>
#include <vector>

#include "dsplink/coff_reader.h"

namespace cofinfo {

struct ReaderVerdict {
    int result = 0;  // readCoffImage's result: 0 or 141-150
    int sectionCount = 0;
    CoffSectionTable sections;
    std::vector<std::wstring> messages;  // the reader's event log lines, without time stamps
};

// The read happens in a scratch unit root in the temporary folder that holds
// only a link to the file (under the file's own absolute path, so messages
// name it as given) and the event log; the scratch root is removed after.
ReaderVerdict runReader(const std::filesystem::path& hostFile);

}  // namespace cofinfo
