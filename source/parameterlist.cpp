#include <parameterlist.h>

#include <sal/assert.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "byteorder.h"

namespace {

const char kSourceFile[] = "source/parameterlist.cpp";

const std::uint8_t* bytes(const char* p) {
    return reinterpret_cast<const std::uint8_t*>(p);
}
std::uint8_t* bytes(char* p) {
    return reinterpret_cast<std::uint8_t*>(p);
}

// Length of the NUL-terminated text at `p`, looking at no more than `limit` bytes. Returns -1 when
// no NUL lies within reach: callers refuse such a text as too long, which is what the format does
// with a NUL beyond its limit whenever the extra byte it allows is readable.
int boundedLength(const char* p, int limit) {
    if (limit <= 0) {
        return -1;
    }
    const void* nul = std::memchr(p, 0, static_cast<std::size_t>(limit));
    return nul == nullptr ? -1 : static_cast<int>(static_cast<const char*>(nul) - p);
}

// What the two-argument decoders may read. Whenever `size` is not 0 the first byte is the caller's;
// beyond that a value may look at one byte past `size` (a string's NUL, a boolean's byte), and a list
// at two: a name whose NUL is that first extra byte is followed by its value's tag. A negative `size`
// lets nothing past the first byte count.
int readableForValue(int size) {
    if (size <= 0) {
        return 1;
    }
    return size < INT_MAX ? size + 1 : INT_MAX;
}

int readableForList(int size) {
    if (size <= 0) {
        return 1;
    }
    return size < INT_MAX - 1 ? size + 2 : INT_MAX;
}

}  // namespace

// ---- ParameterValue -----------------------------------------------------------------------------

ParameterValue::ParameterValue()
    : m_type(TYPE_NONE), m_boolValue(false), m_floatValue(0.0f), m_stringValue(), m_intValue(0) {}

