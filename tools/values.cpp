#include "values.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <set>

namespace tarncli {

namespace {

// One TARN message is at most 1492 bytes, 4 of them header.
const std::size_t kBodyRoom = 1488;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// Reads a "..." group starting just after the opening quote; `i` ends just after the closing one.
bool readDoubleQuoted(const std::string& line, std::size_t& i, std::string& out, std::string& error) {
    while (i < line.size()) {
        const char c = line[i];
        if (c == '"') {
            ++i;
            return true;
        }
        if (c != '\\') {
            out += c;
            ++i;
            continue;
        }
        if (i + 1 >= line.size()) {
            break;
        }
        const char e = line[i + 1];
        i += 2;
        switch (e) {
            case '"':
            case '\\':
            case '\'':
                out += e;
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'x': {
                const int high = i < line.size() ? hexDigit(line[i]) : -1;
                const int low = i + 1 < line.size() ? hexDigit(line[i + 1]) : -1;
                if (high < 0 || low < 0) {
                    error = "bad escape: \\x needs two hex digits";
                    return false;
                }
                if (high == 0 && low == 0) {
                    error = "a NUL byte cannot travel in a TARN text";
                    return false;
                }
                out += static_cast<char>(high * 16 + low);
                i += 2;
                break;
            }
            default:
                error = std::string("bad escape: \\") + e;
                return false;
        }
    }
    error = "unterminated \" quote";
    return false;
}

bool typeOf(const std::string& word, char& type) {
    const std::string t = lower(word);
    if (t == "i" || t == "int") {
        type = 'i';
    } else if (t == "b" || t == "bool") {
        type = 'b';
    } else if (t == "f" || t == "float") {
        type = 'f';
    } else if (t == "s" || t == "str" || t == "string") {
        type = 's';
    } else {
        return false;
    }
    return true;
}

bool parseBool(const std::string& text, bool& out) {
    const std::string t = lower(text);
    if (t == "on" || t == "true" || t == "yes" || t == "1") {
        out = true;
        return true;
    }
    if (t == "off" || t == "false" || t == "no" || t == "0") {
        out = false;
        return true;
    }
    return false;
}

bool parseFloat(const std::string& text, float& out, bool& outOfRange) {
    outOfRange = false;
    if (text.empty() || isBlank(text[0])) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const float value = std::strtof(text.c_str(), &end);
    if (end != text.c_str() + text.size()) {
        return false;
    }
    if (errno == ERANGE && std::isinf(value)) {
        outOfRange = true;
        return false;
    }
    out = value;
    return true;
}

// Room that ParameterValue::getBinaryValue asks for, and the bytes it then writes.
std::size_t roomNeeded(const ParameterValue& value) {
    switch (value.getType()) {
        case TYPE_INT:
            return 5;
        case TYPE_FLOAT:
            return 6;  // the float asks for one byte more than it writes
        case TYPE_BOOL:
            return 2;
        case TYPE_STRING:
            return value.getAsString().size() + 2;
        default:
            return 1;
    }
}

std::size_t bytesWritten(const ParameterValue& value) {
    return value.getType() == TYPE_FLOAT ? 5 : roomNeeded(value);
}

std::string tooLarge(const char* what, std::size_t needed) {
    return std::string(what) + " is too large for one TARN message: it needs " + std::to_string(needed) +
           " bytes of room, a message carries at most " + std::to_string(kBodyRoom);
}

}  // namespace

Token argToken(const std::string& arg) {
    Token token;
    token.text = arg;
    token.separator = arg.find('=');
    if (token.separator != std::string::npos) {
        token.typeColon = arg.rfind(':', token.separator);
    }
    return token;
}

bool tokenize(const std::string& line, std::vector<Token>& words, std::string& error) {
    words.clear();
    if (line.find('\0') != std::string::npos) {
        error = "a NUL byte cannot travel in a TARN text";
        return false;
    }
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isBlank(line[i])) {
            ++i;
        }
        if (i >= line.size()) {
            break;
        }
        Token token;
        while (i < line.size() && !isBlank(line[i])) {
            const char c = line[i];
            if (c == '"') {
                ++i;
                if (!readDoubleQuoted(line, i, token.text, error)) {
                    return false;
                }
            } else if (c == '\'') {
                const std::size_t close = line.find('\'', i + 1);
                if (close == std::string::npos) {
                    error = "unterminated ' quote";
                    return false;
                }
                token.text.append(line, i + 1, close - i - 1);
                i = close + 1;
            } else if (c == '\\') {
                if (i + 1 >= line.size()) {
                    error = "the line ends with a backslash";
                    return false;
                }
                token.text += line[i + 1];
                i += 2;
            } else {
                if (c == '=' && token.separator == std::string::npos) {
                    token.separator = token.text.size();
                } else if (c == ':' && token.separator == std::string::npos) {
                    token.typeColon = token.text.size();
                }
                token.text += c;
                ++i;
            }
        }
        words.push_back(token);
    }
    return true;
}

