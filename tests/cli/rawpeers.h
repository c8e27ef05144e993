// EUDP peers played on raw UDP sockets, for what the tool must do against a peer that behaves in
// one exact way: answers a request or not, closes with DIS, or falls silent.
#ifndef TARN_TESTS_CLI_RAWPEERS_H
#define TARN_TESTS_CLI_RAWPEERS_H

#include <cstdint>

#include "process.h"
#include "testsupport.h"

namespace clitest {

// Waits up to `timeoutMs` on `socket` for a datagram with `command` ("MAK", "ACK", ...), passing
// over keep-alives and everything else; its header word goes to `word`.
inline bool receiveCommand(testsupport::RawUdp& socket, const char* command, std::uint32_t& word,
                           std::uint16_t& from, int timeoutMs) {
    const std::int64_t deadline = testsupport::nowMs() + timeoutMs;
    for (;;) {
        const std::int64_t left = deadline - testsupport::nowMs();
        testsupport::Bytes datagram;
        if (left <= 0 || !socket.receive(datagram, from, static_cast<int>(left))) {
            return false;
        }
        if (datagram.size() >= 8 && datagram[1] == command[0] && datagram[2] == command[1] &&
            datagram[3] == command[2]) {
            word = testsupport::le32(datagram, 4);
            return true;
        }
    }
}

// An EUDP server: answers the client's CON from its own port, and then does only what it is told.
struct RawEudpServer {
    testsupport::RawUdp socket;
    std::uint16_t clientPort = 0;

    bool acceptConnection() {
        testsupport::Bytes datagram;
        if (!socket.receive(datagram, clientPort, kWaitMs) || datagram.size() < 8 || datagram[1] != 'C') {
            return false;
        }
        return socket.sendTo(testsupport::eudpDatagram("ACK", testsupport::le32(datagram, 4)), clientPort);
    }
    bool sendDis() { return socket.sendTo(testsupport::eudpDatagram("DIS", 0), clientPort); }
    bool receiveMak(std::uint32_t& word, int timeoutMs) {
        std::uint16_t from = 0;
        return receiveCommand(socket, "MAK", word, from, timeoutMs);
    }
};

// An EUDP client: sends CON to a listening port and learns the connection's own server port from
// the ACK, and then does only what it is told.
struct RawEudpClient {
    testsupport::RawUdp socket;
    std::uint16_t serverPort = 0;

    bool connect(std::uint16_t listeningPort) {
        if (!socket.sendTo(testsupport::eudpDatagram("CON", 0), listeningPort)) {
            return false;
        }
        std::uint32_t word = 0;
        return receiveCommand(socket, "ACK", word, serverPort, kWaitMs);
    }
    bool sendTo(const char* command, std::uint32_t word) {
        return socket.sendTo(testsupport::eudpDatagram(command, word), serverPort);
    }
    bool receiveMak(std::uint32_t& word, int timeoutMs) {
        std::uint16_t from = 0;
        return receiveCommand(socket, "MAK", word, from, timeoutMs);
    }
};

}  // namespace clitest

#endif  // TARN_TESTS_CLI_RAWPEERS_H
