// The tool's value syntax, line splitting, size checks and output forms, checked directly.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "cliargs.h"
#include "commandtable.h"
#include "output.h"
#include "report.h"
#include "values.h"

using namespace tarncli;

namespace {

NamedValue parsed(const std::string& text) {
    NamedValue value;
    std::string error;
    EXPECT_TRUE(parseValue(argToken(text), value, error)) << text << ": " << error;
    return value;
}

std::string refusal(const std::string& text) {
    NamedValue value;
    std::string error;
    EXPECT_FALSE(parseValue(argToken(text), value, error)) << text;
    return error;
}

std::vector<Token> words(const std::string& line) {
    std::vector<Token> out;
    std::string error;
    EXPECT_TRUE(tokenize(line, out, error)) << line << ": " << error;
    return out;
}

std::string tokenizeError(const std::string& line) {
    std::vector<Token> out;
    std::string error;
    EXPECT_FALSE(tokenize(line, out, error)) << line;
    return error;
}

}  // namespace

TEST(CliValues, BareTextIsAnUnnamedString) {
    const NamedValue v = parsed("hello");
    EXPECT_EQ(v.name, "");
    EXPECT_EQ(v.value.getType(), TYPE_STRING);
    EXPECT_EQ(v.value.getAsString(), "hello");
}

TEST(CliValues, NameEqualsTextIsANamedString) {
    const NamedValue v = parsed("mode=eco=fast");
    EXPECT_EQ(v.name, "mode");
    EXPECT_EQ(v.value.getType(), TYPE_STRING);
    EXPECT_EQ(v.value.getAsString(), "eco=fast");  // only the first '=' separates
}

TEST(CliValues, TypedValues) {
    int i = 0;
    bool b = false;
    float f = 0.0f;
    NamedValue v = parsed("level:i=-42");
    EXPECT_EQ(v.name, "level");
    ASSERT_TRUE(v.value.getIntValue(i));
    EXPECT_EQ(i, -42);

    v = parsed("on:b=on");
    ASSERT_TRUE(v.value.getBooleanValue(b));
    EXPECT_TRUE(b);
    for (const char* no : {"x:b=off", "x:b=OFF", "x:b=false", "x:b=0", "x:b=no"}) {
        ASSERT_TRUE(parsed(no).value.getBooleanValue(b)) << no;
        EXPECT_FALSE(b) << no;
    }

    v = parsed("ratio:f=1.5");
    ASSERT_TRUE(v.value.getFloatValue(f));
    EXPECT_EQ(f, 1.5f);

    v = parsed("x:s=42");
    EXPECT_EQ(v.value.getType(), TYPE_STRING);
    EXPECT_EQ(v.value.getAsString(), "42");

    v = parsed("x:int=7");
    EXPECT_TRUE(v.value.getIntValue(i));
    EXPECT_EQ(i, 7);
}

TEST(CliValues, UnnamedTypedValue) {
    int i = 0;
    const NamedValue v = parsed(":i=5");
    EXPECT_EQ(v.name, "");
    ASSERT_TRUE(v.value.getIntValue(i));
    EXPECT_EQ(i, 5);
    EXPECT_EQ(parsed("=a=b").value.getAsString(), "a=b");
}

TEST(CliValues, NameWithColonTakesTheLastColonAsTypeSeparator) {
    int i = 0;
    const NamedValue v = parsed("a:b:i=1");
    EXPECT_EQ(v.name, "a:b");
    EXPECT_TRUE(v.value.getIntValue(i));
}

TEST(CliValues, IntegerLimits) {
    int i = 0;
    EXPECT_TRUE(parsed("x:i=2147483647").value.getIntValue(i));
    EXPECT_EQ(i, 2147483647);
    EXPECT_TRUE(parsed("x:i=-2147483648").value.getIntValue(i));
    EXPECT_EQ(i, std::numeric_limits<int>::min());
    EXPECT_EQ(refusal("x:i=2147483648"),
              "malformed value 'x:i=2147483648': '2147483648' is not a 32-bit integer");
    EXPECT_EQ(refusal("x:i=abc"), "malformed value 'x:i=abc': 'abc' is not a 32-bit integer");
    EXPECT_EQ(refusal("x:i="), "malformed value 'x:i=': '' is not a 32-bit integer");
    EXPECT_EQ(refusal("x:i= 5"), "malformed value 'x:i= 5': ' 5' is not a 32-bit integer");
    EXPECT_EQ(refusal("x:i=0x10"), "malformed value 'x:i=0x10': '0x10' is not a 32-bit integer");
    EXPECT_EQ(refusal("x:i=1.5"), "malformed value 'x:i=1.5': '1.5' is not a 32-bit integer");
}

