// ParameterList: name order, getters, text form, and the binary encoding with its signed count.
#include <gtest/gtest.h>

#include <parameterlist.h>

#include <climits>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "testsupport.h"

using testsupport::Bytes;
using testsupport::hex;

namespace {

std::string printed(const ParameterList& list) {
    std::ostringstream out;
    list.print(out);
    return out.str();
}

Bytes encode(const ParameterList& list, int size, int* result = nullptr, Bytes* whole = nullptr) {
    std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 0) + 8, static_cast<char>(0xAA));
    const int n = list.getBinary(buffer.data(), size);
    if (result != nullptr) {
        *result = n;
    }
    if (whole != nullptr) {
        whole->assign(buffer.begin(), buffer.end());
    }
    return Bytes(buffer.begin(), buffer.begin() + n);
}

// The two-argument decoder on a heap buffer of exactly `bytes`, the last one being the readable byte
// beyond size.
int decodePublic(ParameterList& list, const Bytes& bytes) {
    std::vector<char> exact(bytes.begin(), bytes.end());
    return list.createFromBinary(exact.data(), static_cast<int>(exact.size()) - 1);
}

// The two-argument decoder on a heap buffer of exactly `bytes`, with `size` given: whatever lies
// beyond the copy is out of reach, so AddressSanitizer catches any read past it.
int decodeExact(ParameterList& list, const Bytes& bytes, int size) {
    std::vector<char> exact(bytes.begin(), bytes.end());
    return list.createFromBinary(exact.data(), size);
}

// All entries, in walking order, as "name=text;" pairs.
std::string entries(const ParameterList& list) {
    std::string out;
    std::string name;
    std::string value;
    for (unsigned int i = 0; list.getParam(i, name, value); ++i) {
        out += name + "=" + value + ";";
    }
    return out;
}

ParameterList sampleList() {
    ParameterList list;
    list.addBoolean("b", true);
    list.addNumeric("a", 1);
    return list;
}

}  // namespace

TEST(ParameterList, EmptyListEncodesDecodesAndPrints) {
    ParameterList list;
    int result = -1;
    EXPECT_EQ("00", hex(encode(list, 8, &result)));
    EXPECT_EQ(1, result);
    EXPECT_EQ("", printed(list));

    ParameterList decoded;
    EXPECT_EQ(1, decodePublic(decoded, Bytes{0x00, 0xFF}));
    EXPECT_EQ("", entries(decoded));
    EXPECT_EQ("", printed(decoded));
}

TEST(ParameterList, SampleEncodesInNameOrder) {
    int result = 0;
    EXPECT_EQ("02 61 00 49 01 00 00 00 62 00 42 01", hex(encode(sampleList(), 64, &result)));
    EXPECT_EQ(12, result);
    // Exactly 12 bytes of room suffice: the boolean is the last thing written.
    encode(sampleList(), 12, &result);
    EXPECT_EQ(12, result);
}

TEST(ParameterList, PrintWritesEveryEntryWithTrailingSpace) {
    const std::string text = printed(sampleList());
    EXPECT_EQ("a = 1 b = ON ", text);
    EXPECT_EQ(13u, text.size());

    ParameterList mixed;
    mixed.addFloat("f", 1.5f);
    mixed.addString("s", "two words");
    mixed.addBoolean("e", false);
    EXPECT_EQ("e = OFF f = 1.5 s = two words ", printed(mixed));
}

TEST(ParameterList, AddingAgainReplacesTypeAndValue) {
    ParameterList list;
    list.addNumeric("x", 1);
    list.addString("x", "y");
    EXPECT_EQ("x=y;", entries(list));
    int i = 99;
    EXPECT_FALSE(list.getParam("x", i));
    EXPECT_EQ(99, i);
    EXPECT_EQ("01 78 00 53 79 00", hex(encode(list, 16)));

    list.addFloat("x", 2.5f);
    EXPECT_EQ("x=2.5;", entries(list));
    list.addBoolean("x", false);
    EXPECT_EQ("x=OFF;", entries(list));
}

