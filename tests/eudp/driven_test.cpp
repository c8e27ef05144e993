// EUDP's decisions driven without threads, sockets or real time (EUDPDriver): exact datagrams out
// and exact log lines for gaps and NAK, go-back resend, the 500 ms resend, keep-alive periods and
// the 10 s silence close, negotiation answers, duplicates, out-of-window numbers and the sequence
// wrap. Every test runs in milliseconds of real time.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "eudpdriver.h"
#include "eudptestaccess.h"

using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eError;
using Corvane::Utilities::Logging::eInfo;
using Corvane::Utilities::Logging::eWarning;
using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::eudpDatagram;
using testsupport::hex;
using testsupport::LogCapture;

namespace {

const std::uint16_t kClientPort = 40000;
const std::uint16_t kListenPort = 7000;
const std::uint16_t kServerPort = 7001;

using Strings = std::vector<std::string>;

std::uint32_t modeWord(char b0, char b1, char b2, char b3) {
    return static_cast<std::uint8_t>(b0) | (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b1)) << 8) |
           (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b2)) << 16) |
           (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b3)) << 24);
}

// What the driver sent since the last look, each as its hex bytes.
Strings sent(EUDPDriver& driver) {
    Strings out;
    for (const EUDPDriver::Datagram& datagram : driver.takeSent()) {
        out.push_back(hex(datagram.bytes));
    }
    return out;
}

Strings hexes(std::initializer_list<Bytes> datagrams) {
    Strings out;
    for (const Bytes& datagram : datagrams) {
        out.push_back(hex(datagram));
    }
    return out;
}

Bytes cmd(std::uint32_t seq, const std::string& payload = std::string()) {
    return eudpDatagram("CMD", seq, bytesOf(payload));
}

bool deliver(EUDPDriver& driver, const Bytes& datagram, std::uint16_t fromPort = 0) {
    return driver.receive(datagram.data(), datagram.size(), fromPort);
}

// Every line logged since the last look, as "<level letter> <text>".
Strings logged(LogCapture& log) {
    Strings out;
    for (const LogCapture::Line& line : log.lines()) {
        const char* level = line.level == eError     ? "E "
                            : line.level == eWarning ? "W "
                            : line.level == eInfo    ? "I "
                                                     : "D ";
        out.push_back(level + line.text);
    }
    log.clear();
    return out;
}

std::string eudpLine(const char* level, const std::string& text) {
    return std::string(level) + " " + eudptest::line(kClientPort, text);
}

std::string received(EUDPDriver& driver) {
    std::uint8_t buffer[1500];
    const int n = driver.receiveData(buffer, sizeof buffer);
    if (n < 0) {
        return "<" + std::to_string(n) + ">";
    }
    return std::string(buffer, buffer + n);
}

// A server-side transport as accept() makes it for a CON carrying `conValue`, its ACK taken.
void acceptFrom(EUDPDriver& driver, std::uint32_t conValue, bool quiet = true) {
    driver.accept(kClientPort, conValue);
    ASSERT_EQ(hexes({eudpDatagram("ACK", conValue)}), sent(driver));
    if (quiet) {
        driver.quietTimers();
    }
}

void makeReceiveReliable(EUDPDriver& driver) {
    ASSERT_TRUE(deliver(driver, eudpDatagram("MOD", modeWord('D', 'D', 'R', 'D'))));
    ASSERT_EQ(hexes({eudpDatagram("MAK", modeWord('D', 'T', 'R', 'R'))}), sent(driver));
}

