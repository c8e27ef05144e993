// How the tool prints: one line per event, either readable text in the same value syntax that the
// input takes (`update temp:f=21.5`, `call set level:i=3 mode="eco"`) or one JSON object per line
// with fixed field names (docs/cli.md lists them).
//
// Every line goes out whole under one lock shared by all printers and by printError, with a flush,
// so lines never interleave and a pipe reader sees each line as soon as it is printed. Standard
// error gets the tool's one-line error messages, or, once setErrorFormat(Json) was called, they go
// to standard output as JSON objects among the others.
#ifndef TARN_TOOLS_OUTPUT_H
#define TARN_TOOLS_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <parameterlist.h>

#include "values.h"

namespace tarncli {

enum class Format { Human, Json };

// The float as the shortest decimal text that reads back as the same float ("21.5", "0.1", "10",
// "1500", "1e+20", "nan", "inf", "-inf"): plain digits unless the exponent form is shorter.
std::string floatText(float value);

// A text in double quotes with \" \\ \n \r \t and \xHH escapes: the form the input reads back.
std::string quoted(const std::string& text);

// A name as the input reads it back: as it stands when it holds no blank, quote, backslash, '=' or
// ':' (and does not start with '#'), otherwise quoted.
std::string word(const std::string& text);

// "string", "int", "bool", "float", "none", or "unknown" for a foreign tag.
std::string typeName(const ParameterValue& value);

// The value part of the readable syntax: `="text"`, `:i=42`, `:b=on`, `:f=1.5`, `:none`, or
// `:tag=0x5a` for a foreign type tag.
std::string valueSuffix(const ParameterValue& value);
// `name` followed by its value part.
std::string namedValue(const std::string& name, const ParameterValue& value);
// Named values joined by single spaces.
std::string namedValues(const std::vector<NamedValue>& values);

// A JSON string literal: UTF-8 kept, quotes, backslashes and control characters escaped, each
// byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string jsonString(const std::string& text);

// Builds one JSON object, fields in the order added.
class Json {
public:
    explicit Json(const char* event);
    Json& text(const char* key, const std::string& value);
    Json& number(const char* key, long long value);
    Json& flag(const char* key, bool value);
    Json& raw(const char* key, const std::string& json);
    // "type" and "value" (and "tag" for a foreign type) of a value.
    Json& value(const ParameterValue& value);
    std::string str() const { return m_text + "}"; }

private:
    void key(const char* key);
    std::string m_text;
};

// The JSON value of a ParameterValue: a string, number, boolean, or null (none and foreign tags).
// Floats that JSON has no number for are the strings "nan", "inf" and "-inf", as the input writes
// them, so that each stays told apart from the others.
std::string jsonScalar(const ParameterValue& value);
// [{"name":...,"type":...,"value":...}, ...]
std::string jsonParams(const std::vector<NamedValue>& values);

class Printer {
public:
    // `prefix` starts every line (the demo's "server: " and "client: ").
    explicit Printer(Format format, std::FILE* out = stdout, const std::string& prefix = std::string());
    Printer(const Printer&) = delete;
    Printer& operator=(const Printer&) = delete;

    Format format() const { return m_format; }
    bool json() const { return m_format == Format::Json; }

    // Writes the line and a line end, then flushes. Any thread.
    void line(const std::string& text);
    // The human or the JSON form, whichever this printer writes.
    void pick(const std::string& human, const Json& json) {
        line(m_format == Format::Json ? json.str() : human);
    }

private:
    Format m_format;
    std::FILE* m_out;
    std::string m_prefix;
};

// Writes `text` and a line end to `out` under the lock that every printed line takes, then flushes.
void writeLine(std::FILE* out, const std::string& text);

// Human (the default): errors are "tarn: <message>" lines on standard error. Json: they are
// {"event":"error","message":"<message>"} lines on standard output.
void setErrorFormat(Format format);

// One error line in the form set by setErrorFormat.
void printError(const std::string& message);

// A line of progress that is not a result: on standard error as it stands in human form, or the
// JSON object on standard output (sub's ready line, the wait for a server).
void printNotice(const std::string& human, const Json& json);

}  // namespace tarncli

#endif  // TARN_TOOLS_OUTPUT_H
