#pragma once
// Just enough JSON to read the expectations of the shared COFF files:
// objects, arrays, strings (without \u escapes beyond ASCII), integers,
// booleans and null.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace minijson {

struct Value;
using Object = std::map<std::string, Value>;
using Array = std::vector<Value>;

struct Value {
    std::variant<std::nullptr_t, bool, std::int64_t, std::string, std::shared_ptr<Array>,
                 std::shared_ptr<Object>>
        v;

    const Value& operator[](const std::string& key) const;  // throws if absent
    const Array& array() const;
    const Object& object() const;
    std::int64_t integer() const;
    const std::string& string() const;
    bool boolean() const;
};

// Throws std::runtime_error on malformed text.
Value parse(const std::string& text);
Value parseFile(const std::string& path);

}  // namespace minijson
