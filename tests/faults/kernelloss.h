// Numbered TARN streams between a client and a server in this process, and the network namespace
// with kernel packet loss they run in for the loss suites.
//
// Threads: runStream uses two sender threads of its own next to the library's; everything else
// runs on the caller's thread.
#ifndef TARN_TESTS_FAULTS_KERNELLOSS_H
#define TARN_TESTS_FAULTS_KERNELLOSS_H

#include <string>
#include <vector>

#include "faultsupport.h"

namespace faults {

// Moves this process's calling thread, and so every thread it starts from now on, into a network
// namespace of its own with the loopback interface up; each test process gets a private network
// whose rules nobody else sees. Installs iproute2 and nftables when they are missing (root only).
// False with the reason when no namespace can be made here; calling it again is harmless.
bool enterOwnNetworkNamespace(std::string& why);

// Replaces the namespace's rules with one that drops `permille` of every incoming packet of
// `protocol` ("udp" or "tcp"): an input hook, so that senders see no error, only loss.
bool setKernelLoss(const std::string& protocol, int permille, std::string& why);

struct StreamOptions {
    ETransport kind = eTransportEUDP;
    bool reliable = true;  // EUDP: negotiate reliable delivery both ways first
    int messages = 1000;   // each way
    int timeoutMs = 120000;
    int attempts = 8;  // for connect and for each negotiation request
};

struct StreamResult {
    std::string setupError;  // empty when the connection and negotiation worked
    std::vector<int> toServer;
    std::vector<int> toClient;
    double seconds = 0.0;  // from the first message sent to the last one received (or quiet)
    int connectAttempts = 0;
    int modeAttempts = 0;  // connections on which the modes were negotiated
};

// Connects to `port` (the server's, or a relay's in front of it), negotiates, then sends
// `messages` numbered calls to the server and `messages` numbered triggers back at the same time.
// Reliable and TCP streams wait until everything arrived (or the time-out); realtime streams pace
// their sending and wait until the link has been quiet for a second.
StreamResult runStream(TestServer& server, uint16 port, const StreamOptions& options);

}  // namespace faults

#endif  // TARN_TESTS_FAULTS_KERNELLOSS_H
