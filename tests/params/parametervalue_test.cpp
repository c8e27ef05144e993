// ParameterValue: construction, typed getters, text form and the binary encoding byte for byte.
#include <gtest/gtest.h>

#include <parameterlist.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "testsupport.h"

using testsupport::Bytes;
using testsupport::hex;

namespace {

// Encodes into a buffer pre-filled with 0xAA and returns the bytes the result counts, plus the
// untouched-or-not state of the whole buffer through `whole`.
Bytes encode(const ParameterValue& value, int size, int* result = nullptr, Bytes* whole = nullptr) {
    std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 0) + 8, static_cast<char>(0xAA));
    const int n = value.getBinaryValue(buffer.data(), size);
    if (result != nullptr) {
        *result = n;
    }
    if (whole != nullptr) {
        whole->assign(buffer.begin(), buffer.end());
    }
    return Bytes(buffer.begin(), buffer.begin() + n);
}

// Decodes from a heap copy holding exactly the given bytes, so that AddressSanitizer catches any read
// beyond them.
int decode(ParameterValue& value, const Bytes& bytes, int size) {
    std::vector<char> exact(bytes.begin(), bytes.end());
    return value.createFromBinary(exact.data(), size, static_cast<int>(exact.size()));
}

// The two-argument form from a heap buffer of exactly size + 1 bytes.
int decodePublic(ParameterValue& value, const Bytes& bytes) {
    std::vector<char> exact(bytes.begin(), bytes.end());
    return value.createFromBinary(exact.data(), static_cast<int>(exact.size()) - 1);
}

std::string floatText(float f) {
    return ParameterValue(f).getAsString();
}

}  // namespace

static_assert(std::is_copy_constructible<ParameterValue>::value &&
                  std::is_copy_assignable<ParameterValue>::value,
              "values are passed and stored by value");

TEST(ParameterValue, DefaultIsNoneInvAndEncodesAsItsTag) {
    ParameterValue value;
    EXPECT_EQ(TYPE_NONE, value.getType());
    EXPECT_EQ("INV", value.getAsString());
    int result = -1;
    EXPECT_EQ("4e", hex(encode(value, 16, &result)));
    EXPECT_EQ(1, result);

    ParameterValue decoded(42);
    EXPECT_EQ(1, decode(decoded, Bytes{0x4E}, 1));
    EXPECT_EQ(TYPE_NONE, decoded.getType());
    EXPECT_EQ("INV", decoded.getAsString());
}

TEST(ParameterValue, ConstructorsSetTypeAndPayload) {
    EXPECT_EQ(TYPE_STRING, ParameterValue("abc").getType());
    EXPECT_EQ("abc", ParameterValue("abc").getAsString());
    EXPECT_EQ(TYPE_STRING, ParameterValue(std::string("xyz")).getType());
    EXPECT_EQ(TYPE_INT, ParameterValue(3).getType());
    EXPECT_EQ(TYPE_BOOL, ParameterValue(true).getType());
    EXPECT_EQ(TYPE_FLOAT, ParameterValue(2.0f).getType());
    // The std::string constructor keeps every byte, embedded NULs included.
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(withNul, ParameterValue(withNul).getAsString());
    // The C-string constructor stops at the NUL.
    EXPECT_EQ("a", ParameterValue("a\0b").getAsString());
}

TEST(ParameterValue, NullCStringIsRefusedWithLogicError) {
    const char* none = nullptr;
    EXPECT_THROW(ParameterValue{none}, std::logic_error);
}

TEST(ParameterValue, TextForms) {
    EXPECT_EQ("ON", ParameterValue(true).getAsString());
    EXPECT_EQ("OFF", ParameterValue(false).getAsString());
    EXPECT_EQ("-7", ParameterValue(-7).getAsString());
    EXPECT_EQ("42", ParameterValue(42).getAsString());
    EXPECT_EQ("0", ParameterValue(0).getAsString());
    EXPECT_EQ("-2147483648", ParameterValue(std::numeric_limits<int>::min()).getAsString());
    EXPECT_EQ("2147483647", ParameterValue(std::numeric_limits<int>::max()).getAsString());
    EXPECT_EQ("0.5", ParameterValue(0.5f).getAsString());
    EXPECT_EQ("", ParameterValue("").getAsString());
}