TEST(ParameterList, GettersByName) {
    ParameterList list;
    list.addString("s", "text");
    list.addNumeric("n", 5);
    list.addBoolean("b", true);
    list.addFloat("f", 0.5f);

    int i = 42;
    EXPECT_FALSE(list.getParam("s", i));
    EXPECT_EQ(42, i);
    EXPECT_FALSE(list.getParam("b", i));
    EXPECT_FALSE(list.getParam("f", i));
    EXPECT_EQ(42, i);
    EXPECT_TRUE(list.getParam("n", i));
    EXPECT_EQ(5, i);

    std::string text = "untouched";
    EXPECT_TRUE(list.getParam("n", text));
    EXPECT_EQ("5", text);
    EXPECT_TRUE(list.getParam("b", text));
    EXPECT_EQ("ON", text);
    EXPECT_TRUE(list.getParam("f", text));
    EXPECT_EQ("0.5", text);
    EXPECT_TRUE(list.getParam("s", text));
    EXPECT_EQ("text", text);

    bool b = false;
    EXPECT_FALSE(list.getParam("n", b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(list.getParam("b", b));
    EXPECT_TRUE(b);

    // Absent names leave every output alone.
    text = "untouched";
    i = 42;
    b = false;
    EXPECT_FALSE(list.getParam("missing", text));
    EXPECT_FALSE(list.getParam("missing", i));
    EXPECT_FALSE(list.getParam("missing", b));
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(42, i);
    EXPECT_FALSE(b);
}

TEST(ParameterList, GetterByIndex) {
    std::string name = "n0";
    std::string value = "v0";
    ParameterList empty;
    EXPECT_FALSE(empty.getParam(0u, name, value));
    EXPECT_EQ("n0", name);
    EXPECT_EQ("v0", value);

    const ParameterList list = sampleList();
    EXPECT_TRUE(list.getParam(0u, name, value));
    EXPECT_EQ("a", name);
    EXPECT_EQ("1", value);
    EXPECT_TRUE(list.getParam(1u, name, value));
    EXPECT_EQ("b", name);
    EXPECT_EQ("ON", value);
    EXPECT_FALSE(list.getParam(2u, name, value));
    EXPECT_EQ("b", name);
    EXPECT_EQ("ON", value);
    EXPECT_FALSE(list.getParam(0xFFFFFFFFu, name, value));
}

TEST(ParameterList, NamesSortAsUnsignedBytes) {
    ParameterList list;
    list.addNumeric("ab", 4);
    list.addNumeric("\xE9t\xE9", 6);
    list.addNumeric("z", 5);
    list.addNumeric("a", 3);
    list.addNumeric("B", 2);
    list.addNumeric("A", 1);
    list.addNumeric("", 0);
    EXPECT_EQ("=0;A=1;B=2;a=3;ab=4;z=5;\xE9t\xE9=6;", entries(list));
    EXPECT_EQ(" = 0 A = 1 B = 2 a = 3 ab = 4 z = 5 \xE9t\xE9 = 6 ", printed(list));
    // The encoding walks the same order.
    int result = 0;
    const Bytes bytes = encode(list, 256, &result);
    ASSERT_GT(result, 0);
    EXPECT_EQ(0x07, bytes[0]);
    EXPECT_EQ(0x00, bytes[1]);           // the empty name first
    EXPECT_EQ(0xE9, bytes[result - 9]);  // the 0xE9 name last: name (3) + NUL + 5 value bytes
}

TEST(ParameterList, NoRoomAtAll) {
    for (int size : {0, -1}) {
        int result = -1;
        Bytes whole;
        encode(sampleList(), size, &result, &whole);
        EXPECT_EQ(0, result);
        EXPECT_EQ(0xAA, whole[0]);
    }
}

TEST(ParameterList, SizeOneWritesCountThenRefusesFirstName) {
    int result = -1;
    Bytes whole;
    encode(sampleList(), 1, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x02, whole[0]);
    EXPECT_EQ(0xAA, whole[1]);
}

TEST(ParameterList, RoomIsTestedBeforeEachName) {
    // "a" with 1 takes bytes 1..7; the name "b" then needs bytes 8..9 and only 8 bytes are there.
    int result = -1;
    Bytes whole;
    encode(sampleList(), 9, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ("02 61 00 49 01 00 00 00 aa", hex(Bytes(whole.begin(), whole.begin() + 9)));
}

TEST(ParameterList, NameIsCopiedUpToItsNulButTakesItsFullLength) {
    ParameterList list;
    list.addNumeric(std::string("a\0b", 3), 7);
    int result = 0;
    const Bytes bytes = encode(list, 32, &result);
    EXPECT_EQ(10, result);
    EXPECT_EQ("01 61 00 aa aa 49 07 00 00 00", hex(bytes));
}

TEST(ParameterListDeathTest, NameThatFitsWithNoRoomForTheTagAborts) {
    ParameterList list;
    list.addNumeric("ab", 1);
    std::vector<char> buffer(16);
    // Count byte, then "ab" and its NUL fill the 4 bytes exactly.
    EXPECT_DEATH(list.getBinary(buffer.data(), 4),
                 "source/parameterlist\\.cpp:[0-9]+: int ParameterList::getBinary\\(char\\*, int\\) const: "
                 "Assertion `false' failed\\.");
}

TEST(ParameterListDeathTest, ValueThatDoesNotFitAfterItsNameAborts) {
    ParameterList list;
    list.addFloat("f", 1.0f);
    std::vector<char> buffer(16);
    // 1 + 2 for the name leaves 5 bytes: a float writes 5 but asks for 6.
    EXPECT_DEATH(list.getBinary(buffer.data(), 8),
                 "source/parameterlist\\.cpp:[0-9]+: int ParameterList::getBinary\\(char\\*, int\\) const: "
                 "Assertion `false' failed\\.");
    int result = 0;
    encode(list, 9, &result);
    EXPECT_EQ(8, result);
}

TEST(ParameterList, DecodesTheSample) {
    ParameterList list;
    EXPECT_EQ(12, decodePublic(list, Bytes{0x02, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 0, 0x42, 1, 0xEE}));
    EXPECT_EQ("a=1;b=ON;", entries(list));
    int i = 0;
    EXPECT_TRUE(list.getParam("a", i));
    EXPECT_EQ(1, i);
}

TEST(ParameterList, DecodeStopsAtNameWhoseNulIsTooFarOut) {
    // Count 2, one whole entry, then "bcd" whose NUL (offset 11) lies two bytes beyond size 10.
    const Bytes bytes{0x02, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 'c', 'd', 0x00};
    ParameterList list;
    std::vector<char> exact(bytes.begin(), bytes.end());
    EXPECT_EQ(0, list.createFromBinary(exact.data(), 10, static_cast<int>(exact.size())));
    EXPECT_EQ("a=1;", entries(list));

    // Through the public form: 11 readable bytes for size 10, the NUL is not among them.
    ParameterList viaPublic;
    EXPECT_EQ(0, decodePublic(viaPublic, Bytes(bytes.begin(), bytes.end() - 1)));
    EXPECT_EQ("a=1;", entries(viaPublic));
}

TEST(ParameterList, ValueBehindANameEndingOneBeyondSizeTakesItsTag) {
    // Size 3: the NUL of "ab" is the byte beyond size, so its value is decoded at size -1. That
    // takes the tag 'I' as the type and refuses the payload: "ab" holds the integer 0, and the
    // decode returns 4. Each buffer is a heap copy of exactly the bytes shown.
    ParameterList list;
    EXPECT_EQ(4, decodeExact(list, Bytes{0x01, 'a', 'b', 0x00, 'I'}, 3));
    int i = -1;
    EXPECT_TRUE(list.getParam("ab", i));
    EXPECT_EQ(0, i);
    EXPECT_EQ("ab = 0 ", printed(list));

    // A foreign tag consumes its byte: 5, and the entry prints as INV.
    ParameterList foreign;
    EXPECT_EQ(5, decodeExact(foreign, Bytes{0x01, 'a', 'b', 0x00, 'Z'}, 3));
    EXPECT_EQ("ab = INV ", printed(foreign));

    // A boolean there is refused at size -1 but keeps its type: false, "OFF".
    ParameterList flag;
    EXPECT_EQ(4, decodeExact(flag, Bytes{0x01, 'a', 'b', 0x00, 'B'}, 3));
    bool b = true;
    EXPECT_TRUE(flag.getParam("ab", b));
    EXPECT_FALSE(b);

    // Behind a whole entry: count 2, "a" = 1, then "bcd" whose NUL is the byte beyond size 11.
    ParameterList second;
    EXPECT_EQ(13, decodeExact(second, Bytes{0x02, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 'c', 'd', 0x00, 'N'}, 11));
    EXPECT_EQ("a=1;bcd=INV;", entries(second));
}

TEST(ParameterList, NameEndingOneBeyondSizeLastInTheCount) {
    // The count runs out with that entry: nothing is read after its tag, which makes "xy" an
    // empty string (the string reader at size -1 refuses, with the type taken).
    ParameterList list;
    EXPECT_EQ(4, decodeExact(list, Bytes{0x01, 'x', 'y', 0x00, 'S'}, 3));
    int i = -1;
    EXPECT_FALSE(list.getParam("xy", i));  // a string, not a number
    std::string text = "unset";
    EXPECT_TRUE(list.getParam("xy", text));
    EXPECT_EQ("", text);
}

TEST(ParameterList, ValueFailureStillStoresTheEntry) {
    // "v" holds an integer cut short: stored with the type it read and a zero payload.
    ParameterList list;
    EXPECT_EQ(3, decodePublic(list, Bytes{0x01, 'v', 0, 0x49, 1, 2, 3}));
    EXPECT_EQ("v=0;", entries(list));
    int i = -1;
    EXPECT_TRUE(list.getParam("v", i));
    EXPECT_EQ(0, i);
}

TEST(ParameterList, DecodeMergesIntoExistingEntries) {
    ParameterList list;
    list.addString("a", "old");
    list.addString("c", "kept");
    EXPECT_EQ(12, decodePublic(list, Bytes{0x02, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 0, 0x42, 1, 0}));
    EXPECT_EQ("a=1;b=ON;c=kept;", entries(list));
}

TEST(ParameterList, NegativeCountDecodesOnUntilANameFails) {
    // Count byte 0xFF is -1: after both entries the scan goes on into the spare byte.
    ParameterList list;
    EXPECT_EQ(0, decodePublic(list, Bytes{0xFF, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 0, 0x42, 1, 'z'}));
    EXPECT_EQ("a=1;b=ON;", entries(list));

    // Count 0x80 with a NUL as the byte beyond size: an empty name is accepted there, its value is
    // decoded at size -1 (the tag 'Z' is taken and consumed), and the next name fails.
    ParameterList other;
    EXPECT_EQ(0, decodeExact(other, Bytes{0x80, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 0, 0x42, 1, 0x00, 'Z'}, 12));
    EXPECT_EQ("=INV;a=1;b=ON;", entries(other));
    ParameterList flag;
    EXPECT_EQ(0, decodeExact(flag, Bytes{0x80, 'a', 0, 0x49, 1, 0, 0, 0, 'b', 0, 0x42, 1, 0x00, 'B'}, 12));
    EXPECT_EQ("=OFF;a=1;b=ON;", entries(flag));
}

TEST(ParameterList, CountByteAbove127ComesFromUnsignedWriting) {
    ParameterList list;
    char name[16];
    for (int i = 0; i < 130; ++i) {
        std::snprintf(name, sizeof name, "n%03d", i);
        list.addNumeric(name, i);
    }
    int result = 0;
    const Bytes bytes = encode(list, 4096, &result);
    ASSERT_EQ(1 + 130 * (5 + 5), result);
    EXPECT_EQ(0x82, bytes[0]);
    // Read back as -126: every entry decodes, then the spare byte fails as a name.
    Bytes withSpare = bytes;
    withSpare.push_back('q');
    ParameterList decoded;
    EXPECT_EQ(0, decodePublic(decoded, withSpare));
    int value = -1;
    EXPECT_TRUE(decoded.getParam("n129", value));
    EXPECT_EQ(129, value);
    std::string n;
    std::string v;
    EXPECT_TRUE(decoded.getParam(129u, n, v));
    EXPECT_FALSE(decoded.getParam(130u, n, v));
}

TEST(ParameterList, TwoHundredFiftySixEntriesAnnounceNone) {
    ParameterList list;
    char name[16];
    for (int i = 0; i < 256; ++i) {
        std::snprintf(name, sizeof name, "%03d", i);
        list.addBoolean(name, (i & 1) != 0);
    }
    int result = 0;
    const Bytes bytes = encode(list, 8192, &result);
    ASSERT_EQ(1 + 256 * (4 + 2), result);
    EXPECT_EQ(0x00, bytes[0]);
    Bytes withSpare = bytes;
    withSpare.push_back(0);
    ParameterList decoded;
    EXPECT_EQ(1, decodePublic(decoded, withSpare));
    EXPECT_EQ("", entries(decoded));
}

TEST(ParameterList, DecodeSizeZeroAndNegative) {
    ParameterList list;
    list.addNumeric("k", 1);
    std::vector<char> bytes{0x01, 'a', 0, 0x4E};
    EXPECT_EQ(0, list.createFromBinary(bytes.data(), 0));
    EXPECT_EQ(0, list.createFromBinary(bytes.data(), -1));
    // With readable memory the count is read, but a negative size refuses every name.
    EXPECT_EQ(0, list.createFromBinary(bytes.data(), -5, 4));
    EXPECT_EQ("k=1;", entries(list));
    // A zero count is still answered with 1 at a negative size when its byte can be read.
    std::vector<char> zero{0x00};
    EXPECT_EQ(1, list.createFromBinary(zero.data(), -2, 1));
}

// Only size 0 returns before the count is read: at a negative size the public form reads the count
// byte (and nothing else), so a zero count gives 1 and any other count refuses its first name.
TEST(ParameterList, NegativeSizeReadsTheCountThroughThePublicForm) {
    ParameterList list;
    list.addNumeric("k", 1);
    EXPECT_EQ(1, decodeExact(list, Bytes{0x00}, -1));
    EXPECT_EQ(1, decodeExact(list, Bytes{0x00}, INT_MIN));
    EXPECT_EQ(0, decodeExact(list, Bytes{0x01}, -1));
    EXPECT_EQ(0, decodeExact(list, Bytes{0x80}, -3));
    EXPECT_EQ("k=1;", entries(list));
}

TEST(ParameterList, CopiesAreIndependent) {
    ParameterList list = sampleList();
    ParameterList copy = list;
    copy.addNumeric("a", 9);
    EXPECT_EQ("a=1;b=ON;", entries(list));
    EXPECT_EQ("a=9;b=ON;", entries(copy));
}

TEST(ParameterList, RandomRoundTrips) {
    std::mt19937 rng(77031u);
    std::uniform_int_distribution<int> entriesCount(0, 30);
    std::uniform_int_distribution<int> nameLength(0, 6);
    std::uniform_int_distribution<int> nameByte(1, 255);
    std::uniform_int_distribution<int> kind(0, 3);
    for (int round = 0; round < 500; ++round) {
        ParameterList list;
        const int count = entriesCount(rng);
        for (int k = 0; k < count; ++k) {
            std::string name;
            const int len = nameLength(rng);
            for (int c = 0; c < len; ++c) {
                name.push_back(static_cast<char>(nameByte(rng)));
            }
            switch (kind(rng)) {
                case 0:
                    list.addNumeric(name, static_cast<int>(rng()));
                    break;
                case 1:
                    list.addBoolean(name, (rng() & 1u) != 0);
                    break;
                case 2:
                    list.addFloat(name, static_cast<float>(static_cast<int>(rng() % 20001) - 10000) / 8.0f);
                    break;
                default:
                    list.addString(name, name + "!");
                    break;
            }
        }
        int result = 0;
        const Bytes bytes = encode(list, 2048, &result);
        ASSERT_GT(result, 0);
        Bytes withSpare = bytes;
        withSpare.push_back(static_cast<std::uint8_t>(rng()));
        ParameterList decoded;
        ASSERT_EQ(result, decodePublic(decoded, withSpare));
        ASSERT_EQ(entries(list), entries(decoded));
        ASSERT_EQ(printed(list), printed(decoded));
        ASSERT_EQ(hex(bytes), hex(encode(decoded, 2048)));
    }
}
