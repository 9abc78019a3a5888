#include "json.h"

#include <cstdio>

namespace json {

const Value* Value::find(std::string_view key) const {
    if (kind != Kind::Object) return nullptr;
    auto it = members.find(key);
    return it == members.end() ? nullptr : &it->second;
}

std::optional<std::string> Value::string_at(std::string_view key) const {
    const Value* v = find(key);
    if (!v || v->kind != Kind::String) return std::nullopt;
    return v->text;
}

std::optional<uint64_t> Value::as_unsigned(uint64_t max) const {
    if (kind != Kind::Number || text.empty() || text.size() > 20) return std::nullopt;
    uint64_t n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        uint64_t digit = uint64_t(c - '0');
        if (n > (max - digit) / 10) return std::nullopt;
        n = n * 10 + digit;
    }
    return n;
}

namespace {

class Reader {
public:
    explicit Reader(std::string_view text) : s_(text) {}

    std::optional<Value> document() {
        Value v;
        skip_space();
        if (!value(v, 0)) return std::nullopt;
        skip_space();
        if (pos_ != s_.size()) return std::nullopt;
        return v;
    }

private:
    bool at_end() const { return pos_ >= s_.size(); }
    char peek() const { return at_end() ? '\0' : s_[pos_]; }

    void skip_space() {
        while (!at_end() && (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r')) ++pos_;
    }

    bool literal(std::string_view word) {
        if (s_.substr(pos_, word.size()) != word) return false;
        pos_ += word.size();
        return true;
    }

    bool value(Value& v, int depth) {
        if (depth > kMaxDepth) return false;
        switch (peek()) {
        case '{': return object(v, depth);
        case '[': return array(v, depth);
        case '"': v.kind = Value::Kind::String; return string(v.text);
        case 't': v.kind = Value::Kind::Bool; v.boolean = true; return literal("true");
        case 'f': v.kind = Value::Kind::Bool; return literal("false");
        case 'n': return literal("null");
        default: v.kind = Value::Kind::Number; return number(v.text);
        }
    }

    bool object(Value& v, int depth) {
        v.kind = Value::Kind::Object;
        ++pos_;
        skip_space();
        if (peek() == '}') return ++pos_, true;
        for (;;) {
            std::string key;
            skip_space();
            if (peek() != '"' || !string(key)) return false;
            skip_space();
            if (peek() != ':') return false;
            ++pos_;
            skip_space();
            Value member;
            if (!value(member, depth + 1)) return false;
            if (!v.members.emplace(std::move(key), std::move(member)).second) return false;
            skip_space();
            if (peek() == '}') return ++pos_, true;
            if (peek() != ',') return false;
            ++pos_;
        }
    }

    bool array(Value& v, int depth) {
        v.kind = Value::Kind::Array;
        ++pos_;
        skip_space();
        if (peek() == ']') return ++pos_, true;
        for (;;) {
            skip_space();
            Value item;
            if (!value(item, depth + 1)) return false;
            v.items.push_back(std::move(item));
            skip_space();
            if (peek() == ']') return ++pos_, true;
            if (peek() != ',') return false;
            ++pos_;
        }
    }

    bool digits() {
        size_t start = pos_;
        while (!at_end() && s_[pos_] >= '0' && s_[pos_] <= '9') ++pos_;
        return pos_ > start;
    }

    bool number(std::string& out) {
        size_t start = pos_;
        if (peek() == '-') ++pos_;
        if (peek() == '0') ++pos_;
        else if (!digits()) return false;
        if (peek() == '.') {
            ++pos_;
            if (!digits()) return false;
        }
        if (peek() == 'e' || peek() == 'E') {
            ++pos_;
            if (peek() == '+' || peek() == '-') ++pos_;
            if (!digits()) return false;
        }
        out.assign(s_.substr(start, pos_ - start));
        return true;
    }

    static int hex_value(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    bool hex4(uint32_t& out) {
        if (s_.size() - pos_ < 4) return false;
        out = 0;
        for (int i = 0; i < 4; ++i) {
            int h = hex_value(s_[pos_++]);
            if (h < 0) return false;
            out = out << 4 | uint32_t(h);
        }
        return true;
    }

    static void append_utf8(std::string& out, uint32_t cp) {
        if (cp < 0x80) out += char(cp);
        else if (cp < 0x800) out += char(0xC0 | cp >> 6), out += char(0x80 | (cp & 0x3F));
        else if (cp < 0x10000)
            out += char(0xE0 | cp >> 12), out += char(0x80 | (cp >> 6 & 0x3F)), out += char(0x80 | (cp & 0x3F));
        else
            out += char(0xF0 | cp >> 18), out += char(0x80 | (cp >> 12 & 0x3F)), out += char(0x80 | (cp >> 6 & 0x3F)),
                out += char(0x80 | (cp & 0x3F));
    }

    bool escape(std::string& out) {
        char c = peek();
        ++pos_;
        switch (c) {
        case '"': out += '"'; return true;
        case '\\': out += '\\'; return true;
        case '/': out += '/'; return true;
        case 'b': out += '\b'; return true;
        case 'f': out += '\f'; return true;
        case 'n': out += '\n'; return true;
        case 'r': out += '\r'; return true;
        case 't': out += '\t'; return true;
        case 'u': break;
        default: return false;
        }
        uint32_t cp;
        if (!hex4(cp)) return false;
        if (cp >= 0xDC00 && cp <= 0xDFFF) return false;  // a lone low surrogate
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            uint32_t low;
            if (!literal("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
        }
        append_utf8(out, cp);
        return true;
    }

    // One UTF-8 sequence, checked for overlong forms, surrogates and the upper bound.
    bool utf8(std::string& out) {
        unsigned char lead = (unsigned char)s_[pos_];
        int extra;
        uint32_t cp;
        if (lead >= 0xC2 && lead <= 0xDF) extra = 1, cp = lead & 0x1F;
        else if (lead >= 0xE0 && lead <= 0xEF) extra = 2, cp = lead & 0x0F;
        else if (lead >= 0xF0 && lead <= 0xF4) extra = 3, cp = lead & 0x07;
        else return false;
        if (s_.size() - pos_ <= size_t(extra)) return false;
        for (int i = 1; i <= extra; ++i) {
            unsigned char c = (unsigned char)s_[pos_ + i];
            if ((c & 0xC0) != 0x80) return false;
            cp = cp << 6 | (c & 0x3F);
        }
        if ((extra == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
            (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        out.append(s_.substr(pos_, size_t(extra) + 1));
        pos_ += size_t(extra) + 1;
        return true;
    }

    bool string(std::string& out) {
        ++pos_;  // the opening quote
        for (;;) {
            if (at_end()) return false;
            unsigned char c = (unsigned char)s_[pos_];
            if (c == '"') return ++pos_, true;
            if (c < 0x20) return false;
            if (c == '\\') {
                ++pos_;
                if (!escape(out)) return false;
            } else if (c < 0x80) {
                out += char(c);
                ++pos_;
            } else if (!utf8(out)) {
                return false;
            }
        }
    }

    std::string_view s_;
    size_t pos_ = 0;
};

}  // namespace

std::optional<Value> parse(std::string_view text) { return Reader(text).document(); }

std::string quote(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += char(c);
            }
        }
    }
    return out + "\"";
}

std::string message(std::string_view text) { return "{\"message\":" + quote(text) + "}"; }

}  // namespace json
