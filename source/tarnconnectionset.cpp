// TARNConnectionSet: accepted connections with the statuses they reported, deleted once ended.
#include <tarnlistener.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include <tarnconnection.h>

namespace {

// How long closeAll waits for a connection's statuses before it deletes the connection all the same
// (its destructor still waits for the receive thread).
const std::chrono::seconds kStatusWait(30);

// The most deletions at the same moment: each mostly waits out the destructor's pause, so many at
// once cost little.
const std::size_t kParallelDeletes = 256;

}  // namespace

class TARNConnectionSet::Impl {
public:
    // Sits between a connection and the application's server: hands every callback on and notes
    // the statuses.
    struct Entry final : ITARNServer {
        Entry(Impl& impl, TARNConnection* c, ITARNServer* s, bool own)
            : owner(impl), connection(c), server(s), ownsServer(own) {}
        ~Entry() override {
            if (ownsServer) {
                delete server;
            }
        }
        void onSubscribe(const std::string& name) override {
            if (server != nullptr) {
                server->onSubscribe(name);
            }
        }
        void onUnsubscribe(const std::string& name) override {
            if (server != nullptr) {
                server->onUnsubscribe(name);
            }
        }
        void onCallFunctionId(const std::string& name, const ParameterList& params) override {
            if (server != nullptr) {
                server->onCallFunctionId(name, params);
            }
        }
        void onStatusChanged(EConnStatus status) override {
            if (server != nullptr) {
                server->onStatusChanged(status);
            }
            owner.noteStatus(*this, status);
        }
        bool ended() const { return connected && disconnected; }

        Impl& owner;
        TARNConnection* const connection;
        ITARNServer* const server;
        const bool ownsServer;
        bool connected = false;     // under the owner's mutex
        bool disconnected = false;  // under the owner's mutex
    };

    void noteStatus(Entry& entry, EConnStatus status) {
        std::lock_guard<std::mutex> lock(mutex);
        (status == eConnected ? entry.connected : entry.disconnected) = true;
        changed.notify_all();
    }

    // Disconnects (when asked), waits for both statuses, deletes; up to kParallelDeletes threads
    // take the entries in turn. A thread that cannot be started (a process at its thread limit)
    // leaves its share to the others, or to the calling thread when none started.
    void end(std::vector<std::unique_ptr<Entry>>& ending, bool disconnect) {
        std::atomic<std::size_t> next(0);
        auto work = [this, &ending, &next, disconnect] {
            for (std::size_t i = next++; i < ending.size(); i = next++) {
                endOne(*ending[i], disconnect);
            }
        };
        std::vector<std::thread> workers;
        for (std::size_t i = 1; i < ending.size() && workers.size() < kParallelDeletes; ++i) {
            try {
                workers.emplace_back(work);
            } catch (const std::system_error&) {
                break;
            }
        }
        work();
        for (std::thread& worker : workers) {
            worker.join();
        }
        ending.clear();  // the relays go after their connections
    }

    void endOne(Entry& entry, bool disconnect) {
        if (disconnect) {
            entry.connection->disconnect();
        }
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_for(lock, kStatusWait, [&entry] { return entry.ended(); });
        }
        if (endingHandler) {
            endingHandler(entry.connection, entry.server);
        }
        delete entry.connection;
    }

    // Takes the entry of `connection` out of the set; null when it holds none.
    std::unique_ptr<Entry> take(TARNConnection* connection) {
        std::lock_guard<std::mutex> lock(mutex);
        for (std::unique_ptr<Entry>& entry : entries) {
            if (entry->connection == connection) {
                std::unique_ptr<Entry> taken = std::move(entry);
                entry = std::move(entries.back());
                entries.pop_back();
                return taken;
            }
        }
        return nullptr;
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::unique_ptr<Entry>> entries;
    EndingHandler endingHandler;  // set before the first add, read by the deleting threads
};

TARNConnectionSet::TARNConnectionSet() : m_pImpl(new Impl) {}

TARNConnectionSet::~TARNConnectionSet() {
    closeAll();
    delete m_pImpl;
}

void TARNConnectionSet::setEndingHandler(EndingHandler handler) {
    m_pImpl->endingHandler = std::move(handler);
}

void TARNConnectionSet::add(TARNConnection* connection, ITARNServer* server, bool deleteServer) {
    std::unique_ptr<Impl::Entry> entry(new Impl::Entry(*m_pImpl, connection, server, deleteServer));
    connection->setServer(entry.get());
    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    m_pImpl->entries.push_back(std::move(entry));
}

std::size_t TARNConnectionSet::reap() {
    std::vector<std::unique_ptr<Impl::Entry>> ended;
    std::size_t left = 0;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->mutex);
        std::vector<std::unique_ptr<Impl::Entry>> live;
        for (std::unique_ptr<Impl::Entry>& entry : m_pImpl->entries) {
            (entry->ended() ? ended : live).push_back(std::move(entry));
        }
        m_pImpl->entries.swap(live);
        left = m_pImpl->entries.size();
    }
    m_pImpl->end(ended, false);
    return left;
}

bool TARNConnectionSet::close(TARNConnection* connection) {
    std::unique_ptr<Impl::Entry> entry = m_pImpl->take(connection);
    if (!entry) {
        return false;
    }
    m_pImpl->endOne(*entry, true);
    return true;
}

void TARNConnectionSet::closeAll() {
    std::vector<std::unique_ptr<Impl::Entry>> all;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->mutex);
        all.swap(m_pImpl->entries);
    }
    m_pImpl->end(all, true);
}

std::size_t TARNConnectionSet::size() const {
    std::lock_guard<std::mutex> lock(m_pImpl->mutex);
    return m_pImpl->entries.size();
}
