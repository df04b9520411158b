#pragma once
// One queued value of an I/O point: a level (digital points) or a raw word
// (multi-bit points).
#include <variant>

class IOValue {
  public:
    explicit IOValue(bool level) : value_(level) {}
    explicit IOValue(int raw) : value_(raw) {}

    bool isLevel() const { return std::holds_alternative<bool>(value_); }
    // The level; a raw word counts as set when it is nonzero.
    bool level() const { return isLevel() ? std::get<bool>(value_) : std::get<int>(value_) != 0; }
    // The raw word; a level reads as 1 or 0.
    int raw() const { return isLevel() ? (std::get<bool>(value_) ? 1 : 0) : std::get<int>(value_); }

    friend bool operator==(const IOValue&, const IOValue&) = default;

  private:
    std::variant<bool, int> value_;
};
