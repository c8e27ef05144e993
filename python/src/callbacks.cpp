#include "callbacks.h"

#include <exception>

#include "values.h"

namespace tarnpy {

namespace {

// Runs `call` under the GIL; whatever it raises is reported, never passed on to the library's thread.
template <class Call>
void guarded(const char* where, Call call) {
    withGil([&] {
        try {
            call();
        } catch (py::error_already_set& error) {
            reportCallbackError(where, error);
        } catch (const std::exception& error) {
            try {
                py::module_::import("logging").attr("getLogger")("tarn").attr("error")(
                    "exception in %s callback (the connection goes on): %s", where, error.what());
            } catch (py::error_already_set& inner) {
                inner.discard_as_unraisable(where);
            }
        }
    });
}

// The references the library passes are its own scratch objects: Python gets copies.
py::object statusObject(EConnStatus status) {
    return py::cast(status);
}

void release(py::object& object) {
    if (object) {
        object.release();  // kept for good: Python is gone and cannot take it back
    }
}

}  // namespace

// Each callback takes its own reference to the callable first, so that a callback that replaces
// the callables (set_server, connect) does not pull its own code from under itself.

void ClientCallbacks::onTrigger(const std::string& name, const ParameterValue& value) {
    guarded("on_trigger", [&] {
        if (py::object callable = m_onTrigger) {
            callable(textToPython(name), ParameterValue(value));
        }
    });
}

void ClientCallbacks::onUpdateState(const std::string& name, const ParameterValue& value) {
    guarded("on_update_state", [&] {
        if (py::object callable = m_onUpdateState) {
            callable(textToPython(name), ParameterValue(value));
        }
    });
}

void ClientCallbacks::onStatusChanged(EConnStatus status) {
    guarded("on_status_changed", [&] {
        if (py::object callable = m_onStatusChanged) {
            callable(statusObject(status));
        }
    });
}

void ServerCallbacks::onSubscribe(const std::string& name) {
    guarded("on_subscribe", [&] {
        if (py::object callable = m_onSubscribe) {
            callable(textToPython(name));
        }
    });
}

void ServerCallbacks::onUnsubscribe(const std::string& name) {
    guarded("on_unsubscribe", [&] {
        if (py::object callable = m_onUnsubscribe) {
            callable(textToPython(name));
        }
    });
}

void ServerCallbacks::onCallFunctionId(const std::string& name, const ParameterList& params) {
    guarded("on_call_function_id", [&] {
        if (py::object callable = m_onCallFunctionId) {
            callable(textToPython(name), ParameterList(params));
        }
    });
}

void ServerCallbacks::onStatusChanged(EConnStatus status) {
    if (status == eConnected && m_pHandoff != nullptr) {
        m_pHandoff->complete();
    }
    guarded("on_status_changed", [&] {
        if (py::object callable = m_onStatusChanged) {
            callable(statusObject(status));
        }
    });
}

Callbacks::~Callbacks() {
    py::object* all[] = {&client.m_onTrigger,      &client.m_onUpdateState, &client.m_onStatusChanged,
                         &server.m_onSubscribe,    &server.m_onUnsubscribe, &server.m_onCallFunctionId,
                         &server.m_onStatusChanged};
    if (pythonAlive()) {
        py::gil_scoped_acquire gil;
        for (py::object* object : all) {
            *object = py::object();
        }
    } else {
        for (py::object* object : all) {
            release(*object);
        }
    }
}

// ---- PyConnection ----------------------------------------------------------------------------------

PyConnection::PyConnection(ConnRef connection, std::shared_ptr<Callbacks> callbacks)
    : m_connection(std::move(connection)), m_callbacks(std::move(callbacks)) {}

PyConnection::~PyConnection() {
    if (m_connection) {
        close();
    }
}

ConnRef PyConnection::get() const {
    if (!m_connection) {
        throw py::value_error("the connection is closed");
    }
    return m_connection;
}

void PyConnection::close() {
    ConnRef connection;
    connection.swap(m_connection);
    if (!connection) {
        return;
    }
    // Before the listener has finished handing the connection over, it may not be disconnected
    // yet; the hand-over disconnects it as it completes.
    if (connection->handoff.closeWhenDone(connection->connection)) {
        ReleaseGil release;
        connection->connection->disconnect();
        connection.reset();
    }
}

PyConnection adoptAccepted(TARNConnection* connection) {
    auto* box = new ConnBox(false);
    box->connection = connection;
    auto callbacks = std::make_shared<Callbacks>();
    callbacks->server.m_pHandoff = &box->handoff;
    box->keepAlive = callbacks;
    ConnRef reference = adoptConnection(box);
    registerClosable(reference);
    return PyConnection(reference, callbacks);
}

}  // namespace tarnpy
