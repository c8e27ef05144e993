// tarn.Connection and the enumerations, in the library's own terms: results are the library's
// booleans, and nothing is retried or hidden. Two guards stand where the library would end the
// process: a call whose parameter list cannot be encoded is refused with ValueError, and so is a
// TCP listen on an address that cannot be bound (listener.cpp).
#include "exact.h"

#include <pybind11/stl.h>

#include <cctype>
#include <climits>

#include <eudptransport.h>
#include <tarnconnection.h>
#include <tcptransport.h>

#include "callbacks.h"
#include "pyargs.h"
#include "values.h"

namespace tarnpy {

namespace {

std::string lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string typeOf(py::handle object) {
    return py::str(py::type::handle_of(object).attr("__name__")).cast<std::string>();
}

py::object callableOrNone(const Callback& argument, const char* what) {
    py::object callable = argument.object;
    if (!callable.is_none() && !PyCallable_Check(callable.ptr())) {
        throw py::type_error(std::string(what) + " must be callable or None, not " + typeOf(callable));
    }
    return callable.is_none() ? py::object() : callable;
}

bool requireBool(py::handle value, const char* what) {
    if (!PyBool_Check(value.ptr())) {
        throw py::type_error(std::string(what) + " must be a bool, not " + typeOf(value));
    }
    return value.ptr() == Py_True;
}

// Whether ParameterList::getBinary would end the process inside callFunctionId. The function
// name goes first; when it does not fit, the list gets the whole body.
bool callWouldAbort(const std::string& function, const ParameterList& params) {
    const std::size_t head = function.size() + 1;
    const int room = static_cast<int>(head <= kBodyRoom ? kBodyRoom - head : kBodyRoom);
    return listEncodingWouldAbort(params, room);
}

ParameterList paramsArgument(const ParamsArg& argument) {
    py::handle params = argument.handle();
    if (py::isinstance<ParameterList>(params)) {
        return params.cast<ParameterList>();
    }
    ParameterList list;
    fillList(toNamedValues(params), list);
    return list;
}

template <class Send>
bool sendWithoutGil(const PyConnection& self, Send send) {
    ConnRef connection = self.get();
    ReleaseGil release;
    return send(*connection->connection);
}

const char* const kConnectionDoc = R"doc(
One end of a TARN link, as the library has it (TARNConnection).

``Connection("tcp")`` or ``Connection("eudp")`` makes a client end; ``connect()`` links it and takes
the client callbacks. A Listener hands out server ends; give them server callbacks with
``set_server()``. The sending methods return the library's verdict (True when the transport took the
message). ``close()`` (or the end of a ``with`` block, or dropping the last reference) disconnects
and frees the connection; it is safe from inside a callback and from any thread. Callbacks run on
the connection's receive thread, one at a time, holding the GIL.)doc";

void bindConnectionSending(py::class_<PyConnection>& cls) {
    cls.def(
           "trigger",
           [](const PyConnection& self, const Text& name, const ValueArg& value) {
               const std::string n = toText(name.handle(), "name");
               const ParameterValue v = toValue(value.handle(), "value");
               return sendWithoutGil(self, [&](TARNConnection& c) { return c.trigger(n, v); });
           },
           py::arg("name"), py::arg("value"),
           "Sends a trigger (server side). True when the transport took it.")
        .def(
            "update_state",
            [](const PyConnection& self, const Text& name, const ValueArg& value) {
                const std::string n = toText(name.handle(), "name");
                const ParameterValue v = toValue(value.handle(), "value");
                return sendWithoutGil(self, [&](TARNConnection& c) { return c.updateState(n, v); });
            },
            py::arg("name"), py::arg("value"), "Sends a state update (server side).")
        .def(
            "subscribe",
            [](const PyConnection& self, const Text& name) {
                const std::string n = toText(name.handle(), "name");
                return sendWithoutGil(self, [&](TARNConnection& c) { return c.subscribe(n); });
            },
            py::arg("name"), "Subscribes to `name` (client side).")
        .def(
            "unsubscribe",
            [](const PyConnection& self, const Text& name) {
                const std::string n = toText(name.handle(), "name");
                return sendWithoutGil(self, [&](TARNConnection& c) { return c.unsubscribe(n); });
            },
            py::arg("name"), "Unsubscribes from `name` (client side).");
    auto call = [](const PyConnection& self, const Text& name, const ParamsArg& params) {
        const std::string n = toText(name.handle(), "name");
        const ParameterList list = paramsArgument(params);
        if (callWouldAbort(n, list)) {
            throw py::value_error(
                "a parameter value does not fit the message after its name "
                "(the library would end the process)");
        }
        return sendWithoutGil(self, [&](TARNConnection& c) { return c.callFunctionId(n, list); });
    };
    cls.def("call_function_id", call, py::arg("name"), py::arg("params") = py::none(),
            "Calls function `name` with `params` (a ParameterList or a dict; client side).")
        .def("call", call, py::arg("name"), py::arg("params") = py::none(),
             "The same as call_function_id().");
}

void bindConnectionModes(py::class_<PyConnection>& cls) {
    cls.def(
           "set_window_size",
           [](const PyConnection& self, long long size) {
               if (size < 0 || size > UINT_MAX) {
                   throw py::value_error("window size must be 0 to 4294967295");
               }
               return sendWithoutGil(
                   self, [&](TARNConnection& c) { return c.setWindowSize(static_cast<uint>(size)); });
           },
           py::arg("size"),
           "Asks the peer to keep at most `size` unacknowledged messages in flight towards this side "
           "(EUDP; waits up to 10 s). False over TCP.")
        .def(
            "set_send_mode",
            [](const PyConnection& self, const ModeArg& mode) {
                const EConnMode m = static_cast<EConnMode>(parseMode(mode.handle()));
                return sendWithoutGil(self, [&](TARNConnection& c) { return c.setSendMode(m); });
            },
            py::arg("mode"),
            "Asks the peer to send in `mode` (this side then receives in it). Over EUDP waits up to 10 s for "
            "the answer; a peer refuses by not answering. Over TCP only 'reliable' is true.")
        .def(
            "set_receive_mode",
            [](const PyConnection& self, const ModeArg& mode) {
                const EConnMode m = static_cast<EConnMode>(parseMode(mode.handle()));
                return sendWithoutGil(self, [&](TARNConnection& c) { return c.setReceiveMode(m); });
            },
            py::arg("mode"), "Asks the peer to receive in `mode` (this side then sends in it).");
    auto allow = [](bool send) {
        return [send](const PyConnection& self, const BoolArg& realtime, const BoolArg& reliable) {
            const bool rt = requireBool(realtime.handle(), "realtime");
            const bool rl = requireBool(reliable.handle(), "reliable");
            ConnRef connection = self.get();
            if (connection->transport == nullptr) {
                throw py::value_error("only a connection made by Connection() can say which modes it allows");
            }
            ReleaseGil release;
            if (send) {
                connection->transport->allowSendMode(rt, rl);
            } else {
                connection->transport->allowReceiveMode(rt, rl);
            }
        };
    };
    cls.def("allow_send_mode", allow(true), py::arg("realtime"), py::arg("reliable"),
            "Which send modes this side agrees to when the peer asks (EUDP). Both False is refused with "
            "an error line and changes nothing.")
        .def("allow_receive_mode", allow(false), py::arg("realtime"), py::arg("reliable"),
             "Which receive modes this side agrees to when the peer asks (EUDP).");
}

void bindConnection(py::module_& m) {
    py::class_<PyConnection> cls(m, "Connection", kConnectionDoc);
    cls.def(py::init([](const TransportArg& transport) {
                const bool tcp = parseTransport(transport.handle());
                auto* box = new ConnBox(true);
                {
                    ReleaseGil release;
                    box->transport = tcp ? static_cast<ITARNTransport*>(new TCPTransport())
                                         : static_cast<ITARNTransport*>(new EUDPTransport());
                    box->connection = new TARNConnection(box->transport);
                }
                auto callbacks = std::make_shared<Callbacks>();
                box->keepAlive = callbacks;
                ConnRef reference = adoptConnection(box);
                registerClosable(reference);
                return PyConnection(reference, callbacks);
            }),
            py::arg("transport") = "tcp");
    cls.def(
           "connect",
           [](PyConnection& self, const Text& host, const IntArg& port, const Callback& onTrigger,
              const Callback& onUpdateState, const Callback& onStatusChanged) {
               ConnRef connection = self.get();
               const std::string h = toText(host.handle(), "host");
               const unsigned short p = parsePort(port.handle());
               ClientCallbacks& client = self.m_callbacks->client;
               client.m_onTrigger = callableOrNone(onTrigger, "on_trigger");
               client.m_onUpdateState = callableOrNone(onUpdateState, "on_update_state");
               client.m_onStatusChanged = callableOrNone(onStatusChanged, "on_status_changed");
               const bool any = client.m_onTrigger || client.m_onUpdateState || client.m_onStatusChanged;
               ReleaseGil release;
               return connection->connection->connect(h, p, any ? &client : nullptr);
           },
           py::arg("host"), py::arg("port"), py::kw_only(), py::arg("on_trigger") = py::none(),
           py::arg("on_update_state") = py::none(), py::arg("on_status_changed") = py::none(),
           "Connects to host:port; True on success, after which the receive thread runs and "
           "on_status_changed(ConnStatus.CONNECTED) is called. on_trigger(name, value) and "
           "on_update_state(name, value) get a str and a ParameterValue. Without any callable the "
           "connection has no client (the library then logs what arrives for one).")
        .def(
            "set_server",
            [](PyConnection& self, const Callback& onSubscribe, const Callback& onUnsubscribe,
               const Callback& onCall, const Callback& onStatusChanged) {
                ConnRef connection = self.get();
                ServerCallbacks& server = self.m_callbacks->server;
                server.m_onSubscribe = callableOrNone(onSubscribe, "on_subscribe");
                server.m_onUnsubscribe = callableOrNone(onUnsubscribe, "on_unsubscribe");
                server.m_onCallFunctionId = callableOrNone(onCall, "on_call_function_id");
                server.m_onStatusChanged = callableOrNone(onStatusChanged, "on_status_changed");
                const bool any = server.m_onSubscribe || server.m_onUnsubscribe ||
                                 server.m_onCallFunctionId || server.m_onStatusChanged;
                ReleaseGil release;
                connection->connection->setServer(any ? &server : nullptr);
            },
            py::kw_only(), py::arg("on_subscribe") = py::none(), py::arg("on_unsubscribe") = py::none(),
            py::arg("on_call_function_id") = py::none(), py::arg("on_status_changed") = py::none(),
            "Attaches server callbacks: on_subscribe(name), on_unsubscribe(name), on_call_function_id(name, "
            "ParameterList), on_status_changed(ConnStatus). Takes effect with the next packet; all None "
            "detaches them. On an accepted connection, call it inside on_new_connection to see every "
            "command and the CONNECTED status.")
        .def(
            "start",
            [](const PyConnection& self) {
                return sendWithoutGil(self, [](TARNConnection& c) { return c.start(); });
            },
            "Starts (or restarts) the receive thread; the thread start's result.")
        .def(
            "update_status",
            [](const PyConnection& self, EConnStatus status) {
                sendWithoutGil(self, [&](TARNConnection& c) {
                    c.updateStatus(status);
                    return true;
                });
            },
            py::arg("status"), "Reports `status` to the client callbacks, then to the server callbacks.")
        .def(
            "disconnect",
            [](const PyConnection& self) {
                sendWithoutGil(self, [](TARNConnection& c) {
                    c.disconnect();
                    return true;
                });
            },
            "Stops the receive thread and closes the transport; the thread reports DISCONNECTED. The "
            "connection can be connected again.")
        .def(
            "get_peer_address",
            [](const PyConnection& self) {
                ConnRef connection = self.get();
                std::string address;
                {
                    ReleaseGil release;
                    address = connection->connection->getPeerAddress();
                }
                return address;
            },
            "The peer's address as text ('' when there is none).")
        .def(
            "get_peer_port",
            [](const PyConnection& self) {
                ConnRef connection = self.get();
                ReleaseGil release;
                return connection->connection->getPeerPort();
            },
            "The peer's port (0 when there is none).")
        .def(
            "get_local_port",
            [](const PyConnection& self) {
                ConnRef connection = self.get();
                ReleaseGil release;
                return connection->connection->getLocalPort();
            },
            "The local port (0 when there is none).")
        .def("close", &PyConnection::close,
             "Disconnects and frees the connection (in the background); harmless twice. Any later use "
             "raises ValueError.")
        .def_property_readonly(
            "closed", [](const PyConnection& self) { return !self.m_connection; }, "True after close().")
        .def(
            "__enter__", [](py::object self) { return self; }, "Returns the object itself, for `with`.")
        .def(
            "__exit__", [](PyConnection& self, py::args) { self.close(); }, "Closes the connection.");
    bindConnectionSending(cls);
    bindConnectionModes(cls);
}

}  // namespace