void makeSendReliable(EUDPDriver& driver) {
    ASSERT_TRUE(deliver(driver, eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D'))));
    ASSERT_EQ(hexes({eudpDatagram("MAK", modeWord('R', 'R', 'D', 'T'))}), sent(driver));
}

bool sendText(EUDPDriver& driver, const std::string& text) {
    return driver.sendData(reinterpret_cast<const std::uint8_t*>(text.data()),
                           static_cast<std::uint32_t>(text.size()));
}

TEST(EUDPDriven, AcceptAnswersWithAckToTheClientAndArmsTheKeepAlive) {
    LogCapture log;
    EUDPDriver driver;
    driver.accept(kClientPort, 9);
    std::vector<EUDPDriver::Datagram> out = driver.takeSent();
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(hex(eudpDatagram("ACK", 9)), hex(out[0].bytes));
    EXPECT_EQ("127.0.0.1", out[0].address.getAddressString());
    EXPECT_EQ(kClientPort, out[0].port);
    EXPECT_EQ(10, EUDPTransportTest::receiveSeq(driver.transport()).getValue());
    EXPECT_TRUE(driver.isTimerRunning(EUDPDriver::eSendAliveTimer));
    EXPECT_EQ(500000, driver.timerDueUs(EUDPDriver::eSendAliveTimer));
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eAliveTimer));
    EXPECT_FALSE(driver.senderWaitsForAck());
    EXPECT_EQ(Strings(), logged(log));
}

TEST(EUDPDriven, RealtimeDataLeavesAtOnceInOrder) {
    EUDPDriver driver;
    acceptFrom(driver, 0);
    ASSERT_TRUE(sendText(driver, "a"));
    ASSERT_TRUE(sendText(driver, "bc"));
    EXPECT_EQ(hexes({cmd(0, "a"), cmd(1, "bc")}), sent(driver));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(driver.transport()));
}

TEST(EUDPDriven, ReliableGapLogsItsCountAndNaksTheExpectedNumber) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 9);  // expects 10
    makeReceiveReliable(driver);
    logged(log);
    ASSERT_TRUE(deliver(driver, cmd(12, "c")));
    EXPECT_EQ(hexes({eudpDatagram("NAK", 10)}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("W", "12 packets lost")}, logged(log));  // 12 - 10 % 2
    EXPECT_EQ("<-2>", received(driver));                                // dropped
    ASSERT_TRUE(deliver(driver, cmd(10, "a")));
    ASSERT_TRUE(deliver(driver, cmd(11, "b")));
    ASSERT_TRUE(deliver(driver, cmd(12, "c")));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 10), eudpDatagram("ACK", 11), eudpDatagram("ACK", 12)}),
              sent(driver));
    EXPECT_EQ("a", received(driver));
    EXPECT_EQ("b", received(driver));
    EXPECT_EQ("c", received(driver));
    EXPECT_EQ("<-2>", received(driver));
    EXPECT_EQ(Strings(), logged(log));
}

TEST(EUDPDriven, ReliableGapCountIsTheNumberLessTheParityOfTheOneExpected) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 10);  // expects 11
    makeReceiveReliable(driver);
    logged(log);
    ASSERT_TRUE(deliver(driver, cmd(12, "c")));
    EXPECT_EQ(hexes({eudpDatagram("NAK", 11)}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("W", "11 packets lost")}, logged(log));
}

TEST(EUDPDriven, RealtimeGapIsSkippedSilentlyAndLateNumbersAreDuplicates) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 9);
    ASSERT_TRUE(deliver(driver, cmd(12, "c")));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings(), logged(log));
    EXPECT_EQ(13, EUDPTransportTest::receiveSeq(driver.transport()).getValue());
    EXPECT_EQ("c", received(driver));
    ASSERT_TRUE(deliver(driver, cmd(10, "a")));
    ASSERT_TRUE(deliver(driver, cmd(11, "b")));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 10), eudpDatagram("ACK", 11)}), sent(driver));
    const std::string duplicate = eudpLine("D", "received a duplicate packet - ACK and ignore");
    EXPECT_EQ((Strings{duplicate, duplicate}), logged(log));
    EXPECT_EQ("<-2>", received(driver));
}

