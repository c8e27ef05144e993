// The C++ halves of tarn.Client and tarn.Server (tarn/_highlevel.py builds the Python API on them).
//
// Waiting for an event releases the GIL and wakes every 50 ms to let Python run its signal handlers,
// so Ctrl-C interrupts a wait with KeyboardInterrupt. Sends check what a TARN message can carry
// whole and raise ValueError before anything is sent.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cmath>

#include "clientcore.h"
#include "exact.h"
#include "servercore.h"
#include "values.h"

namespace tarnpy {

namespace {

const auto kSlice = std::chrono::milliseconds(50);

// Waits for the first item that `match` accepts: the item, or Empty after `timeout` seconds (None:
// no limit), or Closed.
template <class T, class Match>
typename EventQueue<T>::Result waitPop(EventQueue<T>& queue, T& out, Match match, py::object timeout) {
    using Clock = std::chrono::steady_clock;
    bool limited = !timeout.is_none();
    Clock::time_point deadline = Clock::now();
    if (limited) {
        const double seconds = timeout.cast<double>();
        if (std::isnan(seconds) || seconds < 0) {
            throw py::value_error("timeout must be a non-negative number of seconds or None");
        }
        if (seconds > 1e7) {
            limited = false;
        } else {
            deadline += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        }
    }
    for (;;) {
        const Clock::time_point sliceEnd =
            limited ? std::min(deadline, Clock::now() + kSlice) : Clock::now() + kSlice;
        typename EventQueue<T>::Result result;
        {
            ReleaseGil release;
            result = queue.pop(out, match, sliceEnd);
        }
        if (result != EventQueue<T>::Result::Empty) {
            return result;
        }
        if (PyErr_CheckSignals() != 0) {
            throw py::error_already_set();
        }
        if (limited && Clock::now() >= deadline) {
            return result;
        }
    }
}

const char* clientKind(ClientEvent::Kind kind) {
    switch (kind) {
        case ClientEvent::Update:
            return "update";
        case ClientEvent::Trigger:
            return "trigger";
        case ClientEvent::Disconnected:
            return "disconnected";
    }
    return "?";
}

const char* serverKind(ServerEvent::Kind kind) {
    switch (kind) {
        case ServerEvent::Connected:
            return "connected";
        case ServerEvent::Subscribe:
            return "subscribe";
        case ServerEvent::Unsubscribe:
            return "unsubscribe";
        case ServerEvent::Call:
            return "call";
        case ServerEvent::Disconnected:
            return "disconnected";
    }
    return "?";
}

// Owned by the Python object; closing it when Python lets go of it.
struct PyClientCore {
    std::shared_ptr<ClientCore> core;
    ~PyClientCore() {
        ReleaseGil release;
        core->close();
    }
};

struct PyServerCore {
    std::shared_ptr<ServerCore> core;
    ~PyServerCore() {
        ReleaseGil release;
        core->close();
    }
};

std::string checkedName(py::handle name, const char* what) {
    const std::string text = toText(name, what);
    checkName(text, what);
    return text;
}

void bindClientCore(py::module_& m) {
    py::class_<PyClientCore>(m, "_ClientCore")
        .def(py::init([](py::handle transport, std::size_t limit) {
                 auto core = std::make_shared<ClientCore>(parseTransport(transport), limit);
                 registerClosable(core);
                 return new PyClientCore{core};
             }),
             py::arg("transport"), py::arg("queue_limit"))
        .def("connect",
             [](PyClientCore& self, py::handle host, py::handle port, bool sendRealtime, bool sendReliable,
                bool receiveRealtime, bool receiveReliable) {
                 const std::string h = toText(host, "host");
                 const unsigned short p = parsePort(port);
                 ClientCore::Allowed allowed;
                 allowed.sendRealtime = sendRealtime;
                 allowed.sendReliable = sendReliable;
                 allowed.receiveRealtime = receiveRealtime;
                 allowed.receiveReliable = receiveReliable;
                 ReleaseGil release;
                 return self.core->connect(h, p, allowed);
             })
        .def("subscribe",
             [](PyClientCore& self, py::handle name, bool subscribe) {
                 const std::string n = checkedName(name, "name");
                 checkMessageFits(n, nullptr);
                 ReleaseGil release;
                 return self.core->send(
                     subscribe ? ClientCore::Command::Subscribe : ClientCore::Command::Unsubscribe, n,
                     nullptr);
             })
        .def("call",
             [](PyClientCore& self, py::handle name, py::handle params) {
                 const std::string n = checkedName(name, "function name");
                 const NamedValues values = toNamedValues(params);
                 checkCallFits(n, values);
                 ParameterList list;
                 fillList(values, list);
                 ReleaseGil release;
                 return self.core->send(ClientCore::Command::Call, n, &list);
             })
        .def("set_mode",
             [](PyClientCore& self, bool send, py::handle mode) {
                 const EConnMode wanted = static_cast<EConnMode>(parseMode(mode));
                 ReleaseGil release;
                 return send ? self.core->setSendMode(wanted) : self.core->setReceiveMode(wanted);
             })
        .def("set_window_size",
             [](PyClientCore& self, unsigned int size) {
                 ReleaseGil release;
                 return self.core->setWindowSize(size);
             })
        .def("close",
             [](PyClientCore& self) {
                 ReleaseGil release;
                 self.core->close();
             })
        .def_property_readonly("connected", [](PyClientCore& self) { return self.core->isConnected(); })
        .def_property_readonly("tcp", [](PyClientCore& self) { return self.core->isTcp(); })
        .def_property_readonly("local_port",
                               [](PyClientCore& self) {
                                   ReleaseGil release;
                                   return self.core->localPort();
                               })
        .def_property_readonly("peer",
                               [](PyClientCore& self) {
                                   ReleaseGil release;
                                   return self.core->peer();
                               })
        .def_property_readonly("dropped", [](PyClientCore& self) { return self.core->queue().dropped(); })
        .def("fileno", [](PyClientCore& self) { return self.core->queue().fd(); })
        .def("clear_signal", [](PyClientCore& self) { self.core->queue().clearSignal(); })
        .def("pop", [](PyClientCore& self, py::object timeout) -> py::object {
            ClientEvent event;
            const auto result = waitPop(
                self.core->queue(), event, [](const ClientEvent&) { return true; }, timeout);
            if (result == EventQueue<ClientEvent>::Result::Empty) {
                return py::none();
            }
            if (result == EventQueue<ClientEvent>::Result::Closed) {
                return py::bool_(false);
            }
            if (event.kind == ClientEvent::Disconnected) {
                return py::make_tuple("disconnected", py::none(), py::none(), py::none());
            }
            return py::make_tuple(clientKind(event.kind), textToPython(event.name), fromValue(event.value),
                                  typeName(event.value));
        });
}

void bindServerCore(py::module_& m) {
    py::class_<PyServerCore>(m, "_ServerCore")
        .def(py::init([](py::handle transport, std::size_t limit) {
                 auto core = std::make_shared<ServerCore>(parseTransport(transport), limit);
                 registerClosable(core);
                 return new PyServerCore{core};
             }),
             py::arg("transport"), py::arg("queue_limit"))
        .def("listen",
             [](PyServerCore& self, py::handle host, py::handle port) {
                 const std::string h = toText(host, "host");
                 const unsigned short p = parsePort(port);
                 std::string error;
                 bool ok = false;
                 {
                     ReleaseGil release;
                     ok = self.core->listen(h, p, error);
                 }
                 if (!ok) {
                     const std::string text = "cannot listen on " + (h.empty() ? std::string("*") : h) + ":" +
                                              std::to_string(p) + ": " + error;
                     PyErr_SetString(PyExc_OSError, text.c_str());
                     throw py::error_already_set();
                 }
             })
        .def_property_readonly("port", [](PyServerCore& self) { return self.core->port(); })
        .def("send",
             [](PyServerCore& self, bool set, py::handle name, py::handle value, int only) {
                 const std::string n = checkedName(name, "name");
                 const ParameterValue v = toValue(value, "value");
                 checkValueText(v, "value");
                 checkMessageFits(n, &v);
                 ReleaseGil release;
                 return set ? self.core->set(n, v) : self.core->trigger(n, v, only);
             })
        .def("state",
             [](PyServerCore& self, py::handle name) -> py::object {
                 const std::string n = toText(name, "name");
                 ParameterValue value;
                 if (!self.core->state(n, value)) {
                     throw py::key_error(n);
                 }
                 return fromValue(value);
             })
        .def("states",
             [](PyServerCore& self) {
                 py::dict out;
                 for (const auto& entry : self.core->states()) {
                     out[textToPython(entry.first)] = fromValue(entry.second);
                 }
                 return out;
             })
        .def("connections",
             [](PyServerCore& self) {
                 py::list out;
                 for (const auto& info : self.core->connections()) {
                     py::list subscriptions;
                     for (const auto& name : info.subscriptions) {
                         subscriptions.append(textToPython(name));
                     }
                     out.append(py::make_tuple(info.id, info.peer, subscriptions));
                 }
                 return out;
             })
        .def("close",
             [](PyServerCore& self) {
                 ReleaseGil release;
                 self.core->close();
             })
        .def_property_readonly("dropped", [](PyServerCore& self) { return self.core->queue().dropped(); })
        .def("fileno", [](PyServerCore& self) { return self.core->queue().fd(); })
        .def("clear_signal", [](PyServerCore& self) { self.core->queue().clearSignal(); })
        .def("pop", [](PyServerCore& self, py::object timeout, bool callsOnly) -> py::object {
            ServerEvent event;
            const auto result = waitPop(
                self.core->queue(), event,
                [callsOnly](const ServerEvent& e) { return !callsOnly || e.kind == ServerEvent::Call; },
                timeout);
            if (result == EventQueue<ServerEvent>::Result::Empty) {
                return py::none();
            }
            if (result == EventQueue<ServerEvent>::Result::Closed) {
                return py::bool_(false);
            }
            py::object params = py::none();
            if (event.kind == ServerEvent::Call) {
                params = namedValuesToDict(event.params);
            }
            py::object name = py::none();
            if (event.kind == ServerEvent::Subscribe || event.kind == ServerEvent::Unsubscribe ||
                event.kind == ServerEvent::Call) {
                name = textToPython(event.name);
            }
            return py::make_tuple(serverKind(event.kind), event.connection, event.peer, name, params);
        });
}

}  // namespace

void bindHighLevel(py::module_& m) {
    bindClientCore(m);
    bindServerCore(m);
}

}  // namespace tarnpy