// A null pointer is refused here, with the logic_error the standard string gives for it, rather than
// left to the string constructor, whose check is not promised by every standard library.
ParameterValue::ParameterValue(const char* value)
    : m_type(TYPE_STRING), m_boolValue(false), m_floatValue(0.0f), m_stringValue(), m_intValue(0) {
    if (value == nullptr) {
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    m_stringValue = value;
}

ParameterValue::ParameterValue(const std::string& value)
    : m_type(TYPE_STRING), m_boolValue(false), m_floatValue(0.0f), m_stringValue(value), m_intValue(0) {}

ParameterValue::ParameterValue(int value)
    : m_type(TYPE_INT), m_boolValue(false), m_floatValue(0.0f), m_stringValue(), m_intValue(value) {}

ParameterValue::ParameterValue(bool value)
    : m_type(TYPE_BOOL), m_boolValue(value), m_floatValue(0.0f), m_stringValue(), m_intValue(0) {}

ParameterValue::ParameterValue(float value)
    : m_type(TYPE_FLOAT), m_boolValue(false), m_floatValue(value), m_stringValue(), m_intValue(0) {}

bool ParameterValue::getIntValue(int& out) const {
    if (m_type != TYPE_INT) {
        return false;
    }
    out = m_intValue;
    return true;
}

bool ParameterValue::getBooleanValue(bool& out) const {
    if (m_type != TYPE_BOOL) {
        return false;
    }
    out = m_boolValue;
    return true;
}

bool ParameterValue::getFloatValue(float& out) const {
    if (m_type != TYPE_FLOAT) {
        return false;
    }
    out = m_floatValue;
    return true;
}

std::string ParameterValue::getAsString() const {
    switch (m_type) {
        case TYPE_STRING:
            return m_stringValue;
        case TYPE_BOOL:
            return m_boolValue ? "ON" : "OFF";
        case TYPE_INT: {
            std::ostringstream out;
            out << m_intValue;
            return out.str();
        }
        case TYPE_FLOAT: {
            // Written as the double it widens to, by a default stream: six significant digits.
            std::ostringstream out;
            out << static_cast<double>(m_floatValue);
            return out.str();
        }
        default:
            return "INV";
    }
}

int ParameterValue::getBinaryValue(char* buffer, int size) const {
    if (size <= 0) {
        return 0;
    }
    // The tag goes out before the payload's room is known; a refusal leaves it written.
    buffer[0] = static_cast<char>(getType() & 0xFF);
    switch (getType()) {
        case TYPE_INT: {
            if (size <= 4) {
                return 0;
            }
            int value = 0;
            if (!getIntValue(value)) {
                SAL_ASSERT_AT(false, kSourceFile, __LINE__,
                              "int ParameterValue::getBinaryValue(char*, int) const");
            }
            tarn::storeLe32(bytes(buffer + 1), static_cast<std::uint32_t>(value));
            return 5;
        }
        case TYPE_FLOAT: {
            // The float asks for 6 bytes of room although it writes 5, one more than the integer.
            if (size <= 5) {
                return 0;
            }
            float value = 0.0f;
            if (!getFloatValue(value)) {
                SAL_ASSERT_AT(false, kSourceFile, __LINE__,
                              "int ParameterValue::getBinaryValue(char*, int) const");
            }
            std::uint32_t raw = 0;
            std::memcpy(&raw, &value, sizeof raw);
            tarn::storeLe32(bytes(buffer + 1), raw);
            return 5;
        }
        case TYPE_BOOL: {
            if (size == 1) {
                return 0;
            }
            bool value = false;
            if (!getBooleanValue(value)) {
                SAL_ASSERT_AT(false, kSourceFile, __LINE__,
                              "int ParameterValue::getBinaryValue(char*, int) const");
            }
            buffer[1] = value ? 1 : 0;
            return 2;
        }
        case TYPE_STRING: {
            const std::string text = getAsString();
            if (static_cast<long long>(size) < static_cast<long long>(text.size()) + 2) {
                return 0;
            }
            if (!text.empty()) {
                std::memcpy(buffer + 1, text.data(), text.size());
            }
            buffer[1 + text.size()] = '\0';
            return static_cast<int>(text.size()) + 2;
        }
        default:
            return 1;
    }
}

int ParameterValue::createFromBinary(char* buffer, int size) {
    return createFromBinary(buffer, size, readableForValue(size));
}

int ParameterValue::createFromBinary(const char* buffer, int size, int available) {
    if (size == 0) {
        return 0;
    }
    // Only a caller that overstates `size` leaves the tag out of reach.
    if (available < 1) {
        return 0;
    }
    // The tag becomes the type before anything else is checked, foreign tags included.
    m_type = static_cast<std::int8_t>(buffer[0]);
    switch (m_type) {
        case TYPE_INT:
        case TYPE_FLOAT: {
            // Both read with 5 bytes counted (writing a float asked for 6). Four payload bytes out
            // of reach, possible only when `size` overstates the memory, are refused like a short
            // size.
            if (size <= 4 || available < 5) {
                return 0;
            }
            const std::uint32_t raw = tarn::loadLe32(bytes(buffer + 1));
            if (m_type == TYPE_INT) {
                m_intValue = static_cast<std::int32_t>(raw);
            } else {
                std::memcpy(&m_floatValue, &raw, sizeof raw);
            }
            return 5;
        }
        case TYPE_BOOL:
            // The value byte is taken even when it lies one past `size`; out of reach it reads as 0.
            if (size < 0) {
                return 0;
            }
            m_boolValue = available >= 2 && buffer[1] != 0;
            return 2;
        case TYPE_STRING: {
            // The NUL may lie one byte beyond `size`: `size` n + 1 is accepted and gives n + 2. A
            // text without a NUL at or before that byte is refused, so the scan stops there.
            if (size < 0) {
                return 0;
            }
            const int n = boundedLength(buffer + 1, std::min(available - 1, size));
            if (n < 0 || size <= n) {
                return 0;
            }
            m_stringValue.assign(buffer + 1, static_cast<std::size_t>(n));
            return n + 2;
        }
        default:
            return 1;
    }
}

// ---- ParameterList ------------------------------------------------------------------------------

void ParameterList::addString(const std::string& name, const std::string& value) {
    m_params[name] = ParameterValue(value);
}

void ParameterList::addBoolean(const std::string& name, bool value) {
    m_params[name] = ParameterValue(value);
}

void ParameterList::addFloat(const std::string& name, float value) {
    m_params[name] = ParameterValue(value);
}

void ParameterList::addNumeric(const std::string& name, int value) {
    m_params[name] = ParameterValue(value);
}

bool ParameterList::getParam(const std::string& name, std::string& value) {
    const auto it = m_params.find(name);
    if (it == m_params.end()) {
        return false;
    }
    value = it->second.getAsString();
    return true;
}

bool ParameterList::getParam(const std::string& name, int& value) {
    const auto it = m_params.find(name);
    return it != m_params.end() && it->second.getIntValue(value);
}

bool ParameterList::getParam(const std::string& name, bool& value) {
    const auto it = m_params.find(name);
    return it != m_params.end() && it->second.getBooleanValue(value);
}

bool ParameterList::getParam(unsigned int index, std::string& name, std::string& value) const {
    if (index >= m_params.size()) {
        return false;
    }
    const auto it = std::next(m_params.begin(), static_cast<std::ptrdiff_t>(index));
    name = it->first;
    value = it->second.getAsString();
    return true;
}

void ParameterList::print(std::ostream& out) const {
    for (const auto& entry : m_params) {
        out << entry.first << " = " << entry.second.getAsString() << " ";
    }
}

int ParameterList::getBinary(char* buffer, int size) const {
    if (size <= 0) {
        return 0;
    }
    // Only the low 8 bits of the count travel: 256 entries are announced as none.
    buffer[0] = static_cast<char>(m_params.size() & 0xFF);
    if (m_params.empty()) {
        return 1;
    }
    int position = 1;
    for (const auto& entry : m_params) {
        const std::string& name = entry.first;
        // Room is tested before each name only; a value that then does not fit is fatal.
        if (static_cast<long long>(position) + static_cast<long long>(name.size()) + 1 > size) {
            return 0;
        }
        // The name goes out as a C string (up to its first NUL) but takes its full length.
        const std::size_t copied = std::strlen(name.c_str());
        std::memcpy(buffer + position, name.c_str(), copied + 1);
        position += static_cast<int>(name.size()) + 1;
        const int written = entry.second.getBinaryValue(buffer + position, size - position);
        if (written == 0) {
            SAL_ASSERT_AT(false, kSourceFile, __LINE__, "int ParameterList::getBinary(char*, int) const");
        }
        position += written;
    }
    return position;
}

int ParameterList::createFromBinary(char* buffer, int size) {
    return createFromBinary(buffer, size, readableForList(size));
}

int ParameterList::createFromBinary(const char* buffer, int size, int available) {
    if (size == 0) {
        return 0;
    }
    if (available < 1) {
        return 0;
    }
    // Read as signed: a count of 0x80 or more never counts down to 0, and decoding runs on until a
    // name fails. Entries are merged into what the list already holds.
    int count = static_cast<std::int8_t>(buffer[0]);
    if (count == 0) {
        return 1;
    }
    int position = 1;
    for (;;) {
        // No name fits once the position has passed `size` (its length could only exceed the room
        // left), so nothing is read there. Otherwise the name's NUL may lie one byte beyond `size`,
        // as in the string value's reader.
        if (static_cast<long long>(size) - position < 0 || position >= available) {
            return 0;
        }
        // The scan goes no further than that byte: a name without a NUL by then is refused.
        const long long end = std::min(static_cast<long long>(available), static_cast<long long>(size) + 1);
        const int n = boundedLength(buffer + position, static_cast<int>(end - position));
        if (n < 0 || size - position < n) {
            return 0;
        }
        std::string name(buffer + position, static_cast<std::size_t>(n));
        position += n + 1;
        // A value that fails to decode is still stored, as whatever the decoder left in it. Behind a
        // name whose NUL was the byte beyond `size` the value's size is -1: its tag is still taken.
        ParameterValue value;
        position += value.createFromBinary(buffer + position, size - position, available - position);
        m_params[name] = value;
        if (--count == 0) {
            break;
        }
    }
    return position;
}
