// Typed values and named lists of them: what triggers, state updates and function calls carry.
//
// ParameterValue is one text, 32-bit integer, boolean or 32-bit float (or no value), with a text
// form and a binary encoding that is part of the TARN wire format. ParameterList is a set of named
// values kept in name order (names compared as unsigned bytes), with its own text form and encoding.
//
// Both are plain values: copy them freely. Neither locks; a value or list shared between threads
// needs the caller's lock. Nothing here throws (except a null `const char*` given to the string
// constructor, refused as std::string refuses it) and nothing logs: failures are results (false, 0).
//
// Decoders read beyond `size`: the format lets a string's terminating NUL, and a boolean's value
// byte, lie one place past the bytes counted, and a list entry's value then starts with its tag one
// place further. A value decoder reads at most `size` + 1 bytes and a list decoder `size` + 2; with a
// negative `size` both read only the first byte. Callers keep those bytes readable.
#ifndef TARN_PARAMETERLIST_H
#define TARN_PARAMETERLIST_H

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

#include <tarn_export.h>

// Type tags; the letter is also the first byte of the binary encoding.
enum EParameterType {
    TYPE_NONE = 'N',    // 78: no value
    TYPE_STRING = 'S',  // 83
    TYPE_INT = 'I',     // 73
    TYPE_BOOL = 'B',    // 66
    TYPE_FLOAT = 'F'    // 70
};

// One typed value: text, 32-bit integer, boolean, 32-bit float, or none (the default). Read it with
// the getter of its type, or as text with getAsString().
class TARN_EXPORT ParameterValue {
public:
    ParameterValue();
    ParameterValue(const char* value);
    ParameterValue(const std::string& value);
    ParameterValue(int value);
    ParameterValue(bool value);
    ParameterValue(float value);

    // An EParameterType, or a foreign tag byte read from the wire, sign-extended (0xC8 is -56).
    int getType() const { return m_type; }

    // True, and `out` written, only when the type is exactly the getter's type.
    bool getIntValue(int& out) const;
    bool getBooleanValue(bool& out) const;
    bool getFloatValue(float& out) const;

    // "ON"/"OFF", decimal, 6 significant digits for floats, the text itself, or "INV".
    std::string getAsString() const;

    // Writes the encoding into `buffer` (room for `size` bytes); returns its length, or 0 when it
    // does not fit. The tag byte is written before the room for the payload is checked.
    int getBinaryValue(char* buffer, int size) const;

    // Reads one encoding from `buffer` (`size` bytes counted, one more readable); returns the
    // bytes consumed, or 0. Only `size` 0 returns before the tag is taken as the new type; with a
    // negative `size` the tag is all that is read (a foreign or 'N' tag then gives 1, the others 0).
    int createFromBinary(char* buffer, int size);

    // As above, where `available` bytes from `buffer` on are readable memory. Reads never go past
    // `available`; a byte that lies beyond it reads as missing: a tag out of reach gives 0 with the
    // value unchanged, a string whose NUL is not in reach is refused, and a boolean's missing byte
    // reads as false. With at least the bytes the two-argument form reads, the results are the
    // same. Used by decoders that know the extent of the buffer they own.
    int createFromBinary(const char* buffer, int size, int available);

private:
    std::int32_t m_type;
    bool m_boolValue;
    float m_floatValue;
    std::string m_stringValue;
    std::int32_t m_intValue;
};

// Named values in name order, one per name: the arguments of a function call. Walk it with
// getParam(index, ...) from 0 until it returns false.
class TARN_EXPORT ParameterList {
public:
    ParameterList() = default;

    // Set `name` to a value of the type; an existing entry of that name is replaced.
    void addString(const std::string& name, const std::string& value);
    void addBoolean(const std::string& name, bool value);
    void addFloat(const std::string& name, float value);
    void addNumeric(const std::string& name, int value);

    // By name: false when absent. The string form gives any entry's text; the typed forms answer
    // only for an entry of exactly their type. Outputs are untouched on false.
    bool getParam(const std::string& name, std::string& value);
    bool getParam(const std::string& name, int& value);
    bool getParam(const std::string& name, bool& value);

    // By position in name order, from 0; false past the end.
    bool getParam(unsigned int index, std::string& name, std::string& value) const;

    // "name = text " for every entry, in name order, on one line with no line end.
    void print(std::ostream& out) const;

    // Count byte (low 8 bits of the count), then name, NUL, value encoding per entry. Returns the
    // length, or 0 when a name does not fit. A value that does not fit after its name ends the
    // process through an assertion.
    int getBinary(char* buffer, int size) const;

    // Merges one encoding into this list (entries of the same name replaced); returns the bytes
    // consumed, or 0, with what was decoded before a failure left in the list. The count byte is
    // read as signed; only `size` 0 returns before it is read, so a zero count gives 1 even at a
    // negative `size`. `size` bytes counted, two more readable.
    int createFromBinary(char* buffer, int size);
    // As above with the readable extent given (see ParameterValue::createFromBinary).
    int createFromBinary(const char* buffer, int size, int available);

private:
    std::map<std::string, ParameterValue> m_params;
};

#endif  // TARN_PARAMETERLIST_H
