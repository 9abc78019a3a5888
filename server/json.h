// A small strict JSON reader (RFC 8259) and the few writing helpers the service needs.
// Requests come from anyone, so the reader bounds nesting and never throws.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace json {

struct Value {
    enum class Kind { Null, Bool, Number, String, Array, Object };
    Kind kind = Kind::Null;
    bool boolean = false;
    std::string text;  // a string's value, or a number's literal as written
    std::vector<Value> items;
    std::map<std::string, Value, std::less<>> members;

    const Value* find(std::string_view key) const;
    // The value of key when it is a string, else none.
    std::optional<std::string> string_at(std::string_view key) const;
    // The number when this is an integer literal from 0 to max (no sign, fraction or exponent).
    std::optional<uint64_t> as_unsigned(uint64_t max = UINT32_MAX) const;
};

constexpr int kMaxDepth = 32;

// The document, or none when text is not exactly one well-formed JSON value (duplicate keys in
// one object, invalid UTF-8 and nesting deeper than kMaxDepth count as not well-formed).
std::optional<Value> parse(std::string_view text);

// text as a JSON string literal, quotes included.
std::string quote(std::string_view text);
// {"message": text}
std::string message(std::string_view text);

}  // namespace json
