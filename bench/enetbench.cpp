#include "enetbench.h"

#ifdef TARN_BENCH_HAVE_ENET

#include <enet/enet.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace bench {

namespace {

const std::uint32_t kMtu = 1500;
const std::int64_t kQueueLimit = 999;

// Once per process: ENet keeps global state.
bool initialise() {
    static const bool ok = enet_initialize() == 0;
    return ok;
}

struct Hosts {
    ENetHost* server = nullptr;
    ENetHost* client = nullptr;
    ENetPeer* toClient = nullptr;  // the server's peer
    ENetPeer* toServer = nullptr;  // the client's peer

    ~Hosts() {
        if (client != nullptr) {
            enet_host_destroy(client);
        }
        if (server != nullptr) {
            enet_host_destroy(server);
        }
    }
};

// Creates both hosts and connects them, servicing both from this thread.
bool connectHosts(Hosts& hosts, std::string& note) {
    if (!initialise()) {
        note = "enet_initialize failed";
        return false;
    }
    ENetAddress address;
    enet_address_set_host(&address, "127.0.0.1");
    address.port = 0;
    hosts.server = enet_host_create(&address, 1, 1, 0, 0);
    hosts.client = enet_host_create(nullptr, 1, 1, 0, 0);
    if (hosts.server == nullptr || hosts.client == nullptr ||
        enet_socket_get_address(hosts.server->socket, &address) != 0) {
        note = "enet_host_create failed";
        return false;
    }
    enet_address_set_host(&address, "127.0.0.1");
    hosts.server->mtu = kMtu;
    hosts.client->mtu = kMtu;
    hosts.toServer = enet_host_connect(hosts.client, &address, 1, 0);
    if (hosts.toServer == nullptr) {
        note = "enet_host_connect failed";
        return false;
    }
    bool clientUp = false;
    const std::int64_t start = nowNs();
    while ((!clientUp || hosts.toClient == nullptr) && nowNs() - start < 5000000000LL) {
        ENetEvent event;
        while (enet_host_service(hosts.client, &event, 1) > 0) {
            clientUp = clientUp || event.type == ENET_EVENT_TYPE_CONNECT;
        }
        while (enet_host_service(hosts.server, &event, 1) > 0) {
            if (event.type == ENET_EVENT_TYPE_CONNECT) {
                hosts.toClient = event.peer;
            }
        }
    }
    if (!clientUp || hosts.toClient == nullptr) {
        note = "ENet connection timed out";
        return false;
    }
    return true;
}

std::atomic<std::int64_t> g_outstanding{0};

void released(ENetPacket*) {
    g_outstanding.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace

bool enetAvailable() {
    return true;
}

StreamRun enetStream(std::uint32_t messageLength, std::uint64_t count, double timeLimit) {
    StreamRun run;
    Hosts hosts;
    if (!connectHosts(hosts, run.note)) {
        return run;
    }
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::int64_t> lastNs{0};
    std::atomic<bool> stop{false};
    std::thread receiver([&] {
        ENetEvent event;
        while (!stop.load(std::memory_order_relaxed)) {
            if (enet_host_service(hosts.client, &event, 1) > 0 && event.type == ENET_EVENT_TYPE_RECEIVE) {
                lastNs.store(nowNs(), std::memory_order_relaxed);
                delivered.fetch_add(1, std::memory_order_relaxed);
                enet_packet_destroy(event.packet);
            }
        }
    });

    const std::vector<std::uint8_t> message(messageLength, 'x');
    g_outstanding.store(0);
    const std::uint64_t dropsBefore = udpReceiveBufferErrors();
    const double cpuStart = processCpuSeconds();
    const std::int64_t startNs = nowNs();
    std::uint64_t sent = 0;
    ENetEvent event;
    while (sent < count && (nowNs() - startNs) < timeLimit * 1e9) {
        ENetPacket* packet = enet_packet_create(message.data(), message.size(), ENET_PACKET_FLAG_RELIABLE);
        packet->freeCallback = released;
        g_outstanding.fetch_add(1, std::memory_order_relaxed);
        if (enet_peer_send(hosts.toClient, 0, packet) != 0) {
            run.note = "enet_peer_send failed";
            break;
        }
        ++sent;
        // Queue up to the limit, then let the host send and take acknowledgements.
        while (g_outstanding.load(std::memory_order_relaxed) >= kQueueLimit) {
            enet_host_service(hosts.server, &event, 1);
        }
        if (sent % 32 == 0) {
            while (enet_host_service(hosts.server, &event, 0) > 0) {
            }
        }
    }
    const std::int64_t sentNs = nowNs();
    const std::int64_t patienceNs = std::max<std::int64_t>(sentNs - startNs, 10000000000LL);
    while (delivered.load() < sent && nowNs() - sentNs < patienceNs) {
        enet_host_service(hosts.server, &event, 1);
    }
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    run.kernelDrops = udpReceiveBufferErrors() - dropsBefore;
    stop.store(true);
    receiver.join();
    run.sent = sent;
    run.delivered = delivered.load();
    run.seconds = (lastNs.load() - startNs) / 1e9;
    run.ok = run.delivered == run.sent;
    if (!run.ok && run.note.empty()) {
        run.note = "not all delivered";
    }
    return run;
}

RttRun enetRoundTrips(std::uint32_t callLength, std::uint32_t replyLength, std::uint32_t count,
                      std::uint32_t warmUp, double timeLimit) {
    RttRun run;
    Hosts hosts;
    if (!connectHosts(hosts, run.note)) {
        return run;
    }
    std::atomic<bool> stop{false};
    std::thread answerer([&] {
        std::vector<std::uint8_t> reply(replyLength, 'r');
        ENetEvent event;
        while (!stop.load(std::memory_order_relaxed)) {
            if (enet_host_service(hosts.server, &event, 10) > 0 && event.type == ENET_EVENT_TYPE_RECEIVE) {
                std::memcpy(reply.data(), event.packet->data, 8);  // the answer names its call
                enet_packet_destroy(event.packet);
                enet_peer_send(hosts.toClient, 0,
                               enet_packet_create(reply.data(), reply.size(), ENET_PACKET_FLAG_RELIABLE));
                enet_host_flush(hosts.server);
            }
        }
    });

    run.samples.reserve(count);
    std::vector<std::uint8_t> call(callLength, 'c');
    double cpuStart = processCpuSeconds();
    std::int64_t startNs = nowNs();
    ENetEvent event;
    for (std::uint64_t i = 0; i < warmUp + count; ++i) {
        if (i == warmUp) {
            cpuStart = processCpuSeconds();
            startNs = nowNs();
        }
        const std::int64_t t0 = nowNs();
        std::memcpy(call.data(), &i, 8);
        enet_peer_send(hosts.toServer, 0,
                       enet_packet_create(call.data(), call.size(), ENET_PACKET_FLAG_RELIABLE));
        enet_host_flush(hosts.client);
        bool answered = false;
        while (!answered && nowNs() - t0 < 5000000000LL) {
            if (enet_host_service(hosts.client, &event, 100) > 0 && event.type == ENET_EVENT_TYPE_RECEIVE) {
                std::uint64_t echoed = 0;
                std::memcpy(&echoed, event.packet->data, 8);
                answered = echoed == i;
                enet_packet_destroy(event.packet);
            }
        }
        if (!answered) {
            run.note = "answer timed out";
            break;
        }
        if (i >= warmUp) {
            run.samples.push_back(static_cast<std::uint32_t>(nowNs() - t0));
            if ((nowNs() - startNs) > timeLimit * 1e9) {
                break;
            }
        }
    }
    run.seconds = (nowNs() - startNs) / 1e9;
    run.cpuSeconds = processCpuSeconds() - cpuStart;
    stop.store(true);
    answerer.join();
    run.ok = !run.samples.empty();
    return run;
}

}  // namespace bench

#else  // no ENet

namespace bench {

bool enetAvailable() {
    return false;
}

StreamRun enetStream(std::uint32_t, std::uint64_t, double) {
    StreamRun run;
    run.note = "ENet not built in";
    return run;
}

RttRun enetRoundTrips(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, double) {
    RttRun run;
    run.note = "ENet not built in";
    return run;
}

}  // namespace bench

#endif
