#include "sim/program_version.h"

namespace sim {

std::string toString(ProgramVersion version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor);
}

}  // namespace sim