TEST(EUDPDriven, EmptyDataIsAnsweredByModeAndNeverDelivered) {
    EUDPDriver driver;
    acceptFrom(driver, 9);
    ASSERT_TRUE(deliver(driver, cmd(10)));
    EXPECT_EQ(hexes({eudpDatagram("NOP", 0)}), sent(driver));
    makeReceiveReliable(driver);
    ASSERT_TRUE(deliver(driver, cmd(11)));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 11)}), sent(driver));
    EXPECT_EQ(12, EUDPTransportTest::receiveSeq(driver.transport()).getValue());
    EXPECT_EQ("<-2>", received(driver));
}

TEST(EUDPDriven, ReceiveSequenceWrapsFrom65534ToZero) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 65533);  // expects 65534
    makeReceiveReliable(driver);
    logged(log);
    ASSERT_TRUE(deliver(driver, cmd(65534, "a")));
    EXPECT_EQ(0, EUDPTransportTest::receiveSeq(driver.transport()).getValue());
    ASSERT_TRUE(deliver(driver, cmd(0, "b")));
    ASSERT_TRUE(deliver(driver, cmd(65534, "a")));  // a late copy: distance -1
    EXPECT_EQ(hexes({eudpDatagram("ACK", 65534), eudpDatagram("ACK", 0), eudpDatagram("ACK", 65534)}),
              sent(driver));
    EXPECT_EQ(Strings{eudpLine("D", "received a duplicate packet - ACK and ignore")}, logged(log));
    EXPECT_EQ("a", received(driver));
    EXPECT_EQ("b", received(driver));
    EXPECT_EQ("<-2>", received(driver));
}

TEST(EUDPDriven, DuplicatesAndNumbersOutsideTheWindow) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 99);  // expects 100
    makeReceiveReliable(driver);
    logged(log);
    const std::string duplicate = eudpLine("D", "received a duplicate packet - ACK and ignore");
    ASSERT_TRUE(deliver(driver, cmd(99, "x")));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 99)}), sent(driver));
    EXPECT_EQ(Strings{duplicate}, logged(log));
    ASSERT_TRUE(deliver(driver, cmd(100, "a")));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 100)}), sent(driver));
    // 32768 ahead counts as 32767 behind: a duplicate, answered with its word as it stands.
    ASSERT_TRUE(deliver(driver, cmd(101 + 32768, "y")));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 101 + 32768)}), sent(driver));
    EXPECT_EQ(Strings{duplicate}, logged(log));
    // 32767 ahead is taken as it is: a gap.
    ASSERT_TRUE(deliver(driver, cmd(101 + 32767, "z")));
    EXPECT_EQ(hexes({eudpDatagram("NAK", 101)}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("W", "32867 packets lost")}, logged(log));
    // A word of 2^31 is the number -32768 (signed remainder), 32666 ahead of 101.
    ASSERT_TRUE(deliver(driver, cmd(0x80000000u, "w")));
    EXPECT_EQ(hexes({eudpDatagram("NAK", 101)}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("W", "-32769 packets lost")}, logged(log));
    EXPECT_EQ("a", received(driver));
    EXPECT_EQ("<-2>", received(driver));
}

TEST(EUDPDriven, ReliableSendingCarriesOnAcrossTheWrap) {
    EUDPDriver driver;
    acceptFrom(driver, 0);
    makeSendReliable(driver);
    EUDPTransport& transport = driver.transport();
    EUDPTransportTest::sendSeq(transport) = ModuloValue(65533);
    EUDPTransportTest::lastSent(transport) = ModuloValue(65532);
    EUDPTransportTest::lastAcked(transport) = ModuloValue(65532);
    ASSERT_TRUE(sendText(driver, "x"));
    EXPECT_EQ(hexes({cmd(65533, "x")}), sent(driver));
    // Queued while the sender waits for the acknowledgement of 65533: they wait with it.
    ASSERT_TRUE(sendText(driver, "y"));
    ASSERT_TRUE(sendText(driver, "z"));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 65533)));
    EXPECT_EQ(hexes({cmd(65534, "y"), cmd(0, "z")}), sent(driver));
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 0)));
    EXPECT_EQ(0u, EUDPTransportTest::sendQueued(transport));
    EXPECT_EQ(0u, EUDPTransportTest::unacked(transport).load());
    EXPECT_EQ(1, EUDPTransportTest::sendSeq(transport).getValue());
    EXPECT_EQ(Strings(), sent(driver));
}