bool parseValue(const Token& word, NamedValue& out, std::string& error) {
    if (word.text.find('\0') != std::string::npos) {
        error = "malformed value: a NUL byte cannot travel in a TARN text";
        return false;
    }
    if (word.separator == std::string::npos || word.separator >= word.text.size()) {
        out.name.clear();
        out.value = ParameterValue(word.text);
        return true;
    }
    const std::string head = word.text.substr(0, word.separator);
    const std::string text = word.text.substr(word.separator + 1);
    const std::string quoted = "malformed value '" + word.text + "': ";
    char type = 's';
    std::string name = head;
    const std::size_t colon = word.typeColon;
    if (colon != std::string::npos && colon < word.separator) {
        const std::string typeWord = head.substr(colon + 1);
        if (!typeOf(typeWord, type)) {
            error = quoted + "unknown type '" + typeWord + "' (use i, b, f or s)";
            return false;
        }
        name = head.substr(0, colon);
    }
    switch (type) {
        case 'i': {
            long long number = 0;
            if (!parseInteger(text, std::numeric_limits<std::int32_t>::min(),
                              std::numeric_limits<std::int32_t>::max(), number)) {
                error = quoted + "'" + text + "' is not a 32-bit integer";
                return false;
            }
            out.value = ParameterValue(static_cast<int>(number));
            break;
        }
        case 'b': {
            bool flag = false;
            if (!parseBool(text, flag)) {
                error = quoted + "a boolean is on or off";
                return false;
            }
            out.value = ParameterValue(flag);
            break;
        }
        case 'f': {
            float number = 0.0f;
            bool outOfRange = false;
            if (!parseFloat(text, number, outOfRange)) {
                error = quoted + "'" + text +
                        (outOfRange ? "' is beyond the range of a 32-bit float" : "' is not a number");
                return false;
            }
            out.value = ParameterValue(number);
            break;
        }
        default:
            out.value = ParameterValue(text);
            break;
    }
    out.name = name;
    return true;
}

bool parseArguments(const std::vector<Token>& words, std::vector<NamedValue>& out, std::string& error) {
    out.clear();
    std::set<std::string> names;
    for (std::size_t i = 0; i < words.size(); ++i) {
        NamedValue entry;
        if (!parseValue(words[i], entry, error)) {
            return false;
        }
        if (entry.name.empty()) {
            entry.name = "arg" + std::to_string(i + 1);
        }
        if (!names.insert(entry.name).second) {
            error = "parameter '" + entry.name + "' is given twice";
            return false;
        }
        out.push_back(entry);
    }
    return true;
}

void fillList(const std::vector<NamedValue>& values, ParameterList& list) {
    for (const NamedValue& entry : values) {
        const ParameterValue& v = entry.value;
        int i = 0;
        bool b = false;
        float f = 0.0f;
        if (v.getIntValue(i)) {
            list.addNumeric(entry.name, i);
        } else if (v.getBooleanValue(b)) {
            list.addBoolean(entry.name, b);
        } else if (v.getFloatValue(f)) {
            list.addFloat(entry.name, f);
        } else {
            list.addString(entry.name, v.getAsString());
        }
    }
}

std::vector<NamedValue> listEntries(const ParameterList& list) {
    // A buffer that surely holds the encoding: each entry takes its name, a NUL and a value of at
    // most its text plus a few bytes. Too small a buffer would end the process in the encoder.
    std::size_t bound = 16;
    std::string name;
    std::string text;
    for (unsigned int i = 0; list.getParam(i, name, text); ++i) {
        bound += name.size() + text.size() + 16;
    }
    std::vector<char> buffer(bound);
    const int length = list.getBinary(buffer.data(), static_cast<int>(buffer.size()));
    std::vector<NamedValue> entries;
    // Walk by the encoded length rather than by the count byte, which wraps at 256 entries.
    int pos = 1;
    while (pos < length) {
        int end = pos;
        while (end < length && buffer[static_cast<std::size_t>(end)] != '\0') {
            ++end;
        }
        if (end >= length) {
            break;
        }
        NamedValue entry;
        entry.name.assign(&buffer[static_cast<std::size_t>(pos)], static_cast<std::size_t>(end - pos));
        pos = end + 1;
        const int used = entry.value.createFromBinary(&buffer[static_cast<std::size_t>(pos)], length - pos,
                                                      static_cast<int>(buffer.size()) - pos);
        if (used <= 0) {
            break;
        }
        pos += used;
        entries.push_back(entry);
    }
    return entries;
}

