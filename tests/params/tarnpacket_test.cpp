// TARNPacket: header layout, appends with their room rule, validation order and the body reader,
// including what a reused receive packet reads from the stale bytes behind a shorter message.
#include <gtest/gtest.h>

#include <tarnpacket.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "testsupport.h"

using testsupport::Bytes;
using testsupport::hex;
using testsupport::LogCapture;
namespace Log = Corvane::Utilities::Logging;

namespace {

Bytes packetBytes(const TARNPacket& packet) {
    return Bytes(packet.m_buffer, packet.m_buffer + packet.m_length);
}

// What a receive loop does with one message: copy it into the buffer, rewind, validate.
bool receive(TARNPacket& packet, const Bytes& message) {
    std::memcpy(packet.m_buffer, message.data(), message.size());
    packet.m_readPos = TARNPacket::HEADER_LENGTH;
    return packet.validatePacket(static_cast<unsigned int>(message.size()));
}

const char kTooShort[] = "TARN: packet validation failed: header too short";
const char kWrongVersion[] = "TARN: packet validation failed: wrong version";
const char kWrongSize[] = "TARN: packet validation failed: wrong packet size";
const char kUnterminated[] = "TARN: unterminated string in packet";
const char kBadValue[] = "TARN: failed to parse parameter value";
const char kBadList[] = "TARN: failed to parse parameter list";

}  // namespace

// Built on the stack, never copied (its header pointer points into its own buffer), no heap.
static_assert(!std::is_copy_constructible<TARNPacket>::value, "a packet is never copied");
static_assert(!std::is_copy_assignable<TARNPacket>::value, "a packet is never assigned");
static_assert(std::is_trivially_destructible<TARNPacket>::value, "a packet owns no heap memory");
static_assert(sizeof(TARNHeader) == 4, "the header overlays the buffer's first 4 bytes");
static_assert(std::is_same<decltype(TARNHeader::length), std::uint16_t>::value,
              "the length is a 16-bit number");
static_assert(std::is_same<decltype(TARNHeader::version), std::uint8_t>::value &&
                  std::is_same<decltype(TARNHeader::command), std::uint8_t>::value,
              "version and command are bytes");
static_assert(std::is_standard_layout<TARNHeader>::value && std::is_trivially_copyable<TARNHeader>::value,
              "the header is a plain structure");

TEST(TARNPacket, FreshPacketIsItsHeader) {
    TARNPacket packet(CMD_SUBSCRIBE);
    EXPECT_EQ("01 53 00 00", hex(packetBytes(packet)));
    EXPECT_EQ(4u, packet.m_length);
    EXPECT_EQ(4u, packet.m_readPos);
    EXPECT_EQ(static_cast<void*>(packet.m_buffer), static_cast<void*>(packet.m_pHeader));

    TARNPacket empty;
    EXPECT_EQ("01 00 00 00", hex(packetBytes(empty)));
    EXPECT_EQ(4u, empty.m_length);
    EXPECT_EQ(4u, empty.m_readPos);
    EXPECT_EQ(static_cast<void*>(empty.m_buffer), static_cast<void*>(empty.m_pHeader));
    EXPECT_EQ(0u, empty.m_pHeader->command);
    EXPECT_EQ(1u, empty.m_pHeader->version);
}

TEST(TARNPacket, CommandLetters) {
    EXPECT_EQ('F', CMD_CALL_FUNCTION);
    EXPECT_EQ('S', CMD_SUBSCRIBE);
    EXPECT_EQ('T', CMD_TRIGGER);
    EXPECT_EQ('U', CMD_UPDATE_STATE);
    EXPECT_EQ('X', CMD_UNSUBSCRIBE);
    EXPECT_EQ(4u, sizeof(TARNHeader));
    TARNPacket unknown(static_cast<ETARNCommand>('G'));
    EXPECT_EQ("01 47 00 00", hex(packetBytes(unknown)));
}