TEST(EUDPDriven, FullWindowIsResentEvery500MsAndNakGoesBack) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0);
    makeSendReliable(driver);
    logged(log);
    std::vector<Bytes> data;
    for (int i = 0; i < 12; ++i) {
        data.push_back(cmd(static_cast<std::uint32_t>(i), "m" + std::to_string(i)));
        ASSERT_TRUE(sendText(driver, "m" + std::to_string(i)));
    }
    auto range = [&](int from, int to) {
        Strings out;
        for (int i = from; i <= to; ++i) {
            out.push_back(hex(data[static_cast<std::size_t>(i)]));
        }
        return out;
    };
    // The first leaves at once; the rest wait with the sender for its acknowledgement.
    EXPECT_EQ(range(0, 0), sent(driver));
    ASSERT_TRUE(driver.senderWaitsForAck());
    EXPECT_EQ(500000, driver.senderAckDeadlineUs());
    ASSERT_TRUE(driver.advanceMs(499));
    EXPECT_EQ(Strings(), sent(driver));
    // 500 ms without an acknowledgement: back to the last acknowledged, the window (10) again.
    ASSERT_TRUE(driver.advanceMs(1));
    EXPECT_EQ(range(0, 9), sent(driver));
    ASSERT_TRUE(driver.advanceMs(499));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(1));
    EXPECT_EQ(range(0, 9), sent(driver));
    // ACK 4 frees five slots of the window: the two not yet sent leave.
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 4)));
    EXPECT_EQ(range(10, 11), sent(driver));
    EXPECT_EQ(7u, EUDPTransportTest::unacked(driver.transport()).load());
    // NAK 7: everything from 7 on again, in order.
    ASSERT_TRUE(deliver(driver, eudpDatagram("NAK", 7)));
    EXPECT_EQ(range(7, 11), sent(driver));
    // A NAK at or below the last acknowledgement is refused.
    ASSERT_TRUE(deliver(driver, eudpDatagram("NAK", 3)));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings{eudpLine("W", "Received a NAK for a packet that had already been ACKed (ignoring)")},
              logged(log));
    // Silence: 500 ms after the NAK's resend, back to ACK 4.
    ASSERT_TRUE(driver.advanceMs(499));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(1));
    EXPECT_EQ(range(5, 11), sent(driver));
    // An old acknowledgement changes nothing.
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 3)));
    EXPECT_EQ(7u, EUDPTransportTest::sendQueued(driver.transport()));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings(), logged(log));
}

TEST(EUDPDriven, ServerKeepAliveEveryHalfSecondAndCloseTenSecondsAfterAnUnansweredOne) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    ASSERT_TRUE(driver.advanceMs(499));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(1));
    EXPECT_EQ(hexes({cmd(0)}), sent(driver));
    EXPECT_EQ(10500000, driver.timerDueUs(EUDPDriver::eAliveTimer));
    // Answered at 0.6 s: the next one half a second later.
    ASSERT_TRUE(driver.advanceMs(100));
    ASSERT_TRUE(deliver(driver, eudpDatagram("NOP", 0)));
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eAliveTimer));
    ASSERT_TRUE(driver.advanceMs(499));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(1));
    EXPECT_EQ(hexes({cmd(1)}), sent(driver));
    // Unanswered: closed 10 s after it (11.1 s), silently: no second keep-alive, no DIS, no line.
    ASSERT_TRUE(driver.advanceMs(9999));
    EXPECT_FALSE(driver.transport().isClosed());
    EXPECT_FALSE(driver.advanceMs(1));
    EXPECT_EQ(11100000, driver.elapsedUs());
    EXPECT_TRUE(driver.transport().hasTimedOut());
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings(), logged(log));
    EXPECT_TRUE(driver.senderEnded());
    EXPECT_TRUE(driver.receiverEnded());
    // The time-out gave a count and the receiver's end another.
    EXPECT_EQ("", received(driver));
    EXPECT_EQ("", received(driver));
    EXPECT_EQ("<-2>", received(driver));
    ASSERT_FALSE(driver.advanceMs(60000));
    EXPECT_EQ(Strings(), sent(driver));
}