TEST(ParameterValue, FloatTextFormsAreThoseOfADefaultStreamOnTheDouble) {
    EXPECT_EQ("1.5", floatText(1.5f));
    EXPECT_EQ("0.1", floatText(0.1f));
    EXPECT_EQ("1.23457e+06", floatText(1234567.0f));
    EXPECT_EQ("1e+07", floatText(10000000.0f));
    EXPECT_EQ("1", floatText(1.0f));
    EXPECT_EQ("0", floatText(0.0f));
    EXPECT_EQ("-0", floatText(-0.0f));
    EXPECT_EQ("-2.5", floatText(-2.5f));
    EXPECT_EQ("-0.001", floatText(-0.001f));
    EXPECT_EQ("100000", floatText(100000.0f));
    EXPECT_EQ("1e+06", floatText(1000000.0f));
    EXPECT_EQ("0.0001", floatText(0.0001f));
    EXPECT_EQ("1e-05", floatText(0.00001f));
    EXPECT_EQ("3.14159", floatText(3.14159265f));
    // Widened, 0.3f shows its single-precision error only past the sixth digit.
    EXPECT_EQ("0.3", floatText(0.3f));
    EXPECT_EQ("3.40282e+38", floatText(std::numeric_limits<float>::max()));
    EXPECT_EQ("1.17549e-38", floatText(std::numeric_limits<float>::min()));
    EXPECT_EQ("1.4013e-45", floatText(std::numeric_limits<float>::denorm_min()));
    EXPECT_EQ("inf", floatText(std::numeric_limits<float>::infinity()));
    EXPECT_EQ("-inf", floatText(-std::numeric_limits<float>::infinity()));
    EXPECT_EQ("nan", floatText(std::numeric_limits<float>::quiet_NaN()));
    EXPECT_EQ("-nan", floatText(-std::numeric_limits<float>::quiet_NaN()));
}