TEST(TARNPacket, HeaderLengthIsALittleEndianNumber) {
    TARNPacket packet(CMD_TRIGGER);
    packet.m_pHeader->length = 0x1234;
    EXPECT_EQ(0x34, packet.m_buffer[2]);
    EXPECT_EQ(0x12, packet.m_buffer[3]);
    packet.m_buffer[2] = 0xCD;
    packet.m_buffer[3] = 0x05;
    EXPECT_EQ(0x05CD, packet.m_pHeader->length);
    // An ordinary unsigned number: arithmetic and comparison as an application would use it.
    const unsigned int total = packet.m_pHeader->length + TARNPacket::HEADER_LENGTH;
    EXPECT_EQ(0x05D1u, total);
    packet.m_pHeader->length += 1;
    EXPECT_EQ("ce 05", hex(Bytes(packet.m_buffer + 2, packet.m_buffer + 4)));
    // The accessors reach the same field.
    EXPECT_EQ(0x05CE, packet.m_pHeader->getLength());
    packet.m_pHeader->setLength(0x0102);
    EXPECT_EQ(0x0102, packet.m_pHeader->length);
    EXPECT_EQ("02 01", hex(Bytes(packet.m_buffer + 2, packet.m_buffer + 4)));
}

TEST(TARNPacket, HeaderLengthFollowsAppendsAndValidation) {
    TARNPacket packet(CMD_TRIGGER);
    EXPECT_EQ(0, packet.m_pHeader->length);
    ASSERT_TRUE(packet.appendString("A"));
    ASSERT_TRUE(packet.appendParamValue(ParameterValue(1)));
    EXPECT_EQ(7, packet.m_pHeader->length);
    EXPECT_EQ("01 54 07 00 41 00 49 01 00 00 00", hex(packetBytes(packet)));

    // A length written through the field is what validation checks a received size against.
    TARNPacket received;
    std::memcpy(received.m_buffer, packet.m_buffer, packet.m_length);
    received.m_pHeader->length = 300;
    EXPECT_FALSE(received.validatePacket(packet.m_length));
    EXPECT_TRUE(received.validatePacket(304));
    received.m_pHeader->length = 7;
    EXPECT_TRUE(received.validatePacket(11));
}

TEST(TARNPacket, AppendStringAbc) {
    TARNPacket packet(CMD_SUBSCRIBE);
    EXPECT_TRUE(packet.appendString("abc"));
    EXPECT_EQ(4, packet.m_pHeader->length);
    EXPECT_EQ(8u, packet.m_length);
    EXPECT_EQ("01 53 04 00 61 62 63 00", hex(packetBytes(packet)));
}

TEST(TARNPacket, EmptyNameAddsOneNul) {
    TARNPacket packet(CMD_UNSUBSCRIBE);
    EXPECT_TRUE(packet.appendString(""));
    EXPECT_EQ("01 58 01 00 00", hex(packetBytes(packet)));
}

TEST(TARNPacket, StringKeepsEmbeddedNuls) {
    TARNPacket packet(CMD_SUBSCRIBE);
    EXPECT_TRUE(packet.appendString(std::string("a\0b", 3)));
    EXPECT_EQ("01 53 04 00 61 00 62 00", hex(packetBytes(packet)));
}

TEST(TARNPacket, LongestStringFitsAndOneMoreIsRefused) {
    LogCapture log;
    TARNPacket fits(CMD_SUBSCRIBE);
    EXPECT_TRUE(fits.appendString(std::string(1487, 'x')));
    EXPECT_EQ(1492u, fits.m_length);
    EXPECT_EQ(1488, fits.m_pHeader->length);
    EXPECT_EQ(0, fits.m_buffer[1491]);

    TARNPacket refused(CMD_SUBSCRIBE);
    EXPECT_FALSE(refused.appendString(std::string(1488, 'x')));
    EXPECT_EQ(4u, refused.m_length);
    EXPECT_EQ(0, refused.m_pHeader->length);
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (1489) exceeds max length (1488)"))
        << log.dump();
    EXPECT_EQ(1u, log.lines().size());
    EXPECT_EQ("TARN", log.lines()[0].category);

    // A full packet refuses even an empty string.
    EXPECT_FALSE(fits.appendString(""));
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (1) exceeds max length (0)"));
    EXPECT_EQ(1492u, fits.m_length);
}

