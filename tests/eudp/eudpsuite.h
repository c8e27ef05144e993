// What the EUDP suites share beyond eudptestaccess.h: the names they use, and what their raw peer
// does with the server end it is connected to (ServerWithRawPeer): the mode word it asks with, the
// mode and window requests it makes and the answers it checks, and the exact datagram it expects
// next; plus sending a text message.
#ifndef TARN_TESTS_EUDP_EUDPSUITE_H
#define TARN_TESTS_EUDP_EUDPSUITE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "eudptestaccess.h"

namespace eudptest {

// The four mode letters of a MOD or MAK word, first letter in the lowest byte.
inline std::uint32_t modeWord(char b0, char b1, char b2, char b3) {
    return static_cast<std::uint8_t>(b0) | (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b1)) << 8) |
           (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b2)) << 16) |
           (static_cast<std::uint32_t>(static_cast<std::uint8_t>(b3)) << 24);
}

// The peer sends `request` and checks that the server end answers exactly `answer`.
inline void expectAnswer(ServerWithRawPeer& peer, const testsupport::Bytes& request,
                         const testsupport::Bytes& answer) {
    ASSERT_TRUE(peer.sendToServer(request));
    testsupport::Bytes datagram;
    ASSERT_TRUE(peer.next(datagram)) << "expected " << testsupport::hex(answer);
    ASSERT_EQ(testsupport::hex(answer), testsupport::hex(datagram));
}

// The peer asks the server end to send reliably, or to receive reliably, and checks its MAK.
inline void makeSendReliable(ServerWithRawPeer& peer) {
    expectAnswer(peer, testsupport::eudpDatagram("MOD", modeWord('R', 'D', 'D', 'D')),
                 testsupport::eudpDatagram("MAK", modeWord('R', 'R', 'D', 'T')));
}
inline void makeReceiveReliable(ServerWithRawPeer& peer) {
    expectAnswer(peer, testsupport::eudpDatagram("MOD", modeWord('D', 'D', 'R', 'D')),
                 testsupport::eudpDatagram("MAK", modeWord('D', 'T', 'R', 'R')));
}

// A WIN/WAK round trip: the server end's window becomes `size`, and everything the peer sent
// before has been handled when it returns.
inline void setWindow(ServerWithRawPeer& peer, std::uint32_t size) {
    expectAnswer(peer, testsupport::eudpDatagram("WIN", size), testsupport::eudpDatagram("WAK", size));
}

// The next datagram from the server end is exactly `expected`.
inline void expectNext(ServerWithRawPeer& peer, const testsupport::Bytes& expected) {
    testsupport::Bytes datagram;
    ASSERT_TRUE(peer.next(datagram)) << "expected " << testsupport::hex(expected);
    EXPECT_EQ(testsupport::hex(expected), testsupport::hex(datagram));
}

inline bool send(EUDPTransport& t, const std::string& text) {
    return t.sendData(reinterpret_cast<const uint8*>(text.data()), static_cast<uint>(text.size()));
}

}  // namespace eudptest

// The names the EUDP suites use, brought in once.
using Corvane::Utilities::Logging::eDebug;
using Corvane::Utilities::Logging::eError;
using Corvane::Utilities::Logging::eWarning;
using eudptest::ClientWithRawPeer;
using eudptest::commandOf;
using eudptest::expectNext;
using eudptest::line;
using eudptest::makeReceiveReliable;
using eudptest::makeSendReliable;
using eudptest::modeWord;
using eudptest::payloadOf;
using eudptest::send;
using eudptest::ServerWithRawPeer;
using eudptest::setWindow;
using eudptest::TransportPair;
using testsupport::Bytes;
using testsupport::bytesOf;
using testsupport::eudpDatagram;
using testsupport::hex;
using testsupport::le32;
using testsupport::LogCapture;
using testsupport::nowMs;
using testsupport::RawUdp;
using testsupport::waitUntil;

#endif  // TARN_TESTS_EUDP_EUDPSUITE_H