TEST(ParameterValue, TypedGettersAnswerOnlyForTheirOwnType) {
    float f = 9.5f;
    EXPECT_FALSE(ParameterValue(5).getFloatValue(f));
    EXPECT_EQ(9.5f, f);
    bool b = true;
    EXPECT_FALSE(ParameterValue(1).getBooleanValue(b));
    EXPECT_TRUE(b);
    int i = 77;
    EXPECT_FALSE(ParameterValue(1.0f).getIntValue(i));
    EXPECT_FALSE(ParameterValue(true).getIntValue(i));
    EXPECT_FALSE(ParameterValue("5").getIntValue(i));
    EXPECT_FALSE(ParameterValue().getIntValue(i));
    EXPECT_EQ(77, i);

    EXPECT_TRUE(ParameterValue(-12).getIntValue(i));
    EXPECT_EQ(-12, i);
    EXPECT_TRUE(ParameterValue(false).getBooleanValue(b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(ParameterValue(0.25f).getFloatValue(f));
    EXPECT_EQ(0.25f, f);
}

TEST(ParameterValue, IntegerAndFloatBytes) {
    EXPECT_EQ("49 01 00 00 00", hex(encode(ParameterValue(1), 5)));
    EXPECT_EQ("46 00 00 80 3f", hex(encode(ParameterValue(1.0f), 6)));
    EXPECT_EQ("49 ff ff ff ff", hex(encode(ParameterValue(-1), 5)));
    EXPECT_EQ("49 78 56 34 12", hex(encode(ParameterValue(0x12345678), 5)));
    EXPECT_EQ("42 01", hex(encode(ParameterValue(true), 2)));
    EXPECT_EQ("42 00", hex(encode(ParameterValue(false), 2)));
    EXPECT_EQ("53 61 62 00", hex(encode(ParameterValue("ab"), 4)));
}

TEST(ParameterValue, RoomNeededByEachType) {
    int result = -1;
    Bytes whole;
    // Integer: exactly 5.
    encode(ParameterValue(1), 5, &result);
    EXPECT_EQ(5, result);
    encode(ParameterValue(1), 4, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x49, whole[0]);  // tag written before the refusal
    EXPECT_EQ(0xAA, whole[1]);
    // Float: 6, although it writes 5.
    encode(ParameterValue(1.0f), 6, &result);
    EXPECT_EQ(5, result);
    encode(ParameterValue(1.0f), 5, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x46, whole[0]);
    EXPECT_EQ(0xAA, whole[1]);
    // Boolean: 2.
    encode(ParameterValue(true), 2, &result);
    EXPECT_EQ(2, result);
    encode(ParameterValue(true), 1, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x42, whole[0]);
    EXPECT_EQ(0xAA, whole[1]);
    // String: length + 2.
    encode(ParameterValue("abc"), 5, &result);
    EXPECT_EQ(5, result);
    encode(ParameterValue("abc"), 4, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x53, whole[0]);
    EXPECT_EQ(0xAA, whole[1]);
}

TEST(ParameterValue, EmptyStringEncodesAsTagAndNul) {
    int result = -1;
    EXPECT_EQ("53 00", hex(encode(ParameterValue(""), 2, &result)));
    EXPECT_EQ(2, result);
    Bytes whole;
    encode(ParameterValue(""), 1, &result, &whole);
    EXPECT_EQ(0, result);
    EXPECT_EQ(0x53, whole[0]);
    EXPECT_EQ(0xAA, whole[1]);
}

TEST(ParameterValue, NoRoomWritesNothing) {
    for (int size : {0, -1, -100}) {
        int result = -1;
        Bytes whole;
        encode(ParameterValue(1), size, &result, &whole);
        EXPECT_EQ(0, result);
        EXPECT_EQ(0xAA, whole[0]) << size;
    }
}

TEST(ParameterValue, ForeignTypeEncodesItsTagAlone) {
    ParameterValue value;
    ASSERT_EQ(1, decode(value, Bytes{0x5A}, 1));
    EXPECT_EQ(90, value.getType());
    EXPECT_EQ("INV", value.getAsString());
    EXPECT_EQ("5a", hex(encode(value, 1)));

    ASSERT_EQ(1, decode(value, Bytes{0xC8}, 1));
    EXPECT_EQ(-56, value.getType());
    EXPECT_EQ("INV", value.getAsString());
    EXPECT_EQ("c8", hex(encode(value, 4)));
}

TEST(ParameterValue, DecodesEachType) {
    ParameterValue value;
    int i = 0;
    EXPECT_EQ(5, decode(value, Bytes{0x49, 0xFE, 0xFF, 0xFF, 0xFF}, 5));
    ASSERT_TRUE(value.getIntValue(i));
    EXPECT_EQ(-2, i);

    float f = 0.0f;
    EXPECT_EQ(5, decode(value, Bytes{0x46, 0x00, 0x00, 0xC0, 0x3F}, 5));
    ASSERT_TRUE(value.getFloatValue(f));
    EXPECT_EQ(1.5f, f);
    EXPECT_EQ("1.5", value.getAsString());

    EXPECT_EQ(4, decode(value, Bytes{0x53, 'h', 'i', 0x00}, 4));
    EXPECT_EQ(TYPE_STRING, value.getType());
    EXPECT_EQ("hi", value.getAsString());
}

TEST(ParameterValue, IntegerAndFloatReadWithFiveBytes) {
    ParameterValue value;
    EXPECT_EQ(0, decode(value, Bytes{0x49, 1, 0, 0, 0}, 4));
    EXPECT_EQ(TYPE_INT, value.getType());
    // Reading a float asks for 5 bytes, although writing one asked for 6.
    EXPECT_EQ(5, decode(value, Bytes{0x46, 0, 0, 0x80, 0x3F}, 5));
    EXPECT_EQ(0, decode(value, Bytes{0x46, 0, 0, 0x80, 0x3F}, 4));
}

TEST(ParameterValue, BooleanAcceptsAnyNonZeroByteAndAlwaysConsumesTwo) {
    for (int byte : {1, 2, 0x7F, 0x80, 0xFF}) {
        ParameterValue value;
        EXPECT_EQ(2, decode(value, Bytes{0x42, static_cast<std::uint8_t>(byte)}, 2));
        bool b = false;
        ASSERT_TRUE(value.getBooleanValue(b));
        EXPECT_TRUE(b) << byte;
    }
    ParameterValue value(true);
    EXPECT_EQ(2, decode(value, Bytes{0x42, 0x00}, 2));
    EXPECT_EQ("OFF", value.getAsString());
}

TEST(ParameterValue, BooleanReadsTheByteJustPastSize) {
    // Public form: size 1, the value byte is the one extra readable byte.
    ParameterValue value;
    EXPECT_EQ(2, decodePublic(value, Bytes{0x42, 0x01}));
    EXPECT_EQ("ON", value.getAsString());
    // With that byte out of reach it reads as false and still consumes 2.
    ParameterValue other(true);
    std::vector<char> one{0x42};
    EXPECT_EQ(2, other.createFromBinary(one.data(), 1, 1));
    EXPECT_EQ(TYPE_BOOL, other.getType());
    EXPECT_EQ("OFF", other.getAsString());
}

TEST(ParameterValue, StringNulMayLieOneByteBeyondSize) {
    const Bytes bytes{0x53, 'a', 'b', 0x00};
    ParameterValue value;
    EXPECT_EQ(4, decode(value, bytes, 3));
    EXPECT_EQ("ab", value.getAsString());

    ParameterValue refused(7);
    EXPECT_EQ(0, decode(refused, bytes, 2));
    EXPECT_EQ(TYPE_STRING, refused.getType());
    EXPECT_EQ("", refused.getAsString());  // the string field is still the empty one

    // Public form with a heap buffer of size + 1 bytes: the NUL is the extra byte.
    ParameterValue viaPublic;
    EXPECT_EQ(4, decodePublic(viaPublic, bytes));
    EXPECT_EQ("ab", viaPublic.getAsString());
}

TEST(ParameterValue, StringWithoutNulInReachIsRefusedWithoutReadingFurther) {
    // Exactly size + 1 bytes on the heap and no NUL among them.
    ParameterValue value;
    EXPECT_EQ(0, decodePublic(value, Bytes{0x53, 'a', 'b', 'c'}));
    EXPECT_EQ(TYPE_STRING, value.getType());
    EXPECT_EQ(0, decode(value, Bytes{0x53, 'a'}, 100));
    EXPECT_EQ(0, decode(value, Bytes{0x53}, 1));
}

TEST(ParameterValue, EmbeddedNulEncodesWholeAndDecodesShort) {
    const std::string text("ab\0cd", 5);
    int result = 0;
    const Bytes encoded = encode(ParameterValue(text), 16, &result);
    EXPECT_EQ(7, result);
    EXPECT_EQ("53 61 62 00 63 64 00", hex(encoded));

    ParameterValue decoded;
    EXPECT_EQ(4, decode(decoded, encoded, 7));
    EXPECT_EQ("ab", decoded.getAsString());
}

TEST(ParameterValue, RefusedDecodeKeepsNewTypeWithStalePayload) {
    ParameterValue value(5);
    EXPECT_EQ(0, decode(value, Bytes{0x46, 0, 0}, 3));
    EXPECT_EQ(TYPE_FLOAT, value.getType());
    float f = 1.0f;
    ASSERT_TRUE(value.getFloatValue(f));
    EXPECT_EQ(0.0f, f);
    // Back to integer with too few bytes: the old integer payload shows again.
    EXPECT_EQ(0, decode(value, Bytes{0x49, 9, 9}, 3));
    int i = 0;
    ASSERT_TRUE(value.getIntValue(i));
    EXPECT_EQ(5, i);
}

TEST(ParameterValue, SizeZeroChangesNothing) {
    ParameterValue value(5);
    std::vector<char> tag{0x53, 0x00};
    EXPECT_EQ(0, value.createFromBinary(tag.data(), 0));
    EXPECT_EQ(TYPE_INT, value.getType());
    EXPECT_EQ(0, value.createFromBinary(tag.data(), 0, 2));
    EXPECT_EQ(TYPE_INT, value.getType());
}

TEST(ParameterValue, NegativeSizes) {
    // With memory behind the buffer the tag is still read; each type applies its own test.
    ParameterValue value(5);
    EXPECT_EQ(1, decode(value, Bytes{0x4E}, -3));
    EXPECT_EQ(TYPE_NONE, value.getType());
    EXPECT_EQ(0, decode(value, Bytes{0x42, 0x01}, -1));
    EXPECT_EQ(TYPE_BOOL, value.getType());
    EXPECT_EQ(0, decode(value, Bytes{0x53, 0x00}, -1));
    EXPECT_EQ(TYPE_STRING, value.getType());
    EXPECT_EQ(0, decode(value, Bytes{0x49, 1, 2, 3, 4}, -1));
    EXPECT_EQ(TYPE_INT, value.getType());

    // A tag out of reach fails and leaves the value as it was.
    ParameterValue untouched(7);
    std::vector<char> none;
    EXPECT_EQ(0, untouched.createFromBinary(none.data(), -1, 0));
    EXPECT_EQ(0, untouched.createFromBinary(none.data(), 5, 0));
    int i = 0;
    ASSERT_TRUE(untouched.getIntValue(i));
    EXPECT_EQ(7, i);
}

// Only size 0 returns before the tag. At a negative size the public form takes the tag as the type
// and reads nothing else: each decode below reads from a heap copy of the tag byte alone.
TEST(ParameterValue, NegativeSizeTakesTheTagThroughThePublicForm) {
    struct Case {
        std::uint8_t tag;
        int size;
        int result;
    };
    const Case cases[] = {
        {0x42, -1, 0},  // boolean: refused at a negative size
        {0x5A, -1, 1},  // foreign tag: 1, the type alone changes
        {0xC8, -7, 1},  // foreign tag above 127, sign-extended
        {0x4E, -1, 1},  // none
        {0x49, -1, 0},  // integer: no room
        {0x46, -2, 0},  // float: no room
        {0x53, -1, 0},  // string: no room for any text
        {0x42, INT_MIN, 0}, {0x5A, INT_MIN, 1},
    };
    for (const Case& c : cases) {
        ParameterValue value(7);
        std::unique_ptr<char[]> tag(new char[1]);
        tag[0] = static_cast<char>(c.tag);
        EXPECT_EQ(c.result, value.createFromBinary(tag.get(), c.size)) << int(c.tag) << " " << c.size;
        EXPECT_EQ(static_cast<std::int8_t>(c.tag), value.getType()) << int(c.tag);
    }

    // The payload fields stay as they were: a refused boolean answers with the old payload.
    ParameterValue flag(true);
    std::unique_ptr<char[]> intTag(new char[1]);
    intTag[0] = 0x49;
    EXPECT_EQ(0, flag.createFromBinary(intTag.get(), -1));
    int i = -1;
    ASSERT_TRUE(flag.getIntValue(i));
    EXPECT_EQ(0, i);
    EXPECT_EQ("0", flag.getAsString());
}

TEST(ParameterValue, FixedPayloadOutOfReachIsRefused) {
    // `size` overstating the readable memory: the integer's bytes are not read.
    ParameterValue value(3);
    EXPECT_EQ(0, decode(value, Bytes{0x49, 1, 2}, 50));
    EXPECT_EQ(0, decode(value, Bytes{0x46, 1, 2, 3}, 50));
}

TEST(ParameterValue, CopiesAreIndependent) {
    ParameterValue original("text");
    ParameterValue copy = original;
    copy = ParameterValue(3);
    EXPECT_EQ("text", original.getAsString());
    EXPECT_EQ("3", copy.getAsString());
}

TEST(ParameterValue, RandomRoundTrips) {
    std::mt19937 rng(20240611u);
    std::uniform_int_distribution<int> kind(0, 4);
    std::uniform_int_distribution<int> byte(1, 255);
    std::uniform_int_distribution<int> length(0, 40);
    for (int round = 0; round < 5000; ++round) {
        ParameterValue value;
        switch (kind(rng)) {
            case 0:
                value = ParameterValue(static_cast<int>(rng()));
                break;
            case 1: {
                const std::uint32_t bits = rng();
                float f;
                std::memcpy(&f, &bits, sizeof f);
                value = ParameterValue(f);
                break;
            }
            case 2:
                value = ParameterValue((rng() & 1u) != 0);
                break;
            case 3: {
                std::string s;
                const int n = length(rng);
                for (int k = 0; k < n; ++k) {
                    s.push_back(static_cast<char>(byte(rng)));
                }
                value = ParameterValue(s);
                break;
            }
            default:
                break;
        }
        int result = 0;
        const Bytes encoded = encode(value, 64, &result);
        ASSERT_GT(result, 0);
        ParameterValue decoded;
        // Exactly the encoded bytes as size, one more readable, as the public form asks.
        Bytes withSpare = encoded;
        withSpare.push_back(0x00);
        ASSERT_EQ(result, decodePublic(decoded, withSpare)) << hex(encoded);
        ASSERT_EQ(value.getType(), decoded.getType());
        if (value.getType() == TYPE_FLOAT) {
            float a = 0.0f;
            float b = 0.0f;
            value.getFloatValue(a);
            decoded.getFloatValue(b);
            ASSERT_EQ(0, std::memcmp(&a, &b, sizeof a));
        } else {
            ASSERT_EQ(value.getAsString(), decoded.getAsString());
        }
        ASSERT_EQ(hex(encoded), hex(encode(decoded, 64)));
    }
}