TEST(CliValues, MalformedBooleanFloatAndType) {
    EXPECT_EQ(refusal("x:b=maybe"), "malformed value 'x:b=maybe': a boolean is on or off");
    EXPECT_EQ(refusal("x:f=abc"), "malformed value 'x:f=abc': 'abc' is not a number");
    EXPECT_EQ(refusal("x:f="), "malformed value 'x:f=': '' is not a number");
    EXPECT_EQ(refusal("x:f=1e39"),
              "malformed value 'x:f=1e39': '1e39' is beyond the range of a 32-bit float");
    EXPECT_EQ(refusal("x:q=1"), "malformed value 'x:q=1': unknown type 'q' (use i, b, f or s)");
    EXPECT_EQ(refusal("x:=1"), "malformed value 'x:=1': unknown type '' (use i, b, f or s)");
}

TEST(CliValues, NulBytesAreRefused) {
    NamedValue value;
    std::string error;
    EXPECT_FALSE(parseValue(argToken(std::string("a=b\0c", 5)), value, error));
    EXPECT_EQ(error, "malformed value: a NUL byte cannot travel in a TARN text");
}

TEST(CliValues, NonFiniteFloatsAreAccepted) {
    float f = 0.0f;
    EXPECT_TRUE(parsed("x:f=inf").value.getFloatValue(f));
    EXPECT_TRUE(std::isinf(f));
    EXPECT_TRUE(parsed("x:f=nan").value.getFloatValue(f));
    EXPECT_TRUE(std::isnan(f));
}

TEST(CliValues, ArgumentsGetPositionalNamesAndRefuseDuplicates) {
    std::vector<NamedValue> params;
    std::string error;
    ASSERT_TRUE(parseArguments({argToken("hello"), argToken("b:i=2"), argToken("world")}, params, error));
    ASSERT_EQ(params.size(), 3u);
    EXPECT_EQ(params[0].name, "arg1");
    EXPECT_EQ(params[1].name, "b");
    EXPECT_EQ(params[2].name, "arg3");

    EXPECT_FALSE(parseArguments({argToken("x=1"), argToken("x:i=2")}, params, error));
    EXPECT_EQ(error, "parameter 'x' is given twice");
    EXPECT_FALSE(parseArguments({argToken("a"), argToken("arg1=b")}, params, error));
    EXPECT_EQ(error, "parameter 'arg1' is given twice");
}

TEST(CliValues, FillListKeepsEveryType) {
    std::vector<NamedValue> params;
    std::string error;
    ASSERT_TRUE(parseArguments(
        {argToken("s=text"), argToken("i:i=3"), argToken("b:b=on"), argToken("f:f=2.5")}, params, error));
    ParameterList list;
    fillList(params, list);
    const std::vector<NamedValue> back = listEntries(list);
    ASSERT_EQ(back.size(), 4u);
    EXPECT_EQ(namedValues(back), "b:b=on f:f=2.5 i:i=3 s=\"text\"");  // name order
}

TEST(CliValues, ListEntriesOfAnEmptyList) {
    ParameterList list;
    EXPECT_TRUE(listEntries(list).empty());
}

TEST(CliValues, ListEntriesOfAListDecodedFromTheWire) {
    // count 2; "a" NUL int 1; "b" NUL float 1.0
    char wire[] = {2, 'a', 0, 'I', 1, 0, 0, 0, 'b', 0, 'F', 0, 0, static_cast<char>(0x80), 0x3F, 0};
    ParameterList list;
    ASSERT_EQ(list.createFromBinary(wire, 15), 15);
    EXPECT_EQ(namedValues(listEntries(list)), "a:i=1 b:f=1");
}

TEST(CliTokenize, BlanksSeparateWords) {
    const std::vector<Token> w = words("  set\ttemp   :f=21.5  ");
    ASSERT_EQ(w.size(), 3u);
    EXPECT_EQ(w[0].text, "set");
    EXPECT_EQ(w[1].text, "temp");
    EXPECT_EQ(w[2].text, ":f=21.5");
    EXPECT_EQ(w[2].separator, 2u);
    EXPECT_TRUE(words("   ").empty());
}

TEST(CliTokenize, QuotesGroupAndEscape) {
    const std::vector<Token> w = words(R"(call "two words" 'a=b' x="y \"z\"\n\x41" back\ slash)");
    ASSERT_EQ(w.size(), 5u);
    EXPECT_EQ(w[1].text, "two words");
    EXPECT_EQ(w[2].text, "a=b");
    EXPECT_EQ(w[2].separator, std::string::npos);  // a quoted '=' does not name anything
    EXPECT_EQ(w[3].text, "x=y \"z\"\nA");
    EXPECT_EQ(w[3].separator, 1u);
    EXPECT_EQ(w[4].text, "back slash");
}