TEST(TARNPacket, AppendDataAsksForOneSpareByte) {
    LogCapture log;
    const std::vector<char> data(1488, 'd');
    TARNPacket refused(CMD_TRIGGER);
    EXPECT_FALSE(refused.appendData(data.data(), 1488));
    EXPECT_EQ(4u, refused.m_length);
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (1489) exceeds max length (1488)"));

    TARNPacket accepted(CMD_TRIGGER);
    EXPECT_TRUE(accepted.appendData(data.data(), 1487));
    EXPECT_EQ(1491u, accepted.m_length);
    EXPECT_EQ(1487, accepted.m_pHeader->length);
    // One byte left: data of 0 bytes asks for exactly that and is accepted.
    EXPECT_TRUE(accepted.appendData(nullptr, 0));
    EXPECT_EQ(1491u, accepted.m_length);
    // Full: even 0 bytes are refused, since they ask for 1.
    ASSERT_TRUE(accepted.appendString(""));
    EXPECT_EQ(1492u, accepted.m_length);
    EXPECT_FALSE(accepted.appendData(nullptr, 0));
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (1) exceeds max length (0)")) << log.dump();
    EXPECT_EQ(1492u, accepted.m_length);
}

TEST(TARNPacket, AppendDataWritesNoTerminator) {
    TARNPacket packet(CMD_TRIGGER);
    packet.m_buffer[7] = 0x77;
    EXPECT_TRUE(packet.appendData("xyz", 3));
    EXPECT_EQ("01 54 03 00 78 79 7a", hex(packetBytes(packet)));
    EXPECT_EQ(0x77, packet.m_buffer[7]);
}

TEST(TARNPacket, AppendDataWhoseSpareByteWrapsIsRefused) {
    LogCapture log;
    TARNPacket packet(CMD_TRIGGER);
    char byte = 'x';
    EXPECT_FALSE(packet.appendData(&byte, 0xFFFFFFFFu));
    EXPECT_EQ(4u, packet.m_length);
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (0) exceeds max length (1488)"))
        << log.dump();
}

TEST(TARNPacket, TriggerExample) {
    TARNPacket packet(CMD_TRIGGER);
    EXPECT_TRUE(packet.appendString("A"));
    EXPECT_TRUE(packet.appendParamValue(ParameterValue(1)));
    EXPECT_EQ(11u, packet.m_length);
    EXPECT_EQ("01 54 07 00 41 00 49 01 00 00 00", hex(packetBytes(packet)));
}