TEST(EUDPDriven, ClientKeepAliveAfterOneSecondAndCloseElevenSecondsIntoSilence) {
    LogCapture log;
    EUDPDriver driver;
    driver.beginConnect(kClientPort, kListenPort);
    std::vector<EUDPDriver::Datagram> out = driver.takeSent();
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(hex(eudpDatagram("CON", 0)), hex(out[0].bytes));
    EXPECT_EQ(kListenPort, out[0].port);
    EXPECT_FALSE(driver.finishConnect());  // no answer yet
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 0), kServerPort));
    ASSERT_TRUE(driver.finishConnect());
    EXPECT_EQ(kServerPort, driver.transport().getPeerPort());
    ASSERT_TRUE(driver.advanceMs(999));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(1));
    out = driver.takeSent();
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(hex(cmd(1)), hex(out[0].bytes));  // the CON used 0
    EXPECT_EQ(kServerPort, out[0].port);
    ASSERT_TRUE(driver.advanceMs(9999));
    EXPECT_FALSE(driver.advanceMs(1));
    EXPECT_EQ(11000000, driver.elapsedUs());
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings(), logged(log));
}

TEST(EUDPDriven, ClientAnsweredWithAnotherNumberDoesNotConnect) {
    EUDPDriver driver;
    driver.beginConnect(kClientPort, kListenPort);
    driver.takeSent();
    ASSERT_TRUE(deliver(driver, eudpDatagram("ACK", 5), kServerPort));
    EXPECT_FALSE(driver.finishConnect());
    EXPECT_EQ(kServerPort, driver.transport().getPeerPort());
}

TEST(EUDPDriven, KeepAliveIsAnsweredByTheReceiveMode) {
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    ASSERT_TRUE(deliver(driver, cmd(1)));
    EXPECT_EQ(hexes({eudpDatagram("NOP", 0)}), sent(driver));
    makeReceiveReliable(driver);
    ASSERT_TRUE(deliver(driver, cmd(2)));
    EXPECT_EQ(hexes({eudpDatagram("ACK", 2)}), sent(driver));
    // Each of them re-armed the keep-alive: half a second after the last.
    EXPECT_EQ(500000, driver.timerDueUs(EUDPDriver::eSendAliveTimer));
}

TEST(EUDPDriven, InvalidDatagramsAreDroppedAndDoNotKeepTheLinkAlive) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    ASSERT_TRUE(driver.advanceMs(300));
    const Bytes wrongVersion{2, 'N', 'O', 'P', 0, 0, 0, 0};
    const Bytes tooShort{1, 'A'};
    const Bytes lowerCase{1, 'a', 'c', 'k', 0, 0, 0, 0};
    ASSERT_TRUE(deliver(driver, wrongVersion));
    ASSERT_TRUE(deliver(driver, tooShort));
    ASSERT_TRUE(deliver(driver, lowerCase));
    const std::string dropped = eudpLine("W", "dropping invalid packet");
    EXPECT_EQ((Strings{"W TARN/EUDP: packet validation failed: wrong version", dropped,
                       "W TARN/EUDP: packet validation failed: header too short", dropped,
                       "W TARN/EUDP: packet validation failed: unknown command", dropped}),
              logged(log));
    EXPECT_EQ(Strings(), sent(driver));
    ASSERT_TRUE(driver.advanceMs(200));
    EXPECT_EQ(hexes({cmd(0)}), sent(driver));  // still at 0.5 s
}

