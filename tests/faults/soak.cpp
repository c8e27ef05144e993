// The soak run behind scripts/soak (not a ctest test): clients on TCP and EUDP connect, exchange
// mixed traffic (reliable and realtime, calls up and triggers down), disconnect at random and come
// back, for a given time. Every reliable session must deliver everything it sent, every realtime
// one a strictly increasing stream. Prints resident memory and threads every 10 s and a summary;
// exits 1 when a check failed or memory kept growing.
//   tarn_fault_soak [SECONDS [CLIENTS]]     defaults: 600 seconds, 50 clients (half on each transport)
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <logging/logging.h>
#include <sal/thread.h>

#include "faultsupport.h"
#include "testsupport.h"

using testsupport::nowMs;
using testsupport::waitUntil;

namespace {

struct Totals {
    std::atomic<long> sessions{0};
    std::atomic<long> callsSent{0};
    std::atomic<long> callsDelivered{0};
    std::atomic<long> triggersReceived{0};
    std::atomic<long> failures{0};
    std::atomic<long> connectFailures{0};
};

void report(const char* what, int worker, const std::string& detail, Totals& totals) {
    ++totals.failures;
    std::fprintf(stderr, "soak: worker %d: %s %s\n", worker, what, detail.c_str());
}

// One client: sessions of 1 to 10 s until the deadline.
void worker(int id, ETransport kind, faults::TestServer& server, std::int64_t deadline, Totals& totals) {
    std::mt19937 random(static_cast<std::uint32_t>(id * 7919 + 1));
    while (nowMs() < deadline) {
        faults::SeqClient client;
        std::unique_ptr<TARNConnection> connection =
            faults::connectWithRetry(kind, server.port(), &client, 3);
        if (!connection) {
            ++totals.connectFailures;
            continue;
        }
        const bool reliable = kind == eTransportTCP || random() % 2 == 0;
        if (kind == eTransportEUDP && reliable &&
            !connection->setReceiveMode(eReliable)) {  // one try, then a new connection
            report("negotiation failed", id, "", totals);
            faults::closeClient(connection, client);
            continue;
        }
        const uint16 port = connection->getLocalPort();
        int index = -1;
        waitUntil([&] { return (index = server.accepted().findByPeerPort(port)) >= 0; }, 5000);
        faults::SeqServer* recorder =
            index >= 0 ? server.accepted().server(static_cast<std::size_t>(index)) : nullptr;
        if (recorder == nullptr) {
            report("session not found on the server", id, "", totals);
            faults::closeClient(connection, client);
            continue;
        }
        // Triggers flow down only where the server sends in realtime (or over TCP): a reliable
        // sender blocked on a full ring is not woken when its connection closes.
        if (kind == eTransportTCP || random() % 3 == 0) {
            connection->subscribe("stream");
        }
        const std::int64_t end =
            std::min(deadline, nowMs() + 1000 + static_cast<std::int64_t>(random() % 9000));
        const int pause = static_cast<int>(random() % 5);
        int sent = 0;
        while (nowMs() < end) {
            if (connection->callFunctionId("seq", faults::seqParams(sent))) {
                ++sent;
            }
            sal::Thread::mssleep(pause + 1);
        }
        if (reliable) {
            waitUntil([&] { return static_cast<int>(recorder->calls.size()) >= sent; }, 15000);
        }
        const std::vector<int> values = recorder->calls.values();
        const std::string problem =
            reliable ? faults::checkComplete(values, sent) : faults::checkIncreasing(values);
        if (!problem.empty()) {
            report(reliable ? "reliable session incomplete:" : "realtime session out of order:", id, problem,
                   totals);
        }
        const std::string down = faults::checkIncreasing(client.triggers.values());
        if (!down.empty()) {
            report("triggers out of order:", id, down, totals);
        }
        totals.callsSent += sent;
        totals.callsDelivered += static_cast<long>(values.size());
        totals.triggersReceived += static_cast<long>(client.triggers.size());
        ++totals.sessions;
        faults::closeClient(connection, client);
        if (client.disconnects() != 1) {
            report("eDisconnected reports:", id, std::to_string(client.disconnects()), totals);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 600;
    const int clients = argc > 2 ? std::atoi(argv[2]) : 50;
    Corvane::Utilities::Logging::LogManager::getInstance().setLevel(Corvane::Utilities::Logging::eError);
    tarnInit();
    Totals totals;
    {
        faults::TestServer tcp(eTransportTCP);
        faults::TestServer eudp(eTransportEUDP);
        if (tcp.start() == 0 || eudp.start() == 0) {
            std::fprintf(stderr, "soak: cannot listen\n");
            return 1;
        }
        const std::int64_t start = nowMs();
        const std::int64_t deadline = start + seconds * 1000L;
        std::vector<std::thread> workers;
        for (int i = 0; i < clients; ++i) {
            const ETransport kind = i % 2 == 0 ? eTransportTCP : eTransportEUDP;
            workers.emplace_back(worker, i, kind, std::ref(kind == eTransportTCP ? tcp : eudp), deadline,
                                 std::ref(totals));
        }
        std::vector<long> resident;
        std::int64_t nextReport = start;
        while (nowMs() < deadline) {
            sal::Thread::mssleep(500);
            const std::size_t live = tcp.accepted().reap() + eudp.accepted().reap();
            if (nowMs() >= nextReport) {
                nextReport += 10000;
                resident.push_back(faults::residentKb());
                std::printf(
                    "soak: %4lld s  resident %6ld MiB  threads %4d  live connections %3zu  sessions %6ld  "
                    "failures %ld\n",
                    static_cast<long long>((nowMs() - start) / 1000), resident.back() / 1024,
                    faults::threadCount(), live, totals.sessions.load(), totals.failures.load());
                std::fflush(stdout);
            }
        }
        for (std::thread& thread : workers) {
            thread.join();
        }
        tcp.stop();
        eudp.stop();
        // Memory: after the first minute, resident memory may wander but not keep growing.
        if (resident.size() > 7) {
            const long settled = resident[6];
            if (resident.back() > settled + settled / 2 + 64 * 1024) {
                std::fprintf(stderr, "soak: resident memory grew from %ld to %ld MiB\n", settled / 1024,
                             resident.back() / 1024);
                ++totals.failures;
            }
        }
    }
    std::printf(
        "soak: %ld sessions, %ld calls sent, %ld delivered, %ld triggers received, %ld connect "
        "attempts that failed, %ld failures\n",
        totals.sessions.load(), totals.callsSent.load(), totals.callsDelivered.load(),
        totals.triggersReceived.load(), totals.connectFailures.load(), totals.failures.load());
    tarnDeinit();
    return totals.failures.load() == 0 && totals.sessions.load() > 0 ? 0 : 1;
}