TEST(TARNPacket, AppendValueFollowsTheValueRoomRules) {
    LogCapture log;
    TARNPacket packet(CMD_UPDATE_STATE);
    ASSERT_TRUE(packet.appendData(std::string(1482, 'n').data(), 1482));
    ASSERT_EQ(1486u, packet.m_length);
    // Room 6: the float fits.
    EXPECT_TRUE(packet.appendParamValue(ParameterValue(2.0f)));
    EXPECT_EQ(1491u, packet.m_length);

    TARNPacket tight(CMD_UPDATE_STATE);
    ASSERT_TRUE(tight.appendData(std::string(1483, 'n').data(), 1483));
    // Room 5: a float is refused (its tag written but not counted), an integer fits exactly.
    EXPECT_FALSE(tight.appendParamValue(ParameterValue(2.0f)));
    EXPECT_EQ(1487u, tight.m_length);
    EXPECT_EQ(0x46, tight.m_buffer[1487]);
    EXPECT_TRUE(tight.appendParamValue(ParameterValue(-1)));
    EXPECT_EQ(1492u, tight.m_length);
    EXPECT_EQ(1488, tight.m_pHeader->length);
    EXPECT_FALSE(tight.appendParamValue(ParameterValue()));
    EXPECT_EQ(1492u, tight.m_length);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(TARNPacket, CallFunctionWithList) {
    TARNPacket packet(CMD_CALL_FUNCTION);
    ParameterList list;
    list.addBoolean("b", true);
    list.addNumeric("a", 1);
    EXPECT_TRUE(packet.appendString("f"));
    EXPECT_TRUE(packet.appendParamList(list));
    EXPECT_EQ("01 46 0e 00 66 00 02 61 00 49 01 00 00 00 62 00 42 01", hex(packetBytes(packet)));

    TARNPacket received;
    ASSERT_TRUE(receive(received, packetBytes(packet)));
    EXPECT_EQ(CMD_CALL_FUNCTION, received.m_pHeader->command);
    EXPECT_EQ("f", received.getString());
    ParameterList decoded;
    received.getParameterList(decoded);
    EXPECT_EQ(18u, received.m_readPos);
    std::string name;
    std::string value;
    ASSERT_TRUE(decoded.getParam(1u, name, value));
    EXPECT_EQ("b", name);
    EXPECT_EQ("ON", value);
}

TEST(TARNPacket, ListThatDoesNotFitItsFirstNameIsRefusedWithoutMessage) {
    LogCapture log;
    TARNPacket packet(CMD_CALL_FUNCTION);
    ASSERT_TRUE(packet.appendData(std::string(1486, 'n').data(), 1486));
    ParameterList list;
    list.addNumeric("abc", 1);
    EXPECT_FALSE(packet.appendParamList(list));
    EXPECT_EQ(1490u, packet.m_length);
    EXPECT_EQ(0x01, packet.m_buffer[1490]);  // the count byte went out
    EXPECT_TRUE(log.lines().empty());
    // An empty list takes its one byte.
    EXPECT_TRUE(packet.appendParamList(ParameterList()));
    EXPECT_EQ(1491u, packet.m_length);
}

TEST(TARNPacketDeathTest, ListWhoseValueDoesNotFitAborts) {
    TARNPacket packet(CMD_CALL_FUNCTION);
    ASSERT_TRUE(packet.appendData(std::string(1484, 'n').data(), 1484));
    ParameterList list;
    list.addNumeric("ab", 1);  // 1 count + 3 name bytes fill the 4 left
    EXPECT_DEATH(packet.appendParamList(list),
                 "source/parameterlist\\.cpp:[0-9]+: int ParameterList::getBinary\\(char\\*, int\\) const: "
                 "Assertion `false' failed\\.");
}

TEST(TARNPacket, EveryCommandRoundTrips) {
    TARNPacket subscribe(CMD_SUBSCRIBE);
    subscribe.appendString("item");
    TARNPacket unsubscribe(CMD_UNSUBSCRIBE);
    unsubscribe.appendString("item");
    TARNPacket update(CMD_UPDATE_STATE);
    update.appendString("state");
    update.appendParamValue(ParameterValue("on air"));
    TARNPacket trigger(CMD_TRIGGER);
    trigger.appendString("go");
    trigger.appendParamValue(ParameterValue(0.1f));

    TARNPacket received;
    ASSERT_TRUE(receive(received, packetBytes(subscribe)));
    EXPECT_EQ('S', received.m_pHeader->command);
    EXPECT_EQ("item", received.getString());
    ASSERT_TRUE(receive(received, packetBytes(unsubscribe)));
    EXPECT_EQ('X', received.m_pHeader->command);
    EXPECT_EQ("item", received.getString());
    ParameterValue value;
    ASSERT_TRUE(receive(received, packetBytes(update)));
    EXPECT_EQ('U', received.m_pHeader->command);
    EXPECT_EQ("state", received.getString());
    received.getParameterValue(value);
    EXPECT_EQ("on air", value.getAsString());
    ASSERT_TRUE(receive(received, packetBytes(trigger)));
    EXPECT_EQ('T', received.m_pHeader->command);
    EXPECT_EQ("go", received.getString());
    received.getParameterValue(value);
    EXPECT_EQ("0.1", value.getAsString());
    EXPECT_EQ(received.m_length, received.m_readPos);
}

TEST(TARNPacket, ValidationOfShortMessagesLooksAtTheVersionFirst) {
    for (unsigned int length = 0; length <= 3; ++length) {
        LogCapture log;
        TARNPacket packet;
        packet.m_buffer[0] = 1;
        EXPECT_FALSE(packet.validatePacket(length));
        EXPECT_EQ(length, packet.m_length);
        EXPECT_EQ(1, log.count(Log::eWarning, kTooShort)) << log.dump();
        EXPECT_EQ(1u, log.lines().size());

        packet.m_buffer[0] = 2;
        EXPECT_FALSE(packet.validatePacket(length));
        EXPECT_EQ(1, log.count(Log::eWarning, kWrongVersion)) << log.dump();
        packet.m_buffer[0] = 0;
        EXPECT_FALSE(packet.validatePacket(length));
        EXPECT_EQ(2, log.count(Log::eWarning, kWrongVersion));
        EXPECT_EQ(3u, log.lines().size());
    }
}

TEST(TARNPacket, ValidationComparesTheLengthField) {
    LogCapture log;
    TARNPacket packet;
    Bytes message{0x01, 0x54, 0x05, 0x00, 'a', 0, 'N', 0, 0, 0};
    EXPECT_FALSE(receive(packet, message));
    EXPECT_EQ(10u, packet.m_length);
    EXPECT_EQ(1, log.count(Log::eWarning, kWrongSize)) << log.dump();
    message[2] = 0x06;
    EXPECT_TRUE(receive(packet, message));
    EXPECT_EQ(1u, log.lines().size());
    // The length field is two bytes, low byte first.
    message[2] = 0x06;
    message[3] = 0x01;
    EXPECT_FALSE(receive(packet, message));
    EXPECT_EQ(2, log.count(Log::eWarning, kWrongSize));
    // A bare header with length 0 is a valid, empty message.
    EXPECT_TRUE(receive(packet, Bytes{0x01, 0x53, 0x00, 0x00}));
}

TEST(TARNPacket, ValidationIgnoresTheCommandByte) {
    LogCapture log;
    TARNPacket packet;
    EXPECT_TRUE(receive(packet, Bytes{0x01, 'G', 0x01, 0x00, 0x00}));
    EXPECT_TRUE(receive(packet, Bytes{0x01, 0x00, 0x00, 0x00}));
    EXPECT_TRUE(log.lines().empty());
}

TEST(TARNPacket, NameWithoutNulInTheMessage) {
    LogCapture log;
    TARNPacket packet;
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x53, 0x03, 0x00, 'a', 'b', 'c'}));
    EXPECT_EQ("", packet.getString());
    EXPECT_EQ(4u, packet.m_readPos);
    EXPECT_EQ(1, log.count(Log::eError, kUnterminated)) << log.dump();
}

