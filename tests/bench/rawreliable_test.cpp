// The raw-UDP limit of the reliable stream: its datagrams are byte for byte the library's, its
// receiver answers as EUDP's reliable receiver does, and its window goes back on loss without
// sending a window again for every datagram that was already on its way.
#include <gtest/gtest.h>

#include <deque>
#include <set>
#include <string>
#include <vector>

#include <eudppacket.h>

#include "common.h"
#include "rawreliable.h"

using namespace bench;
using namespace bench::rawreliable;

namespace {

std::vector<std::uint8_t> libraryDatagram(EEUDPCommand command, std::uint32_t word,
                                          const std::vector<std::uint8_t>& payload = {}) {
    EUDPPacket packet(command);
    packet.setValue(word);
    if (!payload.empty()) {
        packet.setData(payload.data(), static_cast<unsigned int>(payload.size()));
    }
    return std::vector<std::uint8_t>(packet.m_pHeader, packet.m_pHeader + packet.m_length);
}

std::vector<std::uint8_t> header(const char* letters, std::uint32_t word) {
    std::vector<std::uint8_t> bytes(kHeaderLength);
    writeHeader(bytes.data(), letters, word);
    return bytes;
}

// Runs the window against the receiver over a link that keeps datagrams in order, losing the
// transmissions whose running numbers are in `lost` (counted from 0 over every datagram put on
// the wire, resends included). The sender sends whenever it has room and hears each answer as soon
// as the receiver gives it, so that answers to datagrams sent before a go-back meet the resends.
// Returns the number of transmissions; `delivered` counts the messages taken in order.
std::uint64_t simulate(Window& window, const std::set<std::uint64_t>& lost, std::uint64_t& delivered) {
    std::int32_t expected = 0;
    std::uint64_t transmissions = 0;
    std::deque<std::uint32_t> wire;
    delivered = 0;
    for (int step = 0; step < 1000000 && !window.done(); ++step) {
        while (window.canSend()) {
            if (lost.count(transmissions++) == 0) {
                wire.push_back(window.nextWord());
            }
            window.sent();
        }
        if (wire.empty()) {
            window.onSilence();
            continue;
        }
        const Answer answer = answerData(wire.front(), expected);
        wire.pop_front();
        delivered += answer.delivered ? 1 : 0;
        if (std::string(answer.letters) == "ACK") {
            window.onAck(answer.word);
        } else {
            window.onNak(answer.word);
        }
    }
    return transmissions;
}

// An answer as one line: the command, the word, and whether the message was delivered.
std::string said(const Answer& answer) {
    return std::string(answer.letters) + " " + std::to_string(answer.word) +
           (answer.delivered ? " delivered" : "");
}

}  // namespace

TEST(RawReliableWire, DataDatagramIsTheLibrarysCmdPacket) {
    const std::vector<std::uint8_t> message = triggerBytes("s", 16);
    for (std::uint32_t word : {0u, 1u, 4660u, 65534u}) {
        std::vector<std::uint8_t> datagram = header("CMD", word);
        datagram.insert(datagram.end(), message.begin(), message.end());
        EXPECT_EQ(datagram, libraryDatagram(CMD, word, message)) << word;
    }
}

TEST(RawReliableWire, AnswersAreTheLibrarysAckAndNak) {
    for (std::uint32_t word : {0u, 7u, 65534u, 0x80000000u}) {
        EXPECT_EQ(header("ACK", word), libraryDatagram(ACK, word)) << word;
        EXPECT_EQ(header("NAK", word), libraryDatagram(NAK, word)) << word;
    }
}

TEST(RawReliableWire, ReadHeaderTakesOnlyItsOwnCommand) {
    std::vector<std::uint8_t> ack = header("ACK", 0x01020304u);
    std::uint32_t word = 0;
    ASSERT_TRUE(readHeader(ack.data(), static_cast<long>(ack.size()), "ACK", word));
    EXPECT_EQ(word, 0x01020304u);
    EXPECT_FALSE(readHeader(ack.data(), static_cast<long>(ack.size()), "NAK", word));
    EXPECT_FALSE(readHeader(ack.data(), 7, "ACK", word));
    EXPECT_FALSE(readHeader(ack.data(), -1, "ACK", word));
    ack[0] = 2;
    EXPECT_FALSE(readHeader(ack.data(), static_cast<long>(ack.size()), "ACK", word));
}

TEST(RawReliableReceiver, AcknowledgesInOrderDataAndDelivers) {
    std::int32_t expected = 0;
    EXPECT_EQ(said(answerData(0, expected)), "ACK 0 delivered");
    EXPECT_EQ(expected, 1);
}

TEST(RawReliableReceiver, WrapsFrom65534ToZeroAndTakesALateCopyAsADuplicate) {
    std::int32_t expected = 65534;
    EXPECT_EQ(said(answerData(65534, expected)), "ACK 65534 delivered");
    EXPECT_EQ(expected, 0);
    EXPECT_EQ(said(answerData(0, expected)), "ACK 0 delivered");
    EXPECT_EQ(said(answerData(65534, expected)), "ACK 65534");
    EXPECT_EQ(expected, 1);
}

TEST(RawReliableReceiver, AnswersAGapWithANakOfTheExpectedNumberAndDrops) {
    std::int32_t expected = 100;
    EXPECT_EQ(said(answerData(99, expected)), "ACK 99");
    EXPECT_EQ(said(answerData(101, expected)), "NAK 100");
    EXPECT_EQ(expected, 100);
}

TEST(RawReliableReceiver, ReducesAWordOf2To31AsASignedNumber) {
    // 0x80000000 is -32768 after the signed remainder, 32767 ahead of 0 by the windowed distance.
    std::int32_t expected = 0;
    EXPECT_EQ(said(answerData(0x80000000u, expected)), "NAK 0");
}

