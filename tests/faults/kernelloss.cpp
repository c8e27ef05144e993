#include "kernelloss.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <sal/thread.h>

#include "testsupport.h"

namespace faults {

using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

bool run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool haveTool(const char* name) {
    return run(std::string("command -v ") + name);
}

// The tools come from scripts/setup; a test never installs anything itself.
bool ensureTool(const char* name, const char* package, std::string& why) {
    if (haveTool(name)) {
        return true;
    }
    why = std::string(name) + " is missing (package " + package + ", installed by scripts/setup)";
    return false;
}

}  // namespace

bool enterOwnNetworkNamespace(std::string& why) {
    static bool entered = false;
    static std::string failure;
    if (entered) {
        return true;
    }
    if (!failure.empty()) {
        why = failure;
        return false;
    }
    if (!ensureTool("ip", "iproute2", failure) || !ensureTool("nft", "nftables", failure)) {
        why = failure;
        return false;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        failure = "cannot make a network namespace here (unshare: " + std::string(std::strerror(errno)) +
                  "); run as root or where user namespaces are allowed";
        why = failure;
        return false;
    }
    if (!run("ip link set lo up")) {
        failure = "cannot bring the loopback interface up in the new namespace";
        why = failure;
        return false;
    }
    entered = true;
    return true;
}

bool setKernelLoss(const std::string& protocol, int permille, std::string& why) {
    const std::string rules =
        "nft flush ruleset && nft add table inet loss && "
        "nft add chain inet loss input '{ type filter hook input priority 0; policy accept; }' && "
        "nft add rule inet loss input meta l4proto " +
        protocol + " numgen random mod 1000 '<' " + std::to_string(permille) + " drop";
    if (!run(rules)) {
        why = "nft refused the loss rule";
        return false;
    }
    return true;
}

namespace {

// A connection to `port` with the modes `options` ask for, or null (with result.setupError said).
std::unique_ptr<TARNConnection> connectForStream(uint16 port, const StreamOptions& options, SeqClient& client,
                                                 StreamResult& result) {
    std::unique_ptr<TARNConnection> connection;
    const bool eudp = options.kind == eTransportEUDP;
    // Negotiation gets one try per connection. A request that timed out leaves a direction that
    // may have sent realtime datagrams (keep-alives) in the meantime; were some of them lost, the
    // receiver, once reliable, asks again and again for a datagram the sender no longer has, and
    // the direction stalls for good. A fresh connection has sent nothing yet: start over instead.
    for (int session = 0; session < options.attempts && !connection; ++session) {
        int connects = 0;
        connection = connectWithRetry(options.kind, port, &client, options.attempts, &connects);
        result.connectAttempts += connects;
        if (!connection) {
            result.setupError = "no connection after " + std::to_string(options.attempts) + " attempts";
            return nullptr;
        }
        if (!eudp || !options.reliable) {
            break;
        }
        // The client's own sending first (the peer receives reliably), then the server's.
        ++result.modeAttempts;
        if (connection->setReceiveMode(eReliable) && connection->setSendMode(eReliable) &&
            client.disconnects() == 0) {
            result.setupError.clear();
            break;
        }
        closeClient(connection, client);
        client.resetStatus();  // the connection is gone: nothing reports to `client` any more
        result.setupError = "mode negotiation failed on " + std::to_string(session + 1) + " connections";
    }
    return connection;
}

// Which accepted connection is ours: the one that hears the hello (a connect attempt that the
// client gave up may have left another one on the server); -1 when none does.
int findByHello(TestServer& server, TARNConnection& connection) {
    int index = -1;
    waitUntil(
        [&] {
            connection.subscribe("hello");
            for (std::size_t i = 0; i < server.accepted().count(); ++i) {
                if (server.accepted().server(i)->subscribes.load() > 0) {
                    index = static_cast<int>(i);
                    return true;
                }
            }
            sal::Thread::mssleep(50);
            return false;
        },
        30000);
    return index;
}

// Sends the numbered calls up and triggers down at the same time, then waits for them.
void exchange(TARNConnection& connection, TARNConnection& serverSide, SeqClient& client, SeqServer& recorder,
              const StreamOptions& options, StreamResult& result) {
    const bool paced = options.kind == eTransportEUDP && !options.reliable;
    const std::int64_t start = nowMs();
    std::thread up([&] {
        for (int i = 0; i < options.messages; ++i) {
            connection.callFunctionId("seq", seqParams(i));
            if (paced && i % 20 == 19) {
                sal::Thread::mssleep(1);
            }
        }
    });
    std::thread down([&] {
        for (int i = 0; i < options.messages; ++i) {
            serverSide.trigger("seq", ParameterValue(i));
            if (paced && i % 20 == 19) {
                sal::Thread::mssleep(1);
            }
        }
    });
    up.join();
    down.join();
    const std::size_t all = static_cast<std::size_t>(options.messages);
    if (paced) {
        std::size_t seen = 0;
        std::int64_t lastChange = nowMs();
        waitUntil(
            [&] {
                const std::size_t now = recorder.calls.size() + client.triggers.size();
                if (now != seen) {
                    seen = now;
                    lastChange = nowMs();
                }
                return seen == 2 * all || nowMs() - lastChange > 1000;
            },
            options.timeoutMs);
    } else {
        waitUntil([&] { return recorder.calls.size() >= all && client.triggers.size() >= all; },
                  options.timeoutMs);
    }
    result.seconds = static_cast<double>(nowMs() - start) / 1000.0;
    result.toServer = recorder.calls.values();
    result.toClient = client.triggers.values();
}

}  // namespace

StreamResult runStream(TestServer& server, uint16 port, const StreamOptions& options) {
    StreamResult result;
    SeqClient client;
    std::unique_ptr<TARNConnection> connection = connectForStream(port, options, client, result);
    if (!connection) {
        return result;
    }
    const int index = findByHello(server, *connection);
    if (index < 0) {
        result.setupError = "the server never heard the client";
        closeClient(connection, client);
        return result;
    }
    exchange(*connection, *server.accepted().connection(static_cast<std::size_t>(index)), client,
             *server.accepted().server(static_cast<std::size_t>(index)), options, result);
    closeClient(connection, client);
    return result;
}

}  // namespace faults