TEST(TARNPacket, CutShortValueKeepsWhatTheDecoderSet) {
    LogCapture log;
    TARNPacket packet;
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x54, 0x05, 0x00, 'A', 0x00, 0x49, 0x01, 0x00}));
    EXPECT_EQ("A", packet.getString());
    ParameterValue value("before");
    packet.getParameterValue(value);
    EXPECT_EQ(1, log.count(Log::eError, kBadValue)) << log.dump();
    EXPECT_EQ(TYPE_INT, value.getType());
    EXPECT_EQ("0", value.getAsString());
    EXPECT_EQ(6u, packet.m_readPos);
}

TEST(TARNPacket, FailedListKeepsWhatWasDecoded) {
    LogCapture log;
    TARNPacket packet;
    // Count 2, "a" = 1, then a name that runs to the end of the message and beyond.
    const Bytes message{0x01, 0x46, 0x0D, 0x00, 'f',  0x00, 0x02, 'a', 0x00,
                        0x49, 0x01, 0x00, 0x00, 0x00, 'b',  'c',  'd'};
    // Fill what lies behind with non-NUL bytes so that no NUL is within a byte of the end.
    std::memset(packet.m_buffer, 'z', TARNPacket::MAX_LENGTH);
    ASSERT_TRUE(receive(packet, message));
    EXPECT_EQ("f", packet.getString());
    ParameterList list;
    list.addString("keep", "me");
    packet.getParameterList(list);
    EXPECT_EQ(1, log.count(Log::eError, kBadList)) << log.dump();
    std::string name;
    std::string text;
    ASSERT_TRUE(list.getParam(0u, name, text));
    EXPECT_EQ("a", name);
    ASSERT_TRUE(list.getParam(1u, name, text));
    EXPECT_EQ("keep", name);
    EXPECT_FALSE(list.getParam(2u, name, text));
    EXPECT_EQ(6u, packet.m_readPos);
}