bool checkNameFits(const std::string& name, std::string& error) {
    if (name.size() + 1 > kBodyRoom) {
        error = tooLarge("the name", name.size() + 1);
        return false;
    }
    return true;
}

bool checkValueFits(const std::string& name, const ParameterValue& value, std::string& error) {
    const std::size_t needed = name.size() + 1 + roomNeeded(value);
    if (needed > kBodyRoom) {
        error = tooLarge("the message", needed);
        return false;
    }
    return true;
}

bool checkCallFits(const std::string& function, const std::vector<NamedValue>& params, std::string& error) {
    // Follows ParameterList::getBinary step by step: room is tested before each name, and a value
    // that then does not fit would end the process, so both are checked here.
    std::map<std::string, const ParameterValue*> sorted;
    for (const NamedValue& entry : params) {
        sorted[entry.name] = &entry.value;
    }
    const std::size_t head = function.size() + 1;
    std::size_t pos = 1;
    std::size_t needed = head + 1;
    for (const auto& entry : sorted) {
        pos += entry.first.size() + 1;
        needed = std::max(needed, head + pos + roomNeeded(*entry.second));
        pos += bytesWritten(*entry.second);
        needed = std::max(needed, head + pos);
    }
    if (needed > kBodyRoom) {
        error = tooLarge("the call", needed);
        return false;
    }
    return true;
}

bool parseTarget(const std::vector<std::string>& words, std::size_t first, std::string& host,
                 std::uint16_t& port, std::size_t& used, std::string& error) {
    if (first >= words.size()) {
        error.clear();
        return false;
    }
    const std::string& word = words[first];
    std::string portText;
    bool portInWord = false;
    if (!word.empty() && word[0] == '[') {
        const std::size_t close = word.find(']');
        const std::string rest = close == std::string::npos ? std::string() : word.substr(close + 1);
        if (close == std::string::npos || close == 1 || (!rest.empty() && rest[0] != ':')) {
            error = "malformed address '" + word + "' (write [ADDR]:PORT or ADDR PORT)";
            return false;
        }
        host = word.substr(1, close - 1);
        portInWord = !rest.empty();
        portText = portInWord ? rest.substr(1) : std::string();
    } else {
        const std::size_t colon = word.find(':');
        portInWord = colon != std::string::npos && word.find(':', colon + 1) == std::string::npos;
        host = portInWord ? word.substr(0, colon) : word;
        portText = portInWord ? word.substr(colon + 1) : std::string();
        if (host.empty()) {
            error = "malformed address '" + word + "' (write HOST:PORT or HOST PORT)";
            return false;
        }
    }
    if (!portInWord) {
        if (first + 1 >= words.size()) {
            error.clear();
            return false;
        }
        portText = words[first + 1];
    }
    used = portInWord ? 1 : 2;
    return parsePort(portText, false, port, error);
}

std::string hostPort(const std::string& address, unsigned int port) {
    const bool v6 = address.find(':') != std::string::npos;
    return (v6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

bool parsePort(const std::string& text, bool allowZero, std::uint16_t& port, std::string& error) {
    long long value = 0;
    if (!parseInteger(text, std::numeric_limits<long long>::min(), std::numeric_limits<long long>::max(),
                      value) ||
        text[0] == '+') {
        error = "not a port number: '" + text + "'";
        return false;
    }
    if (value < (allowZero ? 0 : 1) || value > 65535) {
        error = "port out of range: " + text + (allowZero ? " (0 to 65535)" : " (1 to 65535)");
        return false;
    }
    port = static_cast<std::uint16_t>(value);
    return true;
}

bool parseInteger(const std::string& text, long long min, long long max, long long& out) {
    if (text.empty()) {
        return false;
    }
    const std::size_t first = (text[0] == '-' || text[0] == '+') ? 1 : 0;
    if (first >= text.size()) {
        return false;
    }
    for (std::size_t i = first; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    errno = 0;
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

bool parseSeconds(const std::string& text, std::int64_t& milliseconds) {
    if (text.empty() || isBlank(text[0])) {
        return false;
    }
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !(seconds > 0.0) || seconds > 86400.0) {
        return false;
    }
    milliseconds = std::max<std::int64_t>(1, std::llround(seconds * 1000.0));
    return true;
}

bool parseModeSet(const std::string& text, bool& realtime, bool& reliable) {
    realtime = false;
    reliable = false;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string word = lower(text.substr(start, comma - start));
        if (word == "realtime") {
            realtime = true;
        } else if (word == "reliable") {
            reliable = true;
        } else {
            return false;
        }
        start = comma + 1;
    }
    return true;
}

}  // namespace tarncli
