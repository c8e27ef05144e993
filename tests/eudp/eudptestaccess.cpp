#include "eudptestaccess.h"

#include <thread>

#include <gtest/gtest.h>

using testsupport::Bytes;
using testsupport::eudpDatagram;

namespace eudptest {

std::string line(unsigned int id, const std::string& text) {
    return "TARN/EUDP[" + std::to_string(id) + "]: " + text;
}

std::string commandOf(const Bytes& datagram) {
    if (datagram.size() < 4) {
        return std::string();
    }
    return std::string(datagram.begin() + 1, datagram.begin() + 4);
}

Bytes payloadOf(const Bytes& datagram) {
    if (datagram.size() <= 8) {
        return Bytes();
    }
    return Bytes(datagram.begin() + 8, datagram.end());
}

namespace {

// The next datagram the raw peer receives from `port`, passing over those from other ports.
bool nextFrom(testsupport::RawUdp& raw, std::uint16_t port, Bytes& datagram, int timeoutMs) {
    std::uint16_t from = 0;
    std::int64_t deadline = testsupport::nowMs() + timeoutMs;
    while (true) {
        int left = static_cast<int>(deadline - testsupport::nowMs());
        if (left <= 0 || !raw.receive(datagram, from, left)) {
            return false;
        }
        if (from == port) {
            return true;
        }
    }
}

}  // namespace

bool ServerWithRawPeer::open(std::uint32_t conValue, bool quiet) {
    if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
        ADD_FAILURE() << "listen failed";
        return false;
    }
    listenPort = listener.getLocalPort();
    if (!raw.sendTo(eudpDatagram("CON", conValue), listenPort)) {
        ADD_FAILURE() << "CON not sent";
        return false;
    }
    server.reset(static_cast<EUDPTransport*>(listener.accept()));
    if (!server) {
        ADD_FAILURE() << "accept returned null";
        return false;
    }
    if (quiet) {
        EUDPTransportTest::quietTimers(*server);
    }
    Bytes ack;
    if (!raw.receive(ack, serverPort, 2000)) {
        ADD_FAILURE() << "no ACK";
        return false;
    }
    EXPECT_EQ(testsupport::hex(eudpDatagram("ACK", conValue)), testsupport::hex(ack));
    return true;
}

bool ServerWithRawPeer::next(Bytes& datagram, int timeoutMs) {
    return nextFrom(raw, serverPort, datagram, timeoutMs);
}

bool ClientWithRawPeer::open(bool quiet) {
    std::thread answer([this] {
        Bytes con;
        std::uint16_t from = 0;
        if (raw.receive(con, from, 4000) && con.size() == 8) {
            clientPort = from;
            raw.sendTo(eudpDatagram("ACK", testsupport::le32(con, 4)), from);
        }
    });
    bool ok = client.connect(sal::HostAddress("127.0.0.1"), raw.port());
    answer.join();
    if (!ok) {
        ADD_FAILURE() << "connect failed";
        return false;
    }
    if (quiet) {
        EUDPTransportTest::quietTimers(client);
    }
    return true;
}

bool ClientWithRawPeer::next(Bytes& datagram, int timeoutMs) {
    return nextFrom(raw, clientPort, datagram, timeoutMs);
}

bool TransportPair::open() {
    if (!listener.listen(sal::HostAddress("127.0.0.1"), 0)) {
        ADD_FAILURE() << "listen failed";
        return false;
    }
    std::uint16_t port = listener.getLocalPort();
    std::thread acceptor([this] { server.reset(static_cast<EUDPTransport*>(listener.accept())); });
    bool ok = client.connect(sal::HostAddress("127.0.0.1"), port);
    if (!ok) {
        listener.disconnect();
    }
    acceptor.join();
    if (!ok || !server) {
        ADD_FAILURE() << "pair did not connect";
        return false;
    }
    return true;
}

}  // namespace eudptest
