#pragma once
// cof-download's check before it sends: the DSP link's own COFF reader runs
// on the file, so an image that the unit could never boot is caught on the
// client's side, with the reader's reason.
#include <string>

#include "tools/tovelctl/report.h"

namespace tovelctl {

struct ImageVerdict {
    int result = 0;       // the reader's result: 0 accepted, 141-150 refused
    int sections = 0;     // sections with data the reader kept
    std::string reason;   // why it is refused; empty when accepted
    std::string message;  // the reader's own log line, if it wrote one
    bool accepted() const { return result == 0; }
    Report report(const std::string& file) const;
};

ImageVerdict readImageVerdict(const std::string& file);

}  // namespace tovelctl
