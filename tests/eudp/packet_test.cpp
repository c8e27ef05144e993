// EUDP datagrams, sequence numbers and the packet ring, without sockets.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "eudpmodeword.h"
#include "eudptestaccess.h"

using Corvane::Utilities::Logging::eError;
using Corvane::Utilities::Logging::eWarning;
using testsupport::LogCapture;

namespace {

// Pages of the ring's storage that the system has handed out.
std::size_t residentPages(const RingBuffer<EUDPPacket>& ring) {
    const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t bytes = sizeof(EUDPPacket) * ring.capacity();
    std::vector<unsigned char> resident((bytes + page - 1) / page);
    if (::mincore(EUDPTransportTest::slots(ring), bytes, resident.data()) != 0) {
        ADD_FAILURE() << "mincore failed";
        return 0;
    }
    std::size_t count = 0;
    for (unsigned char flags : resident) {
        count += flags & 1;
    }
    return count;
}

const char* const kWrongVersion = "TARN/EUDP: packet validation failed: wrong version";
const char* const kTooShort = "TARN/EUDP: packet validation failed: header too short";
const char* const kUnknown = "TARN/EUDP: packet validation failed: unknown command";

EUDPPacket received(const testsupport::Bytes& bytes) {
    EUDPPacket packet;
    std::memcpy(packet.m_pHeader, bytes.data(), bytes.size());
    return packet;
}

TEST(EUDPPacket, DefaultIsHeaderOnlyNop) {
    EUDPPacket packet;
    EXPECT_EQ(packet.m_pHeader, packet.m_buffer);
    EXPECT_EQ(8u, packet.m_length);
    EXPECT_EQ(1, packet.m_buffer[0]);
    EXPECT_EQ(0, std::memcmp(packet.m_buffer + 1, "NOP", 3));
    EXPECT_EQ(0u, packet.getValue());
    EXPECT_EQ(NOP, packet.getCommand());
}

TEST(EUDPPacket, CommandNamesInTableOrder) {
    const char* names[10] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};
    for (int i = 0; i < 10; ++i) {
        EXPECT_STREQ(names[i], EUDPCommand[i]);
        EUDPPacket packet(static_cast<EEUDPCommand>(i));
        EXPECT_EQ(0, std::memcmp(packet.m_buffer + 1, names[i], 3));
        EXPECT_EQ(i, static_cast<int>(packet.getCommand()));
    }
}

TEST(EUDPPacket, SetCommandWritesExactlyThreeBytes) {
    EUDPPacket packet;
    packet.setValue(0xA1B2C3D4u);
    packet.setCommand(WAK);
    EXPECT_EQ(0, std::memcmp(packet.m_buffer, "\x01WAK\xD4\xC3\xB2\xA1", 8));
}

TEST(EUDPPacket, ValueIsLittleEndianAtByteFour) {
    EUDPPacket packet(CMD);
    packet.setValue(0x01020304u);
    EXPECT_EQ(4, packet.m_buffer[4]);
    EXPECT_EQ(3, packet.m_buffer[5]);
    EXPECT_EQ(2, packet.m_buffer[6]);
    EXPECT_EQ(1, packet.m_buffer[7]);
    EXPECT_EQ(0x01020304u, packet.getValue());
}

