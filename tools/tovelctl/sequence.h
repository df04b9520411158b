#pragma once
// A tovelctl run may send several commands on one connection, separated by the
// word `then`: "cof-download img.out then boot". Each board is bound to a
// connection, so commands meant for one board must share one.
#include <string>
#include <vector>

namespace tovelctl {

inline constexpr const char* kThen = "then";

// The words of each command, in order; the first part also holds the options
// before the first command. Throws std::invalid_argument when a `then` has no
// command on one side.
std::vector<std::vector<std::string>> splitAtThen(const std::vector<std::string>& words);

}  // namespace tovelctl
