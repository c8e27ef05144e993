// Python callables as the library's ITARNClient and ITARNServer, and the Python Connection object.
//
// The callables are set and read under the GIL only. A callback that raises is reported (see
// reportCallbackError) and the receive loop goes on. The callback objects live as long as the
// connection that calls them: they are let go on the reaper after the connection was deleted.
#ifndef TARN_PYTHON_CALLBACKS_H
#define TARN_PYTHON_CALLBACKS_H

#include <pybind11/pybind11.h>

#include <memory>

#include <tarnconnection.h>

#include "runtime.h"

namespace tarnpy {

namespace py = pybind11;

class ClientCallbacks : public ITARNClient {
public:
    void onTrigger(const std::string& name, const ParameterValue& value) override;
    void onUpdateState(const std::string& name, const ParameterValue& value) override;
    void onStatusChanged(EConnStatus status) override;

    py::object m_onTrigger;
    py::object m_onUpdateState;
    py::object m_onStatusChanged;
};

class ServerCallbacks : public ITARNServer {
public:
    void onSubscribe(const std::string& name) override;
    void onUnsubscribe(const std::string& name) override;
    void onCallFunctionId(const std::string& name, const ParameterList& params) override;
    void onStatusChanged(EConnStatus status) override;

    py::object m_onSubscribe;
    py::object m_onUnsubscribe;
    py::object m_onCallFunctionId;
    py::object m_onStatusChanged;
    Handoff* m_pHandoff = nullptr;  // completed by eConnected on an accepted connection
};

struct Callbacks {
    Callbacks() = default;
    Callbacks(const Callbacks&) = delete;
    Callbacks& operator=(const Callbacks&) = delete;
    // Lets go of the callables under the GIL, or keeps them for good once Python is gone.
    ~Callbacks();

    ClientCallbacks client;
    ServerCallbacks server;
};

// The Python Connection: a reference to the connection (null once closed) and its callbacks.
class PyConnection {
public:
    PyConnection(ConnRef connection, std::shared_ptr<Callbacks> callbacks);
    PyConnection(PyConnection&&) = default;
    ~PyConnection();

    // The connection, or ValueError when closed.
    ConnRef get() const;
    void close();

    ConnRef m_connection;
    std::shared_ptr<Callbacks> m_callbacks;
};

// A connection accepted by a listener, with its hand-over still to complete.
PyConnection adoptAccepted(TARNConnection* connection);

}  // namespace tarnpy

#endif  // TARN_PYTHON_CALLBACKS_H
