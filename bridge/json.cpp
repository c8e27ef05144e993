#include "json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarnbridge {

const JsonValue* JsonValue::find(const std::string& key) const {
    for (const auto& member : members) {
        if (member.first == key) {
            return &member.second;
        }
    }
    return nullptr;
}

namespace {

const int kMaxDepth = 32;

void appendUtf8(std::string& out, unsigned long code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The length of the valid UTF-8 sequence at `pos`, or 0 when the bytes there are not one.
std::size_t utf8Length(const std::string& text, std::size_t pos) {
    const unsigned char lead = static_cast<unsigned char>(text[pos]);
    std::size_t length = 0;
    unsigned long code = 0;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        code = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        code = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        code = lead & 0x07;
    } else {
        return 0;
    }
    if (pos + length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[pos + i]);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3F);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return (overlong || surrogate || code > 0x10FFFF) ? 0 : length;
}

class Reader {
public:
    explicit Reader(const std::string& input) : m_in(input) {}

    bool document(JsonValue& out, std::string& error) {
        blanks();
        if (!value(out, 0)) {
            error = m_error;
            return false;
        }
        blanks();
        if (m_pos != m_in.size()) {
            error = "unexpected text after the JSON value at byte " + std::to_string(m_pos);
            return false;
        }
        return true;
    }

private:
    bool fail(const std::string& what) {
        m_error = what + " at byte " + std::to_string(m_pos);
        return false;
    }
    void blanks() {
        while (m_pos < m_in.size() &&
               (m_in[m_pos] == ' ' || m_in[m_pos] == '\t' || m_in[m_pos] == '\n' || m_in[m_pos] == '\r')) {
            ++m_pos;
        }
    }
    bool literal(const char* word) {
        const std::string text(word);
        if (m_in.compare(m_pos, text.size(), text) != 0) {
            return fail("not a JSON value");
        }
        m_pos += text.size();
        return true;
    }

    bool value(JsonValue& out, int depth) {
        if (depth > kMaxDepth) {
            return fail("JSON nested too deeply");
        }
        if (m_pos >= m_in.size()) {
            return fail("JSON ends early");
        }
        const char c = m_in[m_pos];
        if (c == '{') {
            return object(out, depth);
        }
        if (c == '[') {
            return array(out, depth);
        }
        if (c == '"') {
            out.kind = JsonValue::Kind::String;
            return string(out.text);
        }
        if (c == 't' || c == 'f') {
            out.kind = JsonValue::Kind::Bool;
            out.boolean = c == 't';
            return literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') {
            out.kind = JsonValue::Kind::Null;
            return literal("null");
        }
        return number(out);
    }

    bool digits() {
        const std::size_t start = m_pos;
        while (m_pos < m_in.size() && m_in[m_pos] >= '0' && m_in[m_pos] <= '9') {
            ++m_pos;
        }
        return m_pos > start;
    }

    bool number(JsonValue& out) {
        const std::size_t start = m_pos;
        if (m_pos < m_in.size() && m_in[m_pos] == '-') {
            ++m_pos;
        }
        if (m_pos < m_in.size() && m_in[m_pos] == '0') {
            ++m_pos;
        } else if (!digits()) {
            m_pos = start;
            return fail("not a JSON value");
        }
        if (m_pos < m_in.size() && m_in[m_pos] == '.') {
            ++m_pos;
            if (!digits()) {
                return fail("digits expected");
            }
        }
        if (m_pos < m_in.size() && (m_in[m_pos] == 'e' || m_in[m_pos] == 'E')) {
            ++m_pos;
            if (m_pos < m_in.size() && (m_in[m_pos] == '+' || m_in[m_pos] == '-')) {
                ++m_pos;
            }
            if (!digits()) {
                return fail("digits expected");
            }
        }
        out.kind = JsonValue::Kind::Number;
        out.text = m_in.substr(start, m_pos - start);
        return true;
    }

    bool hex4(unsigned long& code) {
        if (m_pos + 4 > m_in.size()) {
            return fail("bad \\u escape");
        }
        code = 0;
        for (int i = 0; i < 4; ++i) {
            const char h = m_in[m_pos++];
            code <<= 4;
            if (h >= '0' && h <= '9') {
                code |= static_cast<unsigned long>(h - '0');
            } else if (h >= 'a' && h <= 'f') {
                code |= static_cast<unsigned long>(h - 'a' + 10);
            } else if (h >= 'A' && h <= 'F') {
                code |= static_cast<unsigned long>(h - 'A' + 10);
            } else {
                --m_pos;
                return fail("bad \\u escape");
            }
        }
        return true;
    }

