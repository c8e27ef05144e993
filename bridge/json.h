// A small JSON reader and the writing helpers that the bridge's payloads need. The reader takes
// one complete document (objects, arrays, strings with every escape, numbers, true, false, null)
// and keeps numbers as their text, so that an integer is told apart from a float and range checks
// stay exact. Plain functions and values: no state, no threads, no logging.
#ifndef TARN_BRIDGE_JSON_H
#define TARN_BRIDGE_JSON_H

#include <string>
#include <utility>
#include <vector>

namespace tarnbridge {

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };
    Kind kind = Kind::Null;
    bool boolean = false;
    std::string text;              // a string's UTF-8 bytes, or a number exactly as written
    std::vector<JsonValue> items;  // an array's elements
    std::vector<std::pair<std::string, JsonValue>> members;  // an object's members, in order

    // The member named `key`, or null when there is none.
    const JsonValue* find(const std::string& key) const;
};

// Parses `input` as one JSON document (blanks around it allowed). False with a one-line message
// naming the byte offset for anything else, also for documents nested deeper than 32 levels.
bool parseJson(const std::string& input, JsonValue& out, std::string& error);

// A JSON string literal of `text`: quotes, backslashes and control characters escaped, valid UTF-8
// kept, each byte that is not part of valid UTF-8 written as U+FFFD.
std::string jsonQuote(const std::string& text);

// The float as the shortest decimal text that reads back as the same float ("21.5", "0.1").
// NaN and the infinities give "nan", "inf" and "-inf", which are no JSON numbers.
std::string floatText(float value);

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_JSON_H