TEST(CliTokenize, QuotedSeparatorMakesAnUnnamedText) {
    NamedValue v;
    std::string error;
    ASSERT_TRUE(parseValue(words("\"a=b\"")[0], v, error));
    EXPECT_EQ(v.name, "");
    EXPECT_EQ(v.value.getAsString(), "a=b");
}

TEST(CliTokenize, RefusesBrokenInput) {
    EXPECT_EQ(tokenizeError("say \"hello"), "unterminated \" quote");
    EXPECT_EQ(tokenizeError("say 'hello"), "unterminated ' quote");
    EXPECT_EQ(tokenizeError("say hello\\"), "the line ends with a backslash");
    EXPECT_EQ(tokenizeError("say \"\\q\""), "bad escape: \\q");
    EXPECT_EQ(tokenizeError("say \"\\x4\""), "bad escape: \\x needs two hex digits");
    EXPECT_EQ(tokenizeError("say \"\\x00\""), "a NUL byte cannot travel in a TARN text");
    EXPECT_EQ(tokenizeError(std::string("say a\0b", 7)), "a NUL byte cannot travel in a TARN text");
}

TEST(CliSizes, NamesUpTo1487BytesFit) {
    std::string error;
    EXPECT_TRUE(checkNameFits(std::string(1487, 'n'), error));
    EXPECT_FALSE(checkNameFits(std::string(1488, 'n'), error));
    EXPECT_EQ(error,
              "the name is too large for one TARN message: it needs 1489 bytes of room, a message carries at "
              "most 1488");
}

TEST(CliSizes, ValueRoomFollowsTheEncoders) {
    std::string error;
    // name + NUL + value: a string of n bytes takes n + 2.
    EXPECT_TRUE(checkValueFits("n", ParameterValue(std::string(1484, 'v')), error));
    EXPECT_FALSE(checkValueFits("n", ParameterValue(std::string(1485, 'v')), error));
    // An integer needs 5 bytes of room, a float 6 although it writes 5.
    EXPECT_TRUE(checkValueFits(std::string(1482, 'n'), ParameterValue(1), error));
    EXPECT_FALSE(checkValueFits(std::string(1483, 'n'), ParameterValue(1), error));
    EXPECT_TRUE(checkValueFits(std::string(1481, 'n'), ParameterValue(1.0f), error));
    EXPECT_FALSE(checkValueFits(std::string(1482, 'n'), ParameterValue(1.0f), error));
}

TEST(CliSizes, CallRoomFollowsTheListEncoder) {
    std::string error;
    // "f" NUL, count byte, "s" NUL, string of n bytes + 2: 1488 with n = 1481.
    EXPECT_TRUE(checkCallFits("f", {{"s", ParameterValue(std::string(1481, 'v'))}}, error));
    EXPECT_FALSE(checkCallFits("f", {{"s", ParameterValue(std::string(1482, 'v'))}}, error));
    EXPECT_EQ(error,
              "the call is too large for one TARN message: it needs 1489 bytes of room, a message carries at "
              "most 1488");
    // A float last in name order needs one byte of room beyond what it writes.
    EXPECT_TRUE(checkCallFits("f", {{std::string(1478, 'z'), ParameterValue(1.0f)}}, error));
    EXPECT_FALSE(checkCallFits("f", {{std::string(1479, 'z'), ParameterValue(1.0f)}}, error));
    // Entries are placed in name order, whatever order they were given in: the float's spare byte
    // counts only when it comes last.
    const ParameterValue text(std::string(1474, 'v'));
    EXPECT_TRUE(checkCallFits("f", {{"b", text}, {"a", ParameterValue(1.0f)}}, error));
    EXPECT_FALSE(checkCallFits("f", {{"a", text}, {"z", ParameterValue(1.0f)}}, error));
    EXPECT_TRUE(checkCallFits(
        "f", {{"a", ParameterValue(std::string(1473, 'v'))}, {"z", ParameterValue(1.0f)}}, error));
    EXPECT_TRUE(checkCallFits("f", {}, error));
}