TEST(TARNPacket, ReadingPastTheBodyReturnsStaleBytes) {
    LogCapture log;
    TARNPacket packet;
    TARNPacket longer(CMD_TRIGGER);
    longer.appendString("first");
    longer.appendString("second");
    ASSERT_TRUE(receive(packet, packetBytes(longer)));

    // A shorter message in the same packet: bytes behind it still hold the older one.
    TARNPacket shorter(CMD_SUBSCRIBE);
    shorter.appendString("xy");
    ASSERT_TRUE(receive(packet, packetBytes(shorter)));
    EXPECT_EQ("xy", packet.getString());
    EXPECT_EQ(7u, packet.m_readPos);
    EXPECT_EQ(7u, packet.m_length);
    // At the end of the body the unsigned test wraps: "st" of "first" and then "second" come back.
    EXPECT_EQ("st", packet.getString());
    EXPECT_EQ(10u, packet.m_readPos);
    EXPECT_EQ("second", packet.getString());
    EXPECT_EQ(17u, packet.m_readPos);
    // Past all that, zeroed bytes read as empty strings, one byte each.
    EXPECT_EQ("", packet.getString());
    EXPECT_EQ(18u, packet.m_readPos);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(TARNPacket, ValueDecodingReadsTheStaleByteBehindTheBody) {
    LogCapture log;
    TARNPacket packet;
    // An earlier message leaves 0x01 at offset 7.
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x54, 0x04, 0x00, 'A', 0x00, 0x42, 0x01}));
    // Now a trigger whose boolean's value byte is missing: size 1, the byte one past it is read.
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x54, 0x03, 0x00, 'B', 0x00, 0x42}));
    EXPECT_EQ("B", packet.getString());
    ParameterValue value;
    packet.getParameterValue(value);
    EXPECT_EQ("ON", value.getAsString());
    EXPECT_EQ(8u, packet.m_readPos);

    // A string value whose NUL lies one byte behind the body is accepted too.
    ASSERT_TRUE(receive(
        packet, Bytes{0x01, 0x55, 0x0B, 0x00, 'n', 0x00, 0x53, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x55, 0x04, 0x00, 'n', 0x00, 0x53, 'a'}));
    packet.m_buffer[8] = 0x00;
    EXPECT_EQ("n", packet.getString());
    packet.getParameterValue(value);
    EXPECT_EQ("a", value.getAsString());
    EXPECT_EQ(9u, packet.m_readPos);
    // Two bytes behind is too far: the old "bc..." makes it unterminated within the body's size.
    ASSERT_TRUE(receive(
        packet, Bytes{0x01, 0x55, 0x0B, 0x00, 'n', 0x00, 0x53, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 0x00}));
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x55, 0x04, 0x00, 'n', 0x00, 0x53, 'a'}));
    EXPECT_EQ("n", packet.getString());
    ParameterValue refused(3);
    packet.getParameterValue(refused);
    EXPECT_EQ(TYPE_STRING, refused.getType());
    EXPECT_EQ(1, log.count(Log::eError, kBadValue)) << log.dump();
    EXPECT_EQ(6u, packet.m_readPos);
}

TEST(TARNPacket, ListEntryWhoseNameEndsBehindTheBodyTakesTheNextStaleByteAsItsTag) {
    LogCapture log;
    TARNPacket packet;
    // An earlier message leaves a NUL at offset 9 and 'I' at offset 10.
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x46, 0x07, 0x00, 'f', 0x00, 0x01, 'x', 'y', 0x00, 'I'}));
    // A call whose list entry "ab" ends with the body: its NUL is the stale byte one behind the
    // body, and its value, decoded at size -1, takes the next stale byte 'I' as its type and
    // refuses the payload. The list decode consumes 4 bytes and reports nothing.
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x46, 0x05, 0x00, 'f', 0x00, 0x01, 'a', 'b'}));
    EXPECT_EQ("f", packet.getString());
    ParameterList list;
    packet.getParameterList(list);
    EXPECT_EQ(10u, packet.m_readPos);
    int i = -1;
    EXPECT_TRUE(list.getParam("ab", i));
    EXPECT_EQ(0, i);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(TARNPacket, ValueReadPastTheBodyUsesNegativeSize) {
    LogCapture log;
    TARNPacket packet;
    ASSERT_TRUE(receive(packet, Bytes{0x01, 0x54, 0x02, 0x00, 'A', 0x00}));
    packet.m_buffer[6] = 0x4E;  // what lies behind: a 'N' tag
    packet.m_readPos = 6;
    ParameterValue value(5);
    packet.getParameterValue(value);  // size 0: nothing read
    EXPECT_EQ(TYPE_INT, value.getType());
    EXPECT_EQ(1, log.count(Log::eError, kBadValue));
    packet.m_readPos = 7;
    packet.m_buffer[7] = 0x4E;
    packet.getParameterValue(value);  // size -1: the tag is read, 'N' consumes 1
    EXPECT_EQ(TYPE_NONE, value.getType());
    EXPECT_EQ(8u, packet.m_readPos);
    EXPECT_EQ(1, log.count(Log::eError, kBadValue));
}

