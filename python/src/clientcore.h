// The high-level client's C++ half: one connection whose triggers, state updates and end arrive in an
// EventQueue, so that the library's receive thread never waits for Python.
//
// Ownership: held by the Python Client through a shared pointer; the connection it owns holds it
// too (as its client callbacks) until the connection has been deleted on the reaper.
//
// Threads: the callbacks run on the receive thread and only push. Everything else is called from
// Python threads without the GIL; sends may run on several threads at once, and close() on any
// thread while they do.
#ifndef TARN_PYTHON_CLIENTCORE_H
#define TARN_PYTHON_CLIENTCORE_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include <tarnconnection.h>

#include "eventqueue.h"
#include "runtime.h"
#include "values.h"

namespace tarnpy {

struct ClientEvent {
    enum Kind { Update, Trigger, Disconnected };
    Kind kind = Update;
    std::string name;
    ParameterValue value;
};

class ClientCore : public ITARNClient, public Closable, public std::enable_shared_from_this<ClientCore> {
public:
    // Send and receive modes this side agrees to when the peer asks (EUDP only).
    struct Allowed {
        bool sendRealtime = true;
        bool sendReliable = true;
        bool receiveRealtime = true;
        bool receiveReliable = true;
    };

    ClientCore(bool tcp, std::size_t queueLimit);
    ~ClientCore() override;

    // Connects; on failure the connection is let go at once. Without the GIL.
    bool connect(const std::string& host, std::uint16_t port, const Allowed& allowed);

    // One send: false when the client is closed or the link refused the message.
    enum class Command { Subscribe, Unsubscribe, Call };
    bool send(Command command, const std::string& name, const ParameterList* params);
    bool setSendMode(EConnMode mode);
    bool setReceiveMode(EConnMode mode);
    bool setWindowSize(unsigned int size);

    // Closes the link, waits until the receive loop has ended and lets the connection go.
    void close();
    void closeForExit() override { close(); }

    bool isConnected() const { return m_connected.load(); }
    bool isTcp() const { return m_tcp; }
    std::uint16_t localPort();
    std::string peer();

    EventQueue<ClientEvent>& queue() { return m_queue; }

    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override;

private:
    ConnRef reference();

    const bool m_tcp;
    EventQueue<ClientEvent> m_queue;
    std::mutex m_mutex;  // guards m_connection
    ConnRef m_connection;
    std::atomic<bool> m_connected{false};
    std::mutex m_loopMutex;
    std::condition_variable m_loopEnded;
    bool m_loopRunning = false;
};

}  // namespace tarnpy

#endif  // TARN_PYTHON_CLIENTCORE_H