TEST(CliNumbers, Ports) {
    std::uint16_t port = 0;
    std::string error;
    EXPECT_TRUE(parsePort("65535", false, port, error));
    EXPECT_EQ(port, 65535);
    EXPECT_TRUE(parsePort("0", true, port, error));
    EXPECT_EQ(port, 0);
    EXPECT_FALSE(parsePort("0", false, port, error));
    EXPECT_EQ(error, "port out of range: 0 (1 to 65535)");
    EXPECT_FALSE(parsePort("65536", true, port, error));
    EXPECT_EQ(error, "port out of range: 65536 (0 to 65535)");
    EXPECT_FALSE(parsePort("-1", false, port, error));
    EXPECT_EQ(error, "port out of range: -1 (1 to 65535)");
    EXPECT_FALSE(parsePort("http", false, port, error));
    EXPECT_EQ(error, "not a port number: 'http'");
    EXPECT_FALSE(parsePort("", false, port, error));
    EXPECT_FALSE(parsePort("+80", false, port, error));
    EXPECT_FALSE(parsePort("99999999999999999999999", false, port, error));
}

TEST(CliNumbers, Seconds) {
    std::int64_t ms = 0;
    EXPECT_TRUE(parseSeconds("1.5", ms));
    EXPECT_EQ(ms, 1500);
    EXPECT_TRUE(parseSeconds("0.0001", ms));
    EXPECT_EQ(ms, 1);
    EXPECT_FALSE(parseSeconds("0", ms));
    EXPECT_FALSE(parseSeconds("-1", ms));
    EXPECT_FALSE(parseSeconds("abc", ms));
    EXPECT_FALSE(parseSeconds("nan", ms));
    EXPECT_FALSE(parseSeconds("100000", ms));
}

TEST(CliNumbers, ModeSets) {
    bool realtime = false;
    bool reliable = false;
    EXPECT_TRUE(parseModeSet("reliable", realtime, reliable));
    EXPECT_FALSE(realtime);
    EXPECT_TRUE(reliable);
    EXPECT_TRUE(parseModeSet("realtime,reliable", realtime, reliable));
    EXPECT_TRUE(realtime && reliable);
    EXPECT_FALSE(parseModeSet("", realtime, reliable));
    EXPECT_FALSE(parseModeSet("fast", realtime, reliable));
    EXPECT_FALSE(parseModeSet("reliable,", realtime, reliable));
}

namespace {

// The significant digits of a decimal text: "1500" has 2, "0.001" has 1, "1.25e+20" has 3.
std::size_t significantDigits(const std::string& text) {
    std::string digits;
    for (const char c : text.substr(0, text.find('e'))) {
        if (c >= '0' && c <= '9') {
            digits += c;
        }
    }
    const std::size_t first = digits.find_first_not_of('0');
    if (first == std::string::npos) {
        return 1;
    }
    const std::size_t last = digits.find_last_not_of('0');
    return last - first + 1;
}

}  // namespace

TEST(CliOutput, FloatsInShortestForm) {
    EXPECT_EQ(floatText(10.0f), "10");
    EXPECT_EQ(floatText(30.0f), "30");
    EXPECT_EQ(floatText(1500.0f), "1500");
    EXPECT_EQ(floatText(100.0f), "100");
    EXPECT_EQ(floatText(-20.0f), "-20");
    EXPECT_EQ(floatText(24.0f), "24");
    EXPECT_EQ(floatText(21.5f), "21.5");
    EXPECT_EQ(floatText(0.1f), "0.1");
    EXPECT_EQ(floatText(0.001f), "0.001");
    EXPECT_EQ(floatText(1e20f), "1e+20");
    EXPECT_EQ(floatText(3.40282347e+38f), "3.4028235e+38");
    EXPECT_EQ(floatText(1234567.0f), "1234567");
    EXPECT_EQ(floatText(16777216.0f), "16777216");
    EXPECT_EQ(floatText(1e-7f), "1e-07");
    EXPECT_EQ(floatText(-0.0f), "-0");
    EXPECT_EQ(floatText(std::numeric_limits<float>::infinity()), "inf");
    EXPECT_EQ(floatText(-std::numeric_limits<float>::infinity()), "-inf");
    EXPECT_EQ(floatText(std::nanf("")), "nan");
    // Every float reads back as itself, in no more characters than the fewest digits that read back
    // take in exponent form, and with no more digits than those unless it is a whole number
    // written out (1459468160 is shorter than 1.4594682e+09).
    std::uint32_t bits = 0x3f800000u;
    for (int i = 0; i < 20000; ++i) {
        bits = bits * 1664525u + 1013904223u;
        float f = 0.0f;
        std::memcpy(&f, &bits, sizeof f);
        if (!std::isfinite(f)) {
            continue;
        }
        const std::string text = floatText(f);
        ASSERT_EQ(std::strtof(text.c_str(), nullptr), f) << text;
        int fewest = 0;
        char candidate[64] = "";
        do {
            ++fewest;  // nine significant digits always read back
            std::snprintf(candidate, sizeof candidate, "%.*g", fewest, static_cast<double>(f));
        } while (fewest < 9 && std::strtof(candidate, nullptr) != f);
        EXPECT_LE(text.size(), std::strlen(candidate)) << text << " " << candidate;
        if (text.find_first_of(".e") != std::string::npos) {
            EXPECT_EQ(significantDigits(text), static_cast<std::size_t>(fewest)) << text;
        }
    }
    for (const float f : {3.14159274f, 1.17549435e-38f, 3.40282347e+38f, 0.3f, 2.0f / 3.0f}) {
        EXPECT_EQ(std::strtof(floatText(f).c_str(), nullptr), f) << floatText(f);
    }
}

