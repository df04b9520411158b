#pragma once
// `tovelctl trace FILE`: a request trace (tovel --trace) as a table people
// read, or filtered to the lines that matter (one session, one status).
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace tovelctl {

struct TraceFilter {
    std::optional<std::uint32_t> session;
    // A status number, or any nonzero status ("nonzero").
    std::optional<std::uint32_t> status;
    bool nonzero = false;
};

// Parses the --status argument: a number or "nonzero"; false if it is neither.
bool parseStatusFilter(const std::string& text, TraceFilter& filter);

// Prints the trace lines of `in` that pass the filter: as a table, or with
// `json` unchanged. Answers false with "NAME:LINE: reason" in `error` at the
// first line that is not a trace record.
bool printTrace(std::istream& in, const std::string& name, const TraceFilter& filter, bool json,
                std::ostream& out, std::string& error);

}  // namespace tovelctl