TEST(RawReliableWindow, KeepsAtMostItsSizeUnacknowledgedAndAckIsCumulative) {
    Window window(3, 10);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(window.canSend());
        window.sent();
    }
    EXPECT_FALSE(window.canSend());
    window.onAck(1);  // releases 0 and 1
    EXPECT_EQ(window.base(), 2u);
    EXPECT_TRUE(window.canSend());
    EXPECT_EQ(window.nextWord(), 3u);
    window.onAck(1);  // old: nothing changes
    window.onAck(5);  // never sent: nothing changes
    EXPECT_EQ(window.base(), 2u);
}

TEST(RawReliableWindow, NakGoesBackOnceForTheDatagramsAlreadyBehindTheGap) {
    Window window(10, 100);
    while (window.canSend()) {
        window.sent();
    }
    window.onAck(2);  // 0 to 2 arrived; 3 was lost
    window.onNak(3);
    EXPECT_EQ(window.next(), 3u);
    window.sent();  // 3 and 4 go out again
    window.sent();
    for (int stale = 0; stale < 6; ++stale) {  // drawn by 4 to 9, which were out before
        window.onNak(3);
        EXPECT_EQ(window.next(), 5u);
    }
    window.onNak(3);  // one more than the datagrams that were out: the resent 3 was lost too
    EXPECT_EQ(window.next(), 3u);
}

TEST(RawReliableWindow, IgnoresANakForAnAcknowledgedNumberAndSilenceGoesBackToTheOldest) {
    Window window(10, 100);
    for (int i = 0; i < 8; ++i) {
        window.sent();
    }
    window.onAck(4);
    window.onNak(2);
    EXPECT_EQ(window.next(), 8u);
    window.onSilence();
    EXPECT_EQ(window.next(), 5u);
    EXPECT_EQ(window.nextWord(), 5u);
}

TEST(RawReliableWindow, NumbersWrapAfter65534AndAcknowledgementsFollow) {
    Window window(64, 70000);
    std::uint64_t delivered = 0;
    EXPECT_EQ(simulate(window, {}, delivered), 70000u);
    EXPECT_EQ(delivered, 70000u);
    EXPECT_TRUE(window.done());
}

TEST(RawReliableWindow, OneLossCostsOneGoBack) {
    Window window(10, 40);
    std::uint64_t delivered = 0;
    const std::uint64_t transmissions = simulate(window, {5}, delivered);
    EXPECT_EQ(delivered, 40u);
    EXPECT_LE(transmissions, 40u + 10u);
}

TEST(RawReliableWindow, ALostResendIsRecovered) {
    // Transmissions 0 to 9 are the first window and 10 to 14 follow the ACKs of 0 to 4; the NAK
    // that 6 draws sends 5 again as transmission 15, which is lost as well.
    Window window(10, 40);
    std::uint64_t delivered = 0;
    simulate(window, {5, 15}, delivered);
    EXPECT_EQ(delivered, 40u);
    EXPECT_TRUE(window.done());
}

TEST(RawReliableWindow, ALostLastDatagramIsSentAgainAfterSilence) {
    Window window(10, 40);
    std::uint64_t delivered = 0;
    EXPECT_EQ(simulate(window, {39}, delivered), 41u);
    EXPECT_EQ(delivered, 40u);
}

TEST(RawReliableWindow, StopOfferingFinishesWithWhatWasSent) {
    Window window(10, 100);
    for (int i = 0; i < 5; ++i) {
        window.sent();
    }
    window.stopOffering();
    EXPECT_EQ(window.total(), 5u);
    EXPECT_FALSE(window.canSend());
    window.onAck(4);
    EXPECT_TRUE(window.done());
}

TEST(RawReliableStream, DeliversEveryMessageAcrossTheWrapOnLoopback) {
    const StreamRun run = rawReliableStream(triggerBytes("s", 16), 64, 70000, 60.0);
    EXPECT_TRUE(run.ok) << run.note;
    EXPECT_EQ(run.sent, 70000u);
    EXPECT_EQ(run.delivered, 70000u);
    EXPECT_GT(run.seconds, 0.0);
}

TEST(RawReliableWindow, CountsItsGoBacksAndResends) {
    Window window(10, 100);
    while (window.canSend()) {
        window.sent();
    }
    EXPECT_EQ(window.resent(), 0u);
    window.onAck(2);
    window.onNak(3);  // one go-back: 3 to 9 are out again once sent
    window.onNak(3);  // drawn by 4, out before the go-back: not counted
    EXPECT_EQ(window.nakGoBacks(), 1u);
    window.sent();
    window.sent();
    EXPECT_EQ(window.resent(), 2u);
    window.onSilence();
    EXPECT_EQ(window.silences(), 1u);
    while (window.canSend()) {
        window.sent();
    }
    // 3 and 4 again, 5 to 9 for the second time, 10 to 12 new.
    EXPECT_EQ(window.resent(), 9u);
    EXPECT_EQ(window.nakGoBacks(), 1u);
}

TEST(RawReliableWindow, ALossLeavesItsAccountAndNoneWithout) {
    Window clean(10, 40);
    std::uint64_t delivered = 0;
    simulate(clean, {}, delivered);
    EXPECT_EQ(clean.nakGoBacks() + clean.silences() + clean.resent(), 0u);
    Window lossy(10, 40);
    const std::uint64_t transmissions = simulate(lossy, {5}, delivered);
    EXPECT_EQ(lossy.nakGoBacks(), 1u);
    EXPECT_EQ(lossy.silences(), 0u);
    EXPECT_EQ(lossy.resent(), transmissions - 40u);
}