TEST(EUDPDriven, ModeAndWindowRequestsAreAnswered) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0);
    makeSendReliable(driver);
    logged(log);
    const std::string refused = eudpLine("W", "unknown mode request (ignoring)");
    // Byte 0 is taken, byte 2 refused: the send mode stays changed, and there is no answer.
    ASSERT_TRUE(deliver(driver, eudpDatagram("MOD", modeWord('T', 'D', 'X', 'D'))));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings{refused}, logged(log));
    EXPECT_EQ(eRealtime, driver.transport().getSendMode());
    ASSERT_TRUE(deliver(driver, eudpDatagram("MOD", modeWord('D', '?', 'R', '?'))));
    EXPECT_EQ(hexes({eudpDatagram("MAK", modeWord('D', 'T', 'R', 'R'))}), sent(driver));
    // A mode this side does not allow is refused the same way.
    driver.transport().allowSendMode(true, false);
    ASSERT_TRUE(deliver(driver, eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D'))));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ(Strings{refused}, logged(log));
    EXPECT_EQ(eRealtime, driver.transport().getSendMode());
    // WIN is taken as it stands, 0 and beyond the ring too.
    ASSERT_TRUE(deliver(driver, eudpDatagram("WIN", 0)));
    EXPECT_EQ(0u, driver.transport().getWindowSize());
    ASSERT_TRUE(deliver(driver, eudpDatagram("WIN", 5000)));
    EXPECT_EQ(5000u, driver.transport().getWindowSize());
    EXPECT_EQ(hexes({eudpDatagram("WAK", 0), eudpDatagram("WAK", 5000)}), sent(driver));
    EXPECT_EQ(Strings(), logged(log));
}

TEST(EUDPDriven, RequestsTakeTheAnswerThatIsThere) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0);
    EXPECT_FALSE(driver.setSendMode(eRealtime));  // no answer there: nothing sent
    EXPECT_EQ(Strings(), sent(driver));
    // A late answer is taken by the next request, which finds it differing.
    ASSERT_TRUE(deliver(driver, eudpDatagram("MAK", modeWord('R', 'R', 'D', 'T'))));
    EXPECT_FALSE(driver.setSendMode(eRealtime));
    EXPECT_EQ(hexes({eudpDatagram("MOD", modeWord('T', 'D', 'D', 'D'))}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("E", "failed to set send mode (peer refused)")}, logged(log));
    // An answer that agrees: this side receives in the mode asked for and sends in the peer's
    // receive mode.
    ASSERT_TRUE(deliver(driver, eudpDatagram("MAK", modeWord('R', 'R', 'D', 'R'))));
    EXPECT_TRUE(driver.setSendMode(eReliable));
    EXPECT_EQ(hexes({eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D'))}), sent(driver));
    EXPECT_EQ(eReliable, driver.transport().getReceiveMode());
    EXPECT_EQ(eReliable, driver.transport().getSendMode());
    ASSERT_TRUE(deliver(driver, eudpDatagram("WAK", 7)));
    EXPECT_FALSE(driver.setWindowSize(8));
    EXPECT_EQ(hexes({eudpDatagram("WIN", 8)}), sent(driver));
    EXPECT_EQ(Strings{eudpLine("E", "failed to set window size (tried 8, got 7)")}, logged(log));
}

TEST(EUDPDriven, DisFromThePeerClosesWithoutAnAnswer) {
    LogCapture log;
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    ASSERT_TRUE(deliver(driver, cmd(1, "a")));
    EXPECT_FALSE(deliver(driver, eudpDatagram("DIS", 5)));
    EXPECT_TRUE(driver.transport().isClosed());
    EXPECT_FALSE(driver.transport().hasTimedOut());
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eSendAliveTimer));
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eAliveTimer));
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_EQ("a", received(driver));
    EXPECT_EQ("", received(driver));
    EXPECT_EQ("<-2>", received(driver));  // the receiver's end gave a single count
    EXPECT_FALSE(sendText(driver, "late"));
    EXPECT_EQ(Strings{eudpLine("D", "trying to send, but connection closed")}, logged(log));
    EXPECT_TRUE(driver.senderEnded());
}

