// The high-level server's C++ half: a listener, the connections it hands over (each with its
// subscriptions), a table of named states, and an EventQueue of what the clients do.
//
// A subscription to a name that has a state gets that state at once; setting a state sends it to
// every subscriber. State sends to one connection are made under that connection's own lock and
// always carry the table's value of the moment, so the last update a subscriber gets is the latest
// state even when a subscription and a change cross.
//
// Ownership: ServerCore owns the listener; the hub (table, connections, queue) is shared with the
// connector and with each session, which are the library's callback objects. A session owns its
// connection until the connection ended (both eConnected and eDisconnected seen) or the server
// closed; the reaper then deletes the connection, and the session after it.
//
// Threads: the connector runs on the listener's thread, each session on its connection's receive
// thread; set, trigger, the listings and close on Python threads without the GIL.
#ifndef TARN_PYTHON_SERVERCORE_H
#define TARN_PYTHON_SERVERCORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "eventqueue.h"
#include "runtime.h"
#include "values.h"

namespace tarnpy {

struct ServerEvent {
    enum Kind { Connected, Subscribe, Unsubscribe, Call, Disconnected };
    Kind kind = Connected;
    int connection = 0;
    std::string peer;
    std::string name;
    NamedValues params;
};

struct ConnectionInfo {
    int id = 0;
    std::string peer;
    std::vector<std::string> subscriptions;
};

class ServerHub;

class ServerCore : public Closable {
public:
    ServerCore(bool tcp, std::size_t queueLimit);
    ~ServerCore() override;

    // Binds and starts accepting; false with `error` set when the address cannot be bound. No GIL.
    bool listen(const std::string& host, std::uint16_t port, std::string& error);
    std::uint16_t port() const { return m_port; }

    // Each returns the number of connections that took the message. A trigger goes to the
    // subscribers of `name`, or to connection `only` when it is not 0.
    int set(const std::string& name, const ParameterValue& value);
    int trigger(const std::string& name, const ParameterValue& value, int only);
    bool state(const std::string& name, ParameterValue& value) const;
    std::vector<std::pair<std::string, ParameterValue>> states() const;
    std::vector<ConnectionInfo> connections() const;

    // Stops accepting and closes every connection (in the background, on the reaper).
    void close();
    void closeForExit() override { close(); }

    EventQueue<ServerEvent>& queue();

private:
    const bool m_tcp;
    std::shared_ptr<ServerHub> m_hub;
    std::mutex m_listenerMutex;
    TARNListener* m_pListener = nullptr;
    std::uint16_t m_port = 0;
};

}  // namespace tarnpy

#endif  // TARN_PYTHON_SERVERCORE_H
