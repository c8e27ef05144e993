// The modes an EUDP listener's accepted connections allow (allowAcceptedSendMode,
// allowAcceptedReceiveMode): in force from the accepted transport's first datagram on, before the
// application has seen the connection; every mode when they are not set.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tarnlistener.h>

#include "testsupport.h"

using testsupport::Bytes;
using testsupport::eudpDatagram;

namespace {

const int kWaitMs = 5000;

// A mode request: `send` for the server's send direction, `receive` for its receive direction;
// 'D' leaves a direction as it is.
std::uint32_t modWord(char send, char receive) {
    return 0x44004400u | static_cast<std::uint32_t>(static_cast<unsigned char>(send)) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(receive)) << 16);
}

// Waits for a datagram with `command`, passing over everything else (keep-alives); its word goes
// to `word` and its sender's port to `from`.
bool receiveCommand(testsupport::RawUdp& raw, const char* command, std::uint32_t& word, std::uint16_t& from) {
    const std::int64_t deadline = testsupport::nowMs() + kWaitMs;
    Bytes datagram;
    while (testsupport::nowMs() < deadline &&
           raw.receive(datagram, from, static_cast<int>(deadline - testsupport::nowMs()))) {
        if (datagram.size() >= 8 && datagram[1] == command[0] && datagram[2] == command[1] &&
            datagram[3] == command[2]) {
            word = testsupport::le32(datagram, 4);
            return true;
        }
    }
    return false;
}

// Keeps every connection in a set, but only once the raw peer has had its first mode answer (or
// the wait ran out): the answer cannot come from anything the application did with the connection.
class LateConnector final : public ITARNConnector {
public:
    LateConnector(TARNConnectionSet& set, std::atomic<bool>& answered) : m_set(set), m_answered(answered) {}
    void onNewConnection(TARNConnection* connection) override {
        testsupport::waitUntil([this] { return m_answered.load(); }, kWaitMs);
        m_set.add(connection, nullptr);
    }

private:
    TARNConnectionSet& m_set;
    std::atomic<bool>& m_answered;
};

// A raw peer's handshake with `listener`, a refused request and an allowed one sent at once after
// the ACK; returns the first MAK's word (0 when none came).
std::uint32_t firstAnswer(TARNListener& listener, std::uint32_t refused, std::uint32_t allowed) {
    TARNConnectionSet set;
    std::atomic<bool> answered{false};
    if (!listener.bindAndListen("127.0.0.1", 0, new LateConnector(set, answered))) {
        return 0;
    }
    testsupport::RawUdp raw;
    std::uint32_t word = 0;
    std::uint16_t server = 0;
    const bool handshake = raw.sendTo(eudpDatagram("CON", 7), listener.getLocalPort()) &&
                           receiveCommand(raw, "ACK", word, server);
    word = 0;
    std::uint16_t from = 0;
    if (handshake && raw.sendTo(eudpDatagram("MOD", refused), server) &&
        raw.sendTo(eudpDatagram("MOD", allowed), server) && !receiveCommand(raw, "MAK", word, from)) {
        word = 0;
    }
    answered = true;
    listener.shutdown(-1);
    set.closeAll();
    return word;
}

std::uint32_t byteOf(std::uint32_t word, int index) {
    return (word >> (8 * index)) & 0xFF;
}

}  // namespace

TEST(AcceptedModes, ARefusedSendModeGetsNoAnswerEvenRightAfterTheHandshake) {
    TARNListener listener(eTransportEUDP);
    listener.allowAcceptedSendMode(true, false);
    const std::uint32_t word = firstAnswer(listener, modWord('R', 'D'), modWord('T', 'D'));
    EXPECT_EQ(static_cast<std::uint32_t>('T'), byteOf(word, 0)) << std::hex << word;
    EXPECT_EQ(static_cast<std::uint32_t>('T'), byteOf(word, 1)) << std::hex << word;
}

TEST(AcceptedModes, ARefusedReceiveModeGetsNoAnswerEvenRightAfterTheHandshake) {
    TARNListener listener(eTransportEUDP);
    listener.allowAcceptedReceiveMode(false, true);
    const std::uint32_t word = firstAnswer(listener, modWord('D', 'T'), modWord('D', 'R'));
    EXPECT_EQ(static_cast<std::uint32_t>('R'), byteOf(word, 2)) << std::hex << word;
    EXPECT_EQ(static_cast<std::uint32_t>('R'), byteOf(word, 3)) << std::hex << word;
    EXPECT_EQ(static_cast<std::uint32_t>('T'), byteOf(word, 1)) << std::hex << word;
}

TEST(AcceptedModes, WithoutThemEveryModeIsAllowed) {
    TARNListener listener(eTransportEUDP);
    const std::uint32_t word = firstAnswer(listener, modWord('R', 'D'), modWord('T', 'D'));
    EXPECT_EQ(static_cast<std::uint32_t>('R'), byteOf(word, 0)) << std::hex << word;
    EXPECT_EQ(static_cast<std::uint32_t>('R'), byteOf(word, 1)) << std::hex << word;
}

TEST(AcceptedModes, NeitherModeIsRefusedAndTheSettingBeforeStays) {
    testsupport::LogCapture log;
    TARNListener listener(eTransportEUDP);
    listener.allowAcceptedSendMode(true, false);
    listener.allowAcceptedSendMode(false, false);
    const std::uint32_t word = firstAnswer(listener, modWord('R', 'D'), modWord('T', 'D'));
    EXPECT_EQ(static_cast<std::uint32_t>('T'), byteOf(word, 0)) << std::hex << word;
    EXPECT_NE(std::string::npos, log.dump().find("allowing neither realtime nor reliable mode"))
        << log.dump();
}