bool parseTransport(py::handle transport) {
    if (py::isinstance<ETransport>(transport)) {
        return transport.cast<ETransport>() == eTransportTCP;
    }
    if (PyUnicode_Check(transport.ptr())) {
        const std::string name = lower(transport.cast<std::string>());
        if (name == "tcp") {
            return true;
        }
        if (name == "eudp") {
            return false;
        }
        throw py::value_error("transport must be 'tcp' or 'eudp', not " +
                              py::repr(transport).cast<std::string>());
    }
    throw py::type_error("transport must be 'tcp', 'eudp' or a tarn.Transport, not " + typeOf(transport));
}

int parseMode(py::handle mode) {
    if (py::isinstance<EConnMode>(mode)) {
        return static_cast<int>(mode.cast<EConnMode>());
    }
    if (PyUnicode_Check(mode.ptr())) {
        const std::string name = lower(mode.cast<std::string>());
        if (name == "realtime") {
            return eRealtime;
        }
        if (name == "reliable") {
            return eReliable;
        }
        throw py::value_error("mode must be 'realtime' or 'reliable', not " +
                              py::repr(mode).cast<std::string>());
    }
    throw py::type_error("mode must be 'realtime', 'reliable' or a tarn.ConnMode, not " + typeOf(mode));
}

unsigned short parsePort(py::handle port) {
    if (PyBool_Check(port.ptr()) || !PyLong_Check(port.ptr())) {
        throw py::type_error("port must be an int, not " + typeOf(port));
    }
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(port.ptr(), &overflow);
    if (overflow != 0 || value < 0 || value > 65535) {
        throw py::value_error("port must be 0 to 65535, not " + py::repr(port).cast<std::string>());
    }
    return static_cast<unsigned short>(value);
}

void bindListener(py::module_& m);

void bindExact(py::module_& m) {
    py::enum_<ETransport>(m, "Transport", "The transport of a connection or listener.")
        .value("EUDP", eTransportEUDP)
        .value("TCP", eTransportTCP);
    py::enum_<EConnMode>(m, "ConnMode", "The delivery mode of one EUDP direction.")
        .value("REALTIME", eRealtime)
        .value("RELIABLE", eReliable);
    py::enum_<EConnStatus>(m, "ConnStatus", "What on_status_changed reports.")
        .value("CONNECTED", eConnected)
        .value("DISCONNECTED", eDisconnected);
    bindConnection(m);
    bindListener(m);
}

}  // namespace tarnpy
