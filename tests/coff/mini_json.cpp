#include "tests/coff/mini_json.h"

#include <cctype>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace minijson {
namespace {

class Parser {
  public:
    explicit Parser(const std::string& text) : text_(text) {}

    Value document() {
        Value v = value();
        skipSpace();
        if (pos_ != text_.size()) fail("trailing text");
        return v;
    }

  private:
    [[noreturn]] void fail(const std::string& why) const {
        throw std::runtime_error("JSON: " + why + " at " + std::to_string(pos_));
    }
    void skipSpace() {
        while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    }
    char peek() {
        skipSpace();
        if (pos_ >= text_.size()) fail("unexpected end");
        return text_[pos_];
    }
    void expect(char c) {
        if (peek() != c) fail(std::string("expected ") + c);
        ++pos_;
    }
    bool literal(const char* word) {
        const std::string w(word);
        if (text_.compare(pos_, w.size(), w) != 0) return false;
        pos_ += w.size();
        return true;
    }

    Value value() {
        const char c = peek();
        if (c == '{') return Value{object()};
        if (c == '[') return Value{array()};
        if (c == '"') return Value{string()};
        if (literal("true")) return Value{true};
        if (literal("false")) return Value{false};
        if (literal("null")) return Value{nullptr};
        return Value{number()};
    }

    std::shared_ptr<Object> object() {
        auto obj = std::make_shared<Object>();
        expect('{');
        if (peek() == '}') {
            ++pos_;
            return obj;
        }
        for (;;) {
            std::string key = string();
            expect(':');
            (*obj)[key] = value();
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            expect('}');
            return obj;
        }
    }

    std::shared_ptr<Array> array() {
        auto arr = std::make_shared<Array>();
        expect('[');
        if (peek() == ']') {
            ++pos_;
            return arr;
        }
        for (;;) {
            arr->push_back(value());
            if (peek() == ',') {
                ++pos_;
                continue;
            }
            expect(']');
            return arr;
        }
    }

    std::string string() {
        expect('"');
        std::string out;
        while (pos_ < text_.size() && text_[pos_] != '"') {
            char c = text_[pos_++];
            if (c == '\\') {
                if (pos_ >= text_.size()) fail("bad escape");
                const char e = text_[pos_++];
                switch (e) {
                    case 'n':
                        c = '\n';
                        break;
                    case 't':
                        c = '\t';
                        break;
                    case 'r':
                        c = '\r';
                        break;
                    case 'b':
                        c = '\b';
                        break;
                    case 'f':
                        c = '\f';
                        break;
                    case 'u': {
                        if (pos_ + 4 > text_.size()) fail("bad \\u escape");
                        c = static_cast<char>(std::stoi(text_.substr(pos_, 4), nullptr, 16));
                        pos_ += 4;
                        break;
                    }
                    default:
                        c = e;
                        break;
                }
            }
            out += c;
        }
        expect('"');
        return out;
    }

    std::int64_t number() {
        const std::size_t start = pos_;
        if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
        while (pos_ < text_.size() && std::isdigit(static_cast<unsigned char>(text_[pos_]))) ++pos_;
        if (start == pos_) fail("unexpected character");
        return std::stoll(text_.substr(start, pos_ - start));
    }

    const std::string& text_;
    std::size_t pos_ = 0;
};

}  // namespace

const Value& Value::operator[](const std::string& key) const {
    const Object& obj = object();
    const auto it = obj.find(key);
    if (it == obj.end()) throw std::runtime_error("JSON: no key " + key);
    return it->second;
}
const Array& Value::array() const {
    return *std::get<std::shared_ptr<Array>>(v);
}
const Object& Value::object() const {
    return *std::get<std::shared_ptr<Object>>(v);
}
std::int64_t Value::integer() const {
    return std::get<std::int64_t>(v);
}
const std::string& Value::string() const {
    return std::get<std::string>(v);
}
bool Value::boolean() const {
    return std::get<bool>(v);
}

Value parse(const std::string& text) {
    return Parser(text).document();
}

Value parseFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open " + path);
    std::stringstream ss;
    ss << in.rdbuf();
    return parse(ss.str());
}

}  // namespace minijson