TEST(TARNPacket, ReadsNeverLeaveTheBuffer) {
    LogCapture log;
    TARNPacket packet;
    // Header length 0xFFFF with a matching received length validates, far beyond the buffer.
    std::memset(packet.m_buffer, 'q', TARNPacket::MAX_LENGTH);
    packet.m_buffer[0] = 0x01;
    packet.m_buffer[1] = 0x53;
    packet.m_buffer[2] = 0xFF;
    packet.m_buffer[3] = 0xFF;
    packet.m_readPos = 4;
    ASSERT_TRUE(packet.validatePacket(0xFFFF + 4));
    // No NUL anywhere in the buffer: unterminated, position kept.
    EXPECT_EQ("", packet.getString());
    EXPECT_EQ(4u, packet.m_readPos);
    EXPECT_EQ(1, log.count(Log::eError, kUnterminated));
    // A string value whose text runs to the end of the buffer is refused.
    packet.m_buffer[4] = 0x53;
    ParameterValue value;
    packet.getParameterValue(value);
    EXPECT_EQ(1, log.count(Log::eError, kBadValue));
    ParameterList list;
    packet.getParameterList(list);
    EXPECT_EQ(1, log.count(Log::eError, kBadList));
    // An integer whose bytes would lie past the buffer is refused as well.
    packet.m_readPos = TARNPacket::MAX_LENGTH - 3;
    packet.m_buffer[TARNPacket::MAX_LENGTH - 3] = 0x49;
    packet.getParameterValue(value);
    EXPECT_EQ(2, log.count(Log::eError, kBadValue));
    // At and past the buffer's end nothing is read.
    packet.m_readPos = TARNPacket::MAX_LENGTH;
    EXPECT_EQ("", packet.getString());
    EXPECT_EQ(2, log.count(Log::eError, kUnterminated));
    packet.getParameterValue(value);
    packet.getParameterList(list);
    packet.m_readPos = TARNPacket::MAX_LENGTH + 100;
    EXPECT_EQ("", packet.getString());
    packet.getParameterValue(value);
    EXPECT_EQ(TARNPacket::MAX_LENGTH + 100, packet.m_readPos);
    // The last byte of the buffer as a string's NUL is fine.
    packet.m_buffer[TARNPacket::MAX_LENGTH - 1] = 0;
    packet.m_readPos = TARNPacket::MAX_LENGTH - 3;
    EXPECT_EQ("Iq", packet.getString());
    EXPECT_EQ(TARNPacket::MAX_LENGTH, packet.m_readPos);
}

TEST(TARNPacket, AppendingToAnOverlongReceivedPacketWritesNothing) {
    LogCapture log;
    TARNPacket packet;
    packet.m_buffer[2] = 0xFF;
    packet.m_buffer[3] = 0xFF;
    ASSERT_TRUE(packet.validatePacket(0xFFFF + 4));
    EXPECT_FALSE(packet.appendString("x"));
    EXPECT_EQ(1, log.count(Log::eError, "TARN: TARN packet length (2) exceeds max length (0)")) << log.dump();
    EXPECT_FALSE(packet.appendData("x", 1));
    EXPECT_FALSE(packet.appendParamValue(ParameterValue(1)));
    EXPECT_FALSE(packet.appendParamList(ParameterList()));
    EXPECT_EQ(0xFFFFu + 4, packet.m_length);
}