TEST(EUDPDriven, FailedReceiveEndsTheLinkAndStopsTheTimers) {
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    EXPECT_FALSE(driver.receiveFailure(-1));
    EXPECT_TRUE(driver.transport().isClosed());
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eSendAliveTimer));
    EXPECT_TRUE(driver.receiverEnded());
    EXPECT_TRUE(driver.senderEnded());
}

TEST(EUDPDriven, DisconnectSendsOneDisWithTheNextNumber) {
    EUDPDriver driver;
    acceptFrom(driver, 0, false);
    ASSERT_TRUE(sendText(driver, "a"));
    sent(driver);
    EXPECT_FALSE(driver.disconnect());
    EXPECT_EQ(hexes({eudpDatagram("DIS", 1)}), sent(driver));
    EXPECT_FALSE(driver.disconnect());
    EXPECT_EQ(Strings(), sent(driver));
    EXPECT_FALSE(driver.isTimerRunning(EUDPDriver::eSendAliveTimer));
}

// Two driven transports wired to each other, every datagram arriving in the same instant it
// leaves: the server's accepted end and a client connected to it.
struct DrivenPair {
    EUDPDriver server;
    EUDPDriver client;

    bool open() {
        client.beginConnect(kClientPort, kListenPort);
        std::vector<EUDPDriver::Datagram> con = client.takeSent();
        if (con.size() != 1) {
            return false;
        }
        server.accept(kClientPort, testsupport::le32(con[0].bytes, 4));
        shuttle();
        return client.finishConnect();
    }
    // Hands over what each side sent until both are quiet.
    void shuttle() {
        for (int round = 0; round < 100; ++round) {
            std::vector<EUDPDriver::Datagram> toClient = server.takeSent();
            std::vector<EUDPDriver::Datagram> toServer = client.takeSent();
            if (toClient.empty() && toServer.empty()) {
                return;
            }
            for (const EUDPDriver::Datagram& datagram : toClient) {
                client.receive(datagram.bytes.data(), datagram.bytes.size(), kServerPort);
            }
            for (const EUDPDriver::Datagram& datagram : toServer) {
                server.receive(datagram.bytes.data(), datagram.bytes.size());
            }
        }
    }
    void advanceMs(int ms) {
        for (int i = 0; i < ms; ++i) {
            server.advanceMs(1);
            client.advanceMs(1);
            shuttle();
        }
    }
};

TEST(EUDPDriven, IdlePairExchangesOneKeepAlivePerQuietSpellFor30s) {
    DrivenPair pair;
    ASSERT_TRUE(pair.open());
    pair.advanceMs(30000);
    EXPECT_FALSE(pair.server.transport().isClosed());
    EXPECT_FALSE(pair.client.transport().isClosed());
    // The server's keep-alive every half second, each answered at once, keeps both quiet spells
    // short: the client never sends one of its own.
    EXPECT_EQ(60, EUDPTransportTest::sendSeq(pair.server.transport()).getValue());
    EXPECT_EQ(1, EUDPTransportTest::sendSeq(pair.client.transport()).getValue());
    ASSERT_TRUE(sendText(pair.client, "ok"));
    pair.shuttle();
    EXPECT_EQ("ok", received(pair.server));
}

TEST(EUDPDriven, PairWhoseServerFallsSilentIsClosedByTheClientElevenSecondsLater) {
    DrivenPair pair;
    ASSERT_TRUE(pair.open());
    pair.advanceMs(2000);
    // The server end goes away without a word: nothing it sends arrives any more.
    const std::int64_t silentFrom = pair.client.elapsedUs();
    for (int ms = 0; ms < 12000 && !pair.client.transport().isClosed(); ++ms) {
        pair.client.advanceMs(1);
        pair.client.takeSent();
    }
    ASSERT_TRUE(pair.client.transport().isClosed());
    // The last answer came at 2.0 s: a keep-alive at 3.0 s and the close 10 s after it.
    EXPECT_EQ(11000000, pair.client.elapsedUs() - silentFrom);
}

}  // namespace