TEST(EUDPPacket, AckWithAnyValueValidates) {
    LogCapture log;
    EUDPPacket packet = received(testsupport::eudpDatagram("ACK", 0xFFFFFFFFu));
    EXPECT_TRUE(packet.validatePacket(8));
    EXPECT_EQ(8u, packet.m_length);
    EXPECT_EQ(ACK, packet.getCommand());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(EUDPPacket, LowerCaseLettersAreUnknown) {
    LogCapture log;
    EUDPPacket packet = received(testsupport::eudpDatagram("ack", 7));
    EXPECT_FALSE(packet.validatePacket(8));
    EXPECT_EQ(EUDP_UNKNOWN_COMMAND, static_cast<int>(packet.getCommand()));
    EXPECT_EQ(1, log.count(eWarning, kUnknown)) << log.dump();
}

TEST(EUDPPacket, ShortDatagramWithVersionOneIsTooShort) {
    for (std::uint32_t length = 1; length <= 7; ++length) {
        LogCapture log;
        EUDPPacket packet = received(testsupport::Bytes{1, 'A', 'C', 'K', 0, 0, 0});
        EXPECT_FALSE(packet.validatePacket(length));
        EXPECT_EQ(length, packet.m_length);
        EXPECT_EQ(1, log.count(eWarning, kTooShort)) << log.dump();
        EXPECT_EQ(0, log.count(eWarning, kWrongVersion));
    }
}

TEST(EUDPPacket, VersionIsCheckedBeforeLength) {
    LogCapture log;
    EUDPPacket packet = received(testsupport::Bytes{2, 'A', 'C'});
    EXPECT_FALSE(packet.validatePacket(3));
    EXPECT_EQ(1, log.count(eWarning, kWrongVersion)) << log.dump();
    EXPECT_EQ(0, log.count(eWarning, kTooShort));
}

TEST(EUDPPacket, WrongVersionOnFullHeader) {
    LogCapture log;
    testsupport::Bytes bytes = testsupport::eudpDatagram("CMD", 1);
    bytes[0] = 0;
    EUDPPacket packet = received(bytes);
    EXPECT_FALSE(packet.validatePacket(8));
    EXPECT_EQ(1, log.count(eWarning, kWrongVersion)) << log.dump();
}

TEST(EUDPPacket, ValidationStoresLengthWithPayload) {
    EUDPPacket packet = received(testsupport::eudpDatagram("CMD", 3, testsupport::bytesOf("hello")));
    EXPECT_TRUE(packet.validatePacket(13));
    EXPECT_EQ(13u, packet.m_length);
}

TEST(EUDPPacket, SetDataWithMaximumPayload) {
    LogCapture log;
    unsigned char data[1492];
    for (unsigned int i = 0; i < sizeof data; ++i) {
        data[i] = static_cast<unsigned char>(i * 7);
    }
    EUDPPacket packet(CMD);
    packet.setData(data, 1492);
    EXPECT_EQ(1500u, packet.m_length);
    EXPECT_EQ(0, std::memcmp(packet.m_buffer + 8, data, 1492));
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(EUDPPacket, SetDataOverMaximumIsRefusedAndLeavesPacket) {
    LogCapture log;
    unsigned char data[1493] = {0};
    EUDPPacket packet(CMD);
    unsigned char small[3] = {9, 8, 7};
    packet.setData(small, 3);
    packet.setData(data, 1493);
    EXPECT_EQ(11u, packet.m_length);
    EXPECT_EQ(9, packet.m_buffer[8]);
    EXPECT_EQ(1, log.count(eError, "TARN/EUDP: packet length (1493) exceeds max length (1492)"))
        << log.dump();
}

TEST(EUDPPacket, SetDataEmptyGivesHeaderOnly) {
    EUDPPacket packet(CMD);
    packet.setData(nullptr, 0);
    EXPECT_EQ(8u, packet.m_length);
}

TEST(EUDPPacket, CopyOfHeaderOnlyPacketCopiesOnlyHeader) {
    EUDPPacket source(ACK);
    source.setValue(42);
    source.m_buffer[8] = 0x5A;  // beyond m_length: must not travel
    EUDPPacket target;
    target.m_buffer[8] = 0x11;
    target = source;
    EXPECT_EQ(8u, target.m_length);
    EXPECT_EQ(0, std::memcmp(target.m_buffer, source.m_buffer, 8));
    EXPECT_EQ(0x11, target.m_buffer[8]);
    EXPECT_EQ(target.m_buffer, target.m_pHeader);

    EUDPPacket constructed(source);
    EXPECT_EQ(constructed.m_buffer, constructed.m_pHeader);
    EXPECT_EQ(42u, constructed.getValue());
}

TEST(EUDPPacket, CopyCarriesPayloadAndOwnBuffer) {
    EUDPPacket source(CMD);
    unsigned char data[4] = {1, 2, 3, 4};
    source.setData(data, 4);
    EUDPPacket copy(source);
    EXPECT_EQ(12u, copy.m_length);
    EXPECT_EQ(0, std::memcmp(copy.m_buffer, source.m_buffer, 12));
    source.m_buffer[8] = 99;
    EXPECT_EQ(1, copy.m_buffer[8]);
}

TEST(EUDPPacket, SelfAssignmentKeepsPacket) {
    EUDPPacket packet(CMD);
    unsigned char data[2] = {5, 6};
    packet.setData(data, 2);
    EUDPPacket& alias = packet;
    packet = alias;
    EXPECT_EQ(10u, packet.m_length);
    EXPECT_EQ(6, packet.m_buffer[9]);
}

// ---- ModuloValue ------------------------------------------------------------------------------

TEST(ModuloValue, AdvanceWrapsAt65535) {
    ModuloValue value(65534);
    value.advance();
    EXPECT_EQ(0, value.getValue());
    ModuloValue start(-1);
    start.advance();
    EXPECT_EQ(0, start.getValue());
    EXPECT_EQ(65535, start.getModulus());
}

TEST(ModuloValue, SetFromWordUsesSignedRemainder) {
    ModuloValue value(5, 7);
    value.setFromWord(65535);
    EXPECT_EQ(0, value.getValue());
    EXPECT_EQ(65535, value.getModulus());
    value.setFromWord(-1);
    EXPECT_EQ(-1, value.getValue());
    value.setFromWord(static_cast<std::int32_t>(0x80000000u));
    EXPECT_EQ(-32768, value.getValue());
    value.setFromWord(65536);
    EXPECT_EQ(1, value.getValue());
}

TEST(ModuloValue, DistanceBounds) {
    EXPECT_EQ(1, ModuloValue::distance(0, 65534));
    EXPECT_EQ(-1, ModuloValue::distance(65534, 0));
    EXPECT_EQ(1, ModuloValue::distance(0, -1));
    EXPECT_EQ(32767, ModuloValue::distance(32767, 0));
    EXPECT_EQ(-32767, ModuloValue::distance(0, 32767));
    EXPECT_EQ(-32767, ModuloValue::distance(32768, 0));
    EXPECT_EQ(32767, ModuloValue::distance(0, 32768));
    EXPECT_EQ(0, ModuloValue::distance(123, 123));
    EXPECT_EQ(32767, ModuloValue::distance(-32768, 0));
}

TEST(ModuloValue, AssignmentCopiesBothFields) {
    ModuloValue a(3, 10);
    ModuloValue b;
    b = a;
    EXPECT_EQ(3, b.getValue());
    EXPECT_EQ(10, b.getModulus());
    b.advance();
    b.advance();
    b.advance();
    b.advance();
    b.advance();
    b.advance();
    b.advance();
    EXPECT_EQ(0, b.getValue());
}

// ---- RingBuffer -------------------------------------------------------------------------------

TEST(RingBuffer, CapacityThousandHoldsNineHundredNinetyNine) {
    RingBuffer<EUDPPacket> ring(1000);
    EXPECT_TRUE(ring.isEmpty());
    EUDPPacket packet(CMD);
    for (std::uint32_t i = 0; i < 999; ++i) {
        packet.setValue(i);
        ASSERT_TRUE(ring.push(packet)) << i;
    }
    EXPECT_TRUE(ring.isFull());
    EXPECT_FALSE(ring.push(packet));
    EXPECT_EQ(0u, ring.front().getValue());
    ring.pop();
    EXPECT_FALSE(ring.isFull());
    EXPECT_EQ(1u, ring.front().getValue());
    EXPECT_TRUE(ring.push(packet));
    EXPECT_EQ(0u, ring.writeIndex());  // wrapped
}

TEST(RingBuffer, SlotsCostNothingUntilFirstUsed) {
    RingBuffer<EUDPPacket> ring(1000);
    ASSERT_NE(nullptr, EUDPTransportTest::slots(ring));
    EXPECT_EQ(0u, ring.constructedCount());
    EXPECT_EQ(0u, residentPages(ring));

    EUDPPacket packet(CMD);
    packet.setData(reinterpret_cast<const unsigned char*>("abc"), 3);
    ASSERT_TRUE(ring.push(packet));
    EXPECT_EQ(1u, ring.constructedCount());
    EXPECT_LE(residentPages(ring), 1u);  // the first slot lies within the first page

    for (int i = 0; i < 9; ++i) {
        ring.pop();
        ASSERT_TRUE(ring.push(packet));
    }
    EXPECT_EQ(10u, ring.constructedCount());
    const std::size_t tenSlots = (10 * sizeof(EUDPPacket) + 4095) / 4096 + 1;
    EXPECT_LE(residentPages(ring), tenSlots);
}

TEST(RingBuffer, NeverWrittenSlotReadsAsDefaultPacket) {
    RingBuffer<EUDPPacket> ring(1000);
    EUDPPacket& slot = ring.front();
    EXPECT_EQ(1u, ring.constructedCount());
    EXPECT_EQ(slot.m_buffer, slot.m_pHeader);
    EXPECT_EQ(8u, slot.m_length);
    EXPECT_EQ(1, slot.m_buffer[0]);
    EXPECT_EQ(NOP, slot.getCommand());
    EXPECT_EQ(0u, slot.getValue());
    EXPECT_TRUE(ring.isEmpty());

    // Reading a slot further on constructs the ones before it as well, so that the constructed
    // slots stay the first ones.
    EUDPPacket& later = ring.at(5);
    EXPECT_EQ(6u, ring.constructedCount());
    EXPECT_EQ(8u, later.m_length);
    EXPECT_EQ(EUDPTransportTest::slots(ring) + 3, &ring.at(3));
    EXPECT_EQ(EUDPTransportTest::slots(ring)[3].m_buffer, EUDPTransportTest::slots(ring)[3].m_pHeader);
}

TEST(RingBuffer, WrittenSlotKeepsItsPacketAfterPushOverConstructedSlot) {
    RingBuffer<EUDPPacket> ring(4);
    (void)ring.at(2);  // slots 0 to 2 read before they were written
    EUDPPacket packet(CMD);
    packet.setValue(7);
    packet.setData(reinterpret_cast<const unsigned char*>("xy"), 2);
    ASSERT_TRUE(ring.push(packet));
    EXPECT_EQ(3u, ring.constructedCount());
    EXPECT_EQ(7u, ring.front().getValue());
    EXPECT_EQ(10u, ring.front().m_length);
    EXPECT_EQ(0, std::memcmp(ring.front().m_pHeader + 8, "xy", 2));
}

TEST(RingBuffer, ReadSlotAfterAFullLapHoldsThePacketWrittenALapBefore) {
    RingBuffer<EUDPPacket> ring(1000);
    EUDPPacket packet(CMD);
    for (std::uint32_t i = 0; i < 1000; ++i) {
        packet.setValue(i);
        ASSERT_TRUE(ring.push(packet));
        ring.pop();
    }
    EXPECT_TRUE(ring.isEmpty());
    EXPECT_EQ(0u, ring.readIndex());
    EXPECT_EQ(1000u, ring.constructedCount());
    EXPECT_EQ(0u, ring.front().getValue());  // as it stands: the first packet, a lap ago
}

TEST(RingBuffer, PopOnEmptyDoesNothing) {
    RingBuffer<EUDPPacket> ring(4);
    ring.pop();
    EXPECT_EQ(0u, ring.readIndex());
    EXPECT_TRUE(ring.isEmpty());
    EXPECT_EQ(0u, ring.next(3));
}

}  // namespace

TEST(EUDPModeWord, UnpackTakesTheBytesLeastSignificantFirst) {
    const tarn::EUDPModeBytes bytes = tarn::unpackModeWord(0x44524454u);
    EXPECT_EQ('T', bytes[0]);
    EXPECT_EQ('D', bytes[1]);
    EXPECT_EQ('R', bytes[2]);
    EXPECT_EQ('D', bytes[3]);
}

TEST(EUDPModeWord, PackPutsByteZeroLowest) {
    EXPECT_EQ(0x44524454u, tarn::packModeWord({'T', 'D', 'R', 'D'}));
    EXPECT_EQ(0x44444444u, tarn::packModeWord({'D', 'D', 'D', 'D'}));
}

TEST(EUDPModeWord, HighBytesSurviveARoundTripBothWays) {
    for (std::uint32_t word : {0u, 0xFFFFFFFFu, 0x80D2FF01u, 0x01020304u}) {
        EXPECT_EQ(word, tarn::packModeWord(tarn::unpackModeWord(word)));
    }
    const tarn::EUDPModeBytes bytes{0xD2, 0x80, 0xFF, 0x00};
    EXPECT_EQ(bytes, tarn::unpackModeWord(tarn::packModeWord(bytes)));
}
