#include "tools/tovelctl/sequence.h"

#include <stdexcept>

namespace tovelctl {

std::vector<std::vector<std::string>> splitAtThen(const std::vector<std::string>& words) {
    std::vector<std::vector<std::string>> parts(1);
    for (const std::string& word : words) {
        if (word == kThen) {
            if (parts.back().empty())
                throw std::invalid_argument("'then' must stand between two commands");
            parts.emplace_back();
        } else {
            parts.back().push_back(word);
        }
    }
    if (parts.size() > 1 && parts.back().empty())
        throw std::invalid_argument("'then' must stand between two commands");
    return parts;
}

}  // namespace tovelctl
