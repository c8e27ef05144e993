// The tool's value syntax: how `name:i=42` on a command line or an input line becomes a typed
// ParameterValue, how lines are split into words, and the size checks that keep every message
// within one TARN packet.
//
// Syntax of one value: `text` or `name=text` is a string, `name:i=42` an integer, `name:b=on` a
// boolean, `name:f=1.5` a float, `name:s=text` an explicit string; the name may be left out
// (`:i=42`). Everything here is plain functions on values: no state, no threads, no logging.
#ifndef TARN_TOOLS_VALUES_H
#define TARN_TOOLS_VALUES_H

#include <cstdint>
#include <string>
#include <vector>

#include <parameterlist.h>

namespace tarncli {

// One word of input. `separator` is the position in `text` of the first '=' that was typed outside
// quotes (std::string::npos when there is none), so that `"a=b"` stays one unnamed text.
// `typeColon` is the position of the last ':' typed outside quotes before that '=', which may
// start a type letter, so that `"a:b"=text` names a string "a:b".
struct Token {
    std::string text;
    std::size_t separator = std::string::npos;
    std::size_t typeColon = std::string::npos;
};

// A word taken from the command line, where the shell has already removed any quotes: the first
// '=' separates, and the last ':' before it may start a type.
Token argToken(const std::string& arg);

// Splits an input line into words. Blanks separate words; "..." groups with the escapes \" \\ \n
// \r \t and \xHH; '...' groups literally; a backslash outside quotes takes the next character as it
// is. False with a message for an unterminated quote, a bad escape or a NUL byte.
bool tokenize(const std::string& line, std::vector<Token>& words, std::string& error);

struct NamedValue {
    std::string name;  // empty when the word gave none
    ParameterValue value;
};

// Parses one word of the value syntax. False with a one-line message when the type letter is
// unknown or the text is not a value of that type.
bool parseValue(const Token& word, NamedValue& out, std::string& error);

// Parses function arguments. A word without a name is called "argN", N its 1-based position among
// all the arguments; a name given twice is refused (a list holds one value per name).
bool parseArguments(const std::vector<Token>& words, std::vector<NamedValue>& out, std::string& error);

void fillList(const std::vector<NamedValue>& values, ParameterList& list);

// The entries of a list in name order, each with its type: read back from the list's binary
// encoding, since the list's own getters give no float and no type by position.
std::vector<NamedValue> listEntries(const ParameterList& list);

// Size checks against the 1492-byte TARN packet, following the encoders' own room rules (a float
// asks for one byte more room than it writes). A message that would not fit is refused here rather
// than sent cut short.
bool checkNameFits(const std::string& name, std::string& error);
bool checkValueFits(const std::string& name, const ParameterValue& value, std::string& error);
bool checkCallFits(const std::string& function, const std::vector<NamedValue>& params, std::string& error);

// Where to connect, from the positional words that begin at `first`: "HOST PORT" (two words),
// "HOST:PORT" or "[ADDR]:PORT" (one word). A word with more than one ':' and no brackets is an IPv6
// address, whose port is the next word; "[ADDR]" alone is one too. `used` tells how many words
// were taken. False with a message for a malformed word or port, and with an empty message when
// the host or the port is missing (the caller says what the command needs).
bool parseTarget(const std::vector<std::string>& words, std::size_t first, std::string& host,
                 std::uint16_t& port, std::size_t& used, std::string& error);

// "address:port", with the address in brackets when it holds a ':' (an IPv6 address).
std::string hostPort(const std::string& address, unsigned int port);

// A port number: decimal, 1 to 65535 (0 too when `allowZero`).
bool parsePort(const std::string& text, bool allowZero, std::uint16_t& port, std::string& error);

// A whole decimal number within [min, max].
bool parseInteger(const std::string& text, long long min, long long max, long long& out);

// A duration in seconds, fractions allowed, above 0 and at most a day; returned in milliseconds.
bool parseSeconds(const std::string& text, std::int64_t& milliseconds);

// `realtime`, `reliable` or a comma-separated pair of them; false for anything else.
bool parseModeSet(const std::string& text, bool& realtime, bool& reliable);

}  // namespace tarncli

#endif  // TARN_TOOLS_VALUES_H