TEST(CliOutput, ReadableValuesUseTheInputSyntax) {
    EXPECT_EQ(namedValue("temp", ParameterValue(21.5f)), "temp:f=21.5");
    EXPECT_EQ(namedValue("n", ParameterValue(-7)), "n:i=-7");
    EXPECT_EQ(namedValue("on", ParameterValue(true)), "on:b=on");
    EXPECT_EQ(namedValue("on", ParameterValue(false)), "on:b=off");
    EXPECT_EQ(namedValue("s", ParameterValue("a \"b\"\n\\")), "s=\"a \\\"b\\\"\\n\\\\\"");
    EXPECT_EQ(namedValue("s", ParameterValue(std::string("\x01\x7f\xc3\xa9"))), "s=\"\\x01\\x7f\xc3\xa9\"");
    EXPECT_EQ(namedValue("x", ParameterValue()), "x:none");
    ParameterValue foreign;
    char tag[] = {static_cast<char>(0xC8)};
    foreign.createFromBinary(tag, 1);
    EXPECT_EQ(namedValue("x", foreign), "x:tag=0xc8");
}

TEST(CliOutput, NamesAreQuotedWhenTheInputWouldReadThemOtherwise) {
    EXPECT_EQ(word("temp"), "temp");
    EXPECT_EQ(word("two words"), "\"two words\"");
    EXPECT_EQ(word("a=b"), "\"a=b\"");
    EXPECT_EQ(word("a:b"), "\"a:b\"");
    EXPECT_EQ(word("#x"), "\"#x\"");
    EXPECT_EQ(word("x#"), "x#");
    EXPECT_EQ(word(""), "\"\"");
    EXPECT_EQ(word("caf\xc3\xa9"), "caf\xc3\xa9");
}

TEST(CliOutput, ReadableFormReadsBack) {
    // What the human output prints can be typed back in and gives the same value.
    const std::vector<ParameterValue> values = {ParameterValue("tab\there \"q\" \\ \x02"), ParameterValue(-5),
                                                ParameterValue(true), ParameterValue(0.1f)};
    for (const ParameterValue& value : values) {
        const std::string text = namedValue("a b:c", value);
        const std::vector<Token> w = words(text);
        ASSERT_EQ(w.size(), 1u) << text;
        NamedValue back;
        std::string error;
        ASSERT_TRUE(parseValue(w[0], back, error)) << text << ": " << error;
        EXPECT_EQ(back.name, "a b:c") << text;
        EXPECT_EQ(namedValue(back.name, back.value), text);
    }
}

