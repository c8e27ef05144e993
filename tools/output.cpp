#include "output.h"

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <mutex>

namespace tarncli {

namespace {

const char kHex[] = "0123456789abcdef";

std::mutex g_outputMutex;
std::atomic<Format> g_errorFormat{Format::Human};

// Length of the valid UTF-8 sequence at `i`, or 0 when the byte there does not start one.
std::size_t utf8Length(const std::string& text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned int low = 0x80;
    unsigned int high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            low = 0xA0;  // no overlong forms
        } else if (lead == 0xED) {
            high = 0x9F;  // no surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;  // nothing above U+10FFFF
        }
    } else {
        return 0;
    }
    if (i + length > text.size()) {
        return 0;
    }
    if (byte(i + 1) < low || byte(i + 1) > high) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string floatText(float value) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value < 0 ? "-inf" : "inf";
    }
    // The shortest form std::to_chars finds reads back exactly and takes the exponent only where
    // that is shorter than the plain digits.
    char text[48];
    const std::to_chars_result result = std::to_chars(text, text + sizeof(text), value);
    return std::string(text, result.ptr);
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (byte < 0x20 || byte == 0x7F) {
                    out += "\\x";
                    out += kHex[byte >> 4];
                    out += kHex[byte & 0xF];
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

std::string word(const std::string& text) {
    bool plain = !text.empty() && text[0] != '#';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F || c == '"' || c == '\'' || c == '\\' || c == '=' || c == ':') {
            plain = false;
        }
    }
    return plain ? text : quoted(text);
}

std::string typeName(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_STRING:
            return "string";
        case TYPE_INT:
            return "int";
        case TYPE_BOOL:
            return "bool";
        case TYPE_FLOAT:
            return "float";
        case TYPE_NONE:
            return "none";
        default:
            return "unknown";
    }
}

std::string valueSuffix(const ParameterValue& value) {
    int i = 0;
    bool b = false;
    float f = 0.0f;
    if (value.getType() == TYPE_STRING) {
        return "=" + quoted(value.getAsString());
    }
    if (value.getIntValue(i)) {
        return ":i=" + std::to_string(i);
    }
    if (value.getBooleanValue(b)) {
        return b ? ":b=on" : ":b=off";
    }
    if (value.getFloatValue(f)) {
        return ":f=" + floatText(f);
    }
    if (value.getType() == TYPE_NONE) {
        return ":none";
    }
    const unsigned int tag = static_cast<unsigned int>(value.getType()) & 0xFFu;
    return std::string(":tag=0x") + kHex[tag >> 4] + kHex[tag & 0xF];
}

std::string namedValue(const std::string& name, const ParameterValue& value) {
    return word(name) + valueSuffix(value);
}

std::string namedValues(const std::vector<NamedValue>& values) {
    std::string out;
    for (const NamedValue& entry : values) {
        if (!out.empty()) {
            out += ' ';
        }
        out += namedValue(entry.name, entry.value);
    }
    return out;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80) {
            const std::size_t length = utf8Length(text, i);
            if (length == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out.append(text, i, length);
                i += length;
            }
            continue;
        }
        switch (byte) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (byte < 0x20 || byte == 0x7F) {
                    out += "\\u00";
                    out += kHex[byte >> 4];
                    out += kHex[byte & 0xF];
                } else {
                    out += static_cast<char>(byte);
                }
        }
        ++i;
    }
    out += '"';
    return out;
}

Json::Json(const char* event) : m_text("{\"event\":") {
    m_text += jsonString(event);
}

void Json::key(const char* key) {
    m_text += ',';
    m_text += jsonString(key);
    m_text += ':';
}

Json& Json::text(const char* key, const std::string& value) {
    this->key(key);
    m_text += jsonString(value);
    return *this;
}

Json& Json::number(const char* key, long long value) {
    this->key(key);
    m_text += std::to_string(value);
    return *this;
}

Json& Json::flag(const char* key, bool value) {
    this->key(key);
    m_text += value ? "true" : "false";
    return *this;
}

Json& Json::raw(const char* key, const std::string& json) {
    this->key(key);
    m_text += json;
    return *this;
}

Json& Json::value(const ParameterValue& value) {
    text("type", typeName(value));
    raw("value", jsonScalar(value));
    if (typeName(value) == "unknown") {
        number("tag", static_cast<long long>(static_cast<unsigned int>(value.getType()) & 0xFFu));
    }
    return *this;
}

std::string jsonScalar(const ParameterValue& value) {
    int i = 0;
    bool b = false;
    float f = 0.0f;
    if (value.getType() == TYPE_STRING) {
        return jsonString(value.getAsString());
    }
    if (value.getIntValue(i)) {
        return std::to_string(i);
    }
    if (value.getBooleanValue(b)) {
        return b ? "true" : "false";
    }
    if (value.getFloatValue(f)) {
        return std::isfinite(f) ? floatText(f) : jsonString(floatText(f));
    }
    return "null";
}

std::string jsonParams(const std::vector<NamedValue>& values) {
    std::string out = "[";
    for (const NamedValue& entry : values) {
        if (out.size() > 1) {
            out += ',';
        }
        std::string item = Json("x").text("name", entry.name).value(entry.value).str();
        // Reuse the object builder, dropping its leading "event" field.
        out += "{" + item.substr(item.find(',') + 1);
    }
    out += ']';
    return out;
}

Printer::Printer(Format format, std::FILE* out, const std::string& prefix)
    : m_format(format), m_out(out), m_prefix(prefix) {}

void Printer::line(const std::string& text) {
    writeLine(m_out, m_prefix + text);
}

void writeLine(std::FILE* out, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_outputMutex);
    std::fwrite(text.data(), 1, text.size(), out);
    std::fputc('\n', out);
    std::fflush(out);
}

void setErrorFormat(Format format) {
    g_errorFormat.store(format);
}

void printError(const std::string& message) {
    if (g_errorFormat.load() == Format::Json) {
        writeLine(stdout, Json("error").text("message", message).str());
    } else {
        writeLine(stderr, "tarn: " + message);
    }
}

void printNotice(const std::string& human, const Json& json) {
    if (g_errorFormat.load() == Format::Json) {
        writeLine(stdout, json.str());
    } else {
        writeLine(stderr, human);
    }
}

}  // namespace tarncli
