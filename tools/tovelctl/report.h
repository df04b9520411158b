#pragma once
// What tovelctl prints for one reply: as aligned "name: value" lines for
// people, or as one JSON object per line for scripts.
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tovelctl {

class Report {
  public:
    using Value = std::variant<std::string, std::int64_t, bool>;

    explicit Report(std::string command) : command_(std::move(command)) {}

    // The reply's status word (number and texts) and its data.
    Report& status(const std::string& name, std::uint32_t value);
    Report& data(const std::vector<std::uint8_t>& bytes);
    Report& add(const std::string& name, Value value);

    void print(std::ostream& out, bool json) const;

  private:
    struct Field {
        std::string name;
        Value value;
        bool isStatus = false;
        std::string shortText, longText;  // of a status
    };
    std::string command_;
    std::vector<Field> fields_;
    bool hasData_ = false;
    std::vector<std::uint8_t> data_;
};

// Lines of up to 16 bytes: offset, hex bytes.
std::string hexDump(const std::vector<std::uint8_t>& bytes, const std::string& indent);

}  // namespace tovelctl