TEST(CliOutput, JsonStrings) {
    EXPECT_EQ(jsonString("plain"), "\"plain\"");
    EXPECT_EQ(jsonString("q\"b\\s/"), "\"q\\\"b\\\\s/\"");
    EXPECT_EQ(jsonString("\n\r\t\b\f\x01\x1f\x7f"), "\"\\n\\r\\t\\b\\f\\u0001\\u001f\\u007f\"");
    EXPECT_EQ(jsonString("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
    // Bytes that are not UTF-8 become U+FFFD, one each.
    EXPECT_EQ(jsonString("a\xff"
                         "b"),
              "\"a\\ufffdb\"");
    EXPECT_EQ(jsonString("\xc3"), "\"\\ufffd\"");                                   // cut short
    EXPECT_EQ(jsonString("\xc0\xaf"), "\"\\ufffd\\ufffd\"");                        // overlong
    EXPECT_EQ(jsonString("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");             // surrogate
    EXPECT_EQ(jsonString("\xf4\x90\x80\x80"), "\"\\ufffd\\ufffd\\ufffd\\ufffd\"");  // above U+10FFFF
}

TEST(CliOutput, JsonValues) {
    EXPECT_EQ(Json("update").text("name", "t").value(ParameterValue(21.5f)).str(),
              "{\"event\":\"update\",\"name\":\"t\",\"type\":\"float\",\"value\":21.5}");
    EXPECT_EQ(Json("e").value(ParameterValue(-3)).str(), "{\"event\":\"e\",\"type\":\"int\",\"value\":-3}");
    EXPECT_EQ(Json("e").value(ParameterValue(false)).str(),
              "{\"event\":\"e\",\"type\":\"bool\",\"value\":false}");
    EXPECT_EQ(Json("e").value(ParameterValue("x")).str(),
              "{\"event\":\"e\",\"type\":\"string\",\"value\":\"x\"}");
    EXPECT_EQ(Json("e").value(ParameterValue()).str(), "{\"event\":\"e\",\"type\":\"none\",\"value\":null}");
    // JSON has no number for NaN and the infinities: each is its own string, as the input writes it.
    EXPECT_EQ(Json("e").value(ParameterValue(std::nanf(""))).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":\"nan\"}");
    EXPECT_EQ(Json("e").value(ParameterValue(std::numeric_limits<float>::infinity())).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":\"inf\"}");
    EXPECT_EQ(Json("e").value(ParameterValue(-std::numeric_limits<float>::infinity())).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":\"-inf\"}");
    EXPECT_EQ(Json("e").value(ParameterValue(10.0f)).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":10}");
    EXPECT_EQ(Json("e").value(ParameterValue(1500.0f)).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":1500}");
    EXPECT_EQ(Json("e").value(ParameterValue(-0.0f)).str(),
              "{\"event\":\"e\",\"type\":\"float\",\"value\":-0}");
    ParameterValue foreign;
    char tag[] = {0x5A};
    foreign.createFromBinary(tag, 1);
    EXPECT_EQ(Json("e").value(foreign).str(),
              "{\"event\":\"e\",\"type\":\"unknown\",\"value\":null,\"tag\":90}");
    EXPECT_EQ(
        jsonParams({{"a", ParameterValue(1)}, {"b", ParameterValue(true)}}),
        "[{\"name\":\"a\",\"type\":\"int\",\"value\":1},{\"name\":\"b\",\"type\":\"bool\",\"value\":true}]");
    EXPECT_EQ(jsonParams({}), "[]");
}

TEST(CliOutput, EventLines) {
    Event update;
    update.kind = EventKind::Update;
    update.name = "temp";
    update.value = ParameterValue(21.5f);
    EXPECT_EQ(clientEventLine(update, eTransportTCP, Format::Human), "update temp:f=21.5");
    EXPECT_EQ(clientEventLine(update, eTransportTCP, Format::Json),
              "{\"event\":\"update\",\"name\":\"temp\",\"type\":\"float\",\"value\":21.5}");

    Event call;
    call.kind = EventKind::Call;
    call.source = 3;
    call.name = "set point";
    call.params = {{"a", ParameterValue(1)}, {"m", ParameterValue("eco")}};
    EXPECT_EQ(serverEventLine(call, Format::Human), "[3] call \"set point\" a:i=1 m=\"eco\"");
    EXPECT_EQ(
        serverEventLine(call, Format::Json),
        "{\"event\":\"call\",\"conn\":3,\"name\":\"set point\",\"params\":[{\"name\":\"a\",\"type\":\"int\","
        "\"value\":1},{\"name\":\"m\",\"type\":\"string\",\"value\":\"eco\"}]}");

    Event connected;
    connected.kind = EventKind::Connected;
    connected.source = 1;
    connected.peer = "127.0.0.1:4000";
    EXPECT_EQ(serverEventLine(connected, Format::Human), "[1] connected 127.0.0.1:4000");
    EXPECT_EQ(clientEventLine(connected, eTransportEUDP, Format::Human), "connected eudp 127.0.0.1:4000");
}

namespace {

const std::vector<OptionEntry> kTestOptions = {
    {"--count", 'c', "N", "", nullptr},    {"--timeout", 't', "S", "", nullptr},
    {"--json", 'j', nullptr, "", nullptr}, {"--reliable", 'r', nullptr, "", nullptr},
    {"--help", 'h', nullptr, "", nullptr},
};

}  // namespace

TEST(CliArgs, OptionsAnywhereAndDoubleDash) {
    ParsedArgs args;
    std::string error;
    ASSERT_TRUE(parseArgs({"host", "--count", "3", "1234", "--timeout=2", "name", "--", "--json", "-h"},
                          kTestOptions, args, error));
    EXPECT_EQ(args.value("--count"), "3");
    EXPECT_EQ(args.value("--timeout"), "2");
    EXPECT_FALSE(args.has("--json"));
    EXPECT_FALSE(args.has("--help"));
    EXPECT_EQ(args.positionals, (std::vector<std::string>{"host", "1234", "name", "--json", "-h"}));
}

TEST(CliArgs, ShortOptions) {
    ParsedArgs args;
    std::string error;
    ASSERT_TRUE(parseArgs({"-c", "3", "host", "-t2.5", "-jr", "name"}, kTestOptions, args, error)) << error;
    EXPECT_EQ(args.value("--count"), "3");
    EXPECT_EQ(args.value("--timeout"), "2.5");
    EXPECT_TRUE(args.has("--json"));
    EXPECT_TRUE(args.has("--reliable"));
    EXPECT_EQ(args.positionals, (std::vector<std::string>{"host", "name"}));
    // A bundle may end in one that takes a value: attached or the next word.
    ASSERT_TRUE(parseArgs({"-jc", "4"}, kTestOptions, args, error)) << error;
    EXPECT_TRUE(args.has("--json"));
    EXPECT_EQ(args.value("--count"), "4");
    ASSERT_TRUE(parseArgs({"-jc5"}, kTestOptions, args, error)) << error;
    EXPECT_EQ(args.value("--count"), "5");
}

TEST(CliArgs, Refusals) {
    ParsedArgs args;
    std::string error;
    EXPECT_FALSE(parseArgs({"--frob"}, {}, args, error));
    EXPECT_EQ(error, "unknown option '--frob'");
    EXPECT_FALSE(parseArgs({"-x"}, kTestOptions, args, error));
    EXPECT_EQ(error, "unknown option '-x'");
    EXPECT_FALSE(parseArgs({"-jx"}, kTestOptions, args, error));
    EXPECT_EQ(error, "unknown option '-x'");
    EXPECT_FALSE(parseArgs({"--count"}, kTestOptions, args, error));
    EXPECT_EQ(error, "option --count needs a value");
    EXPECT_FALSE(parseArgs({"-c"}, kTestOptions, args, error));
    EXPECT_EQ(error, "option -c needs a value");
    EXPECT_FALSE(parseArgs({"--json=yes"}, kTestOptions, args, error));
    EXPECT_EQ(error, "option --json takes no value");
    // A single dash, and a dash before a digit, start no option: "-5" is a word.
    ASSERT_TRUE(parseArgs({"-5", "-", "-h"}, kTestOptions, args, error));
    EXPECT_EQ(args.positionals, (std::vector<std::string>{"-5", "-"}));
    EXPECT_TRUE(args.has("--help"));
    // The words after a bad one are still read: --json is known although --frob came first.
    EXPECT_FALSE(parseArgs({"--frob", "--json"}, kTestOptions, args, error));
    EXPECT_EQ(error, "unknown option '--frob'");
    EXPECT_TRUE(args.has("--json"));
}

TEST(CliArgs, EveryCommandsOptionsAreUnambiguous) {
    for (const CommandEntry& command : commandTable()) {
        const std::vector<OptionEntry> options = allOptions(command);
        for (std::size_t i = 0; i < options.size(); ++i) {
            EXPECT_EQ(std::string(options[i].name).rfind("--", 0), 0u) << options[i].name;
            EXPECT_NE(std::string(options[i].help), "") << options[i].name;
            for (std::size_t k = i + 1; k < options.size(); ++k) {
                EXPECT_STRNE(options[i].name, options[k].name) << command.name;
                if (options[i].shortName != 0) {
                    EXPECT_NE(options[i].shortName, options[k].shortName)
                        << command.name << " " << options[i].name;
                }
            }
        }
    }
}

TEST(CliTarget, HostAndPortInOneWordOrTwo) {
    std::string host;
    std::uint16_t port = 0;
    std::size_t used = 0;
    std::string error;
    const auto target = [&](const std::vector<std::string>& words) {
        host.clear();
        port = 0;
        used = 0;
        return parseTarget(words, 0, host, port, used, error);
    };
    ASSERT_TRUE(target({"127.0.0.1", "5555", "x"}));
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_EQ(port, 5555);
    EXPECT_EQ(used, 2u);
    ASSERT_TRUE(target({"localhost:5555", "x"}));
    EXPECT_EQ(host, "localhost");
    EXPECT_EQ(port, 5555);
    EXPECT_EQ(used, 1u);
    ASSERT_TRUE(target({"[::1]:5555"}));
    EXPECT_EQ(host, "::1");
    EXPECT_EQ(port, 5555);
    EXPECT_EQ(used, 1u);
    ASSERT_TRUE(target({"::1", "5555"}));
    EXPECT_EQ(host, "::1");
    EXPECT_EQ(used, 2u);
    ASSERT_TRUE(target({"[fe80::1]", "80"}));
    EXPECT_EQ(host, "fe80::1");
    EXPECT_EQ(port, 80);
    EXPECT_EQ(used, 2u);
    ASSERT_TRUE(target({"2001:db8::7", "9"}));
    EXPECT_EQ(host, "2001:db8::7");

    EXPECT_FALSE(target({"h:70000"}));
    EXPECT_EQ(error, "port out of range: 70000 (1 to 65535)");
    EXPECT_FALSE(target({"h:"}));
    EXPECT_EQ(error, "not a port number: ''");
    EXPECT_FALSE(target({":5555"}));
    EXPECT_EQ(error, "malformed address ':5555' (write HOST:PORT or HOST PORT)");
    EXPECT_FALSE(target({"[::1"}));
    EXPECT_EQ(error, "malformed address '[::1' (write [ADDR]:PORT or ADDR PORT)");
    EXPECT_FALSE(target({"[::1]x"}));
    EXPECT_EQ(error, "malformed address '[::1]x' (write [ADDR]:PORT or ADDR PORT)");
    EXPECT_FALSE(target({"[]:5"}));
    // Missing words leave the message to the caller, which knows what the command needs.
    EXPECT_FALSE(target({"127.0.0.1"}));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(target({}));
    EXPECT_EQ(error, "");
    EXPECT_FALSE(target({"::1"}));
    EXPECT_EQ(error, "");
}

TEST(CliTarget, AddressesWithAColonTakeBracketsBeforeThePort) {
    EXPECT_EQ(hostPort("127.0.0.1", 5555), "127.0.0.1:5555");
    EXPECT_EQ(hostPort("::1", 5555), "[::1]:5555");
    EXPECT_EQ(hostPort("example.org", 1), "example.org:1");
}

namespace {

// Words and bytes the syntax cares about, mixed at random: quotes, escapes, separators, type
// letters, numbers at and beyond their limits, control and non-UTF-8 bytes.
std::string randomText(unsigned int& seed, int pieces) {
    static const char* const fragments[] = {
        "\"",          "'",    "\\",   "\\x",  "\\x4", "\\x00", "\\xff", "\\n",    "=",     ":",
        ":i",          ":b",   ":f",   ":s",   ":q",   "i=",    "b=on",  "f=1e39", "f=nan", "2147483648",
        "-2147483649", "0x10", " ",    "\t",   "name", "a:b",   "#",     "\x01",   "\xff",  "\xc3",
        "\xc3\xa9",    "set",  "call", "arg1", "==",   "::",    ""};
    std::string text;
    for (int i = 0; i < pieces; ++i) {
        seed = seed * 1103515245u + 12345u;
        const unsigned int pick = (seed >> 8) % (sizeof(fragments) / sizeof(fragments[0]) + 1);
        if (pick == sizeof(fragments) / sizeof(fragments[0])) {
            text += static_cast<char>((seed >> 16) & 0xFF);  // any byte at all
        } else {
            text += fragments[pick];
        }
    }
    return text;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

}  // namespace

TEST(CliRobustness, RandomInputIsParsedOrRefusedWithAMessage) {
    unsigned int seed = 20261122u;
    for (int round = 0; round < 20000; ++round) {
        const std::string line = randomText(seed, 1 + round % 12);
        std::vector<Token> tokens;
        std::string error;
        if (!tokenize(line, tokens, error)) {
            EXPECT_FALSE(error.empty()) << line;
            tokens = {argToken(line)};
        }
        for (const Token& token : tokens) {
            NamedValue value;
            if (!parseValue(token, value, error)) {
                EXPECT_TRUE(startsWith(error, "malformed value")) << error;
            } else {
                // Whatever was accepted prints in a form that reads back as the same value.
                std::vector<Token> again;
                const std::string printed = namedValue(value.name.empty() ? "n" : value.name, value.value);
                ASSERT_TRUE(tokenize(printed, again, error)) << printed << ": " << error;
                ASSERT_EQ(again.size(), 1u) << printed;
                NamedValue back;
                ASSERT_TRUE(parseValue(again[0], back, error)) << printed << ": " << error;
                EXPECT_EQ(namedValue(back.name, back.value), printed);
            }
        }
        std::vector<NamedValue> params;
        if (parseArguments(tokens, params, error)) {
            if (checkCallFits(line, params, error)) {
                ParameterList list;
                fillList(params, list);
                EXPECT_EQ(listEntries(list).size(), params.size());
            }
        }
        const std::string json = jsonString(line);
        EXPECT_EQ(json.front(), '"');
        EXPECT_EQ(json.back(), '"');
        for (const char c : json) {
            EXPECT_GE(static_cast<unsigned char>(c), 0x20u) << "JSON text holds no raw control byte";
        }
    }
}