    bool unicodeEscape(std::string& out) {
        unsigned long code = 0;
        if (!hex4(code)) {
            return false;
        }
        if (code >= 0xD800 && code <= 0xDBFF) {
            unsigned long low = 0;
            if (m_in.compare(m_pos, 2, "\\u") != 0) {
                return fail("lone surrogate in \\u escape");
            }
            m_pos += 2;
            if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                return fail("lone surrogate in \\u escape");
            }
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        } else if (code >= 0xDC00 && code <= 0xDFFF) {
            return fail("lone surrogate in \\u escape");
        }
        appendUtf8(out, code);
        return true;
    }

    bool escape(std::string& out) {
        if (m_pos >= m_in.size()) {
            return fail("JSON ends early");
        }
        const char c = m_in[m_pos++];
        switch (c) {
            case '"':
                out += '"';
                return true;
            case '\\':
                out += '\\';
                return true;
            case '/':
                out += '/';
                return true;
            case 'b':
                out += '\b';
                return true;
            case 'f':
                out += '\f';
                return true;
            case 'n':
                out += '\n';
                return true;
            case 'r':
                out += '\r';
                return true;
            case 't':
                out += '\t';
                return true;
            case 'u':
                return unicodeEscape(out);
            default:
                --m_pos;
                return fail("bad escape");
        }
    }

    bool string(std::string& out) {
        ++m_pos;  // the opening quote
        out.clear();
        while (m_pos < m_in.size()) {
            const unsigned char c = static_cast<unsigned char>(m_in[m_pos]);
            if (c == '"') {
                ++m_pos;
                return true;
            }
            if (c < 0x20) {
                return fail("control character in a string");
            }
            if (c == '\\') {
                ++m_pos;
                if (!escape(out)) {
                    return false;
                }
                continue;
            }
            const std::size_t length = utf8Length(m_in, m_pos);
            if (length == 0) {
                return fail("invalid UTF-8 in a string");
            }
            out.append(m_in, m_pos, length);
            m_pos += length;
        }
        return fail("unterminated string");
    }

    bool array(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Array;
        ++m_pos;
        blanks();
        if (m_pos < m_in.size() && m_in[m_pos] == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            blanks();
            JsonValue item;
            if (!value(item, depth + 1)) {
                return false;
            }
            out.items.push_back(std::move(item));
            blanks();
            if (m_pos < m_in.size() && m_in[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_in.size() && m_in[m_pos] == ']') {
                ++m_pos;
                return true;
            }
            return fail("',' or ']' expected");
        }
    }

    bool object(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Object;
        ++m_pos;
        blanks();
        if (m_pos < m_in.size() && m_in[m_pos] == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            blanks();
            if (m_pos >= m_in.size() || m_in[m_pos] != '"') {
                return fail("a member name expected");
            }
            std::string key;
            if (!string(key)) {
                return false;
            }
            blanks();
            if (m_pos >= m_in.size() || m_in[m_pos] != ':') {
                return fail("':' expected");
            }
            ++m_pos;
            blanks();
            JsonValue member;
            if (!value(member, depth + 1)) {
                return false;
            }
            out.members.emplace_back(std::move(key), std::move(member));
            blanks();
            if (m_pos < m_in.size() && m_in[m_pos] == ',') {
                ++m_pos;
                continue;
            }
            if (m_pos < m_in.size() && m_in[m_pos] == '}') {
                ++m_pos;
                return true;
            }
            return fail("',' or '}' expected");
        }
    }

    const std::string& m_in;
    std::size_t m_pos = 0;
    std::string m_error;
};

}  // namespace

bool parseJson(const std::string& input, JsonValue& out, std::string& error) {
    out = JsonValue();
    return Reader(input).document(out, error);
}

std::string jsonQuote(const std::string& text) {
    std::string out = "\"";
    std::size_t pos = 0;
    while (pos < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[pos]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            const std::size_t length = utf8Length(text, pos);
            if (length == 0) {
                out += "\xEF\xBF\xBD";
                ++pos;
                continue;
            }
            out.append(text, pos, length);
            pos += length;
            continue;
        }
        ++pos;
    }
    return out + "\"";
}

std::string floatText(float value) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-inf" : "inf";
    }
    char text[64];
    for (int precision = 1; precision <= 9; ++precision) {
        std::snprintf(text, sizeof(text), "%.*g", precision, static_cast<double>(value));
        if (std::strtof(text, nullptr) == value) {
            break;
        }
    }
    // A whole number written with an exponent only because it has few significant digits ("2e+01")
    // is written out in full up to 17 digits ("20", "1500").
    const char* exponent = std::strchr(text, 'e');
    if (exponent != nullptr && std::atoi(exponent + 1) > 0 && std::atoi(exponent + 1) < 17) {
        std::snprintf(text, sizeof(text), "%.0f", static_cast<double>(value));
    }
    return text;
}

}  // namespace tarnbridge
