// tarn.Listener: TARNListener with on_new_connection as a Python callable, which receives each
// accepted connection as a tarn.Connection and owns it from then on (dropping it closes it).
//
// The listener still starts an accepted connection and reports CONNECTED after on_new_connection
// returned, so a connection closed in there is only disconnected and freed once that hand-over is
// complete: when its server callbacks see CONNECTED, when the listener hands over the next one, or
// when the listener has stopped.
#include <pybind11/pybind11.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

#include <tarnconnection.h>
#include <tarnlistener.h>

#include "callbacks.h"
#include "exact.h"
#include "pyargs.h"
#include "runtime.h"
#include "values.h"

namespace tarnpy {

namespace {

// What the connector shares with the Python Listener.
class ListenerShared {
public:
    ListenerShared() = default;
    ListenerShared(const ListenerShared&) = delete;
    ListenerShared& operator=(const ListenerShared&) = delete;
    ~ListenerShared() {
        if (pythonAlive()) {
            py::gil_scoped_acquire gil;
            m_onNewConnection = py::object();
        } else if (m_onNewConnection) {
            m_onNewConnection.release();
        }
    }

    // The listener is past its previous hand-over once it hands over `next` (or has stopped). The
    // connection being handed over is held here until then: a Python side that lets go of it at
    // once still has it freed, after the hand-over.
    void handOver(const ConnRef& next) {
        ConnRef previous;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_pending) {
            m_pending->handoff.complete();
        }
        previous.swap(m_pending);
        m_pending = next;
    }
    void completePending() { handOver(ConnRef()); }

    py::object m_onNewConnection;                   // under the GIL
    std::atomic<std::thread::id> m_acceptThread{};  // the thread that runs on_new_connection

private:
    std::mutex m_mutex;
    ConnRef m_pending;
};

class PyConnector : public ITARNConnector {
public:
    explicit PyConnector(std::shared_ptr<ListenerShared> shared) : m_shared(std::move(shared)) {}

    void onNewConnection(TARNConnection* connection) override {
        m_shared->m_acceptThread = std::this_thread::get_id();
        PyConnection accepted = adoptAccepted(connection);
        m_shared->handOver(accepted.m_connection);
        withGil([&] {
            py::object callable = m_shared->m_onNewConnection;
            PyConnection handed = std::move(accepted);
            if (!callable) {
                return;
            }
            try {
                callable(py::cast(std::move(handed)));
            } catch (py::error_already_set& error) {
                reportCallbackError("on_new_connection", error);
            } catch (const std::exception& error) {
                py::module_::import("logging").attr("getLogger")("tarn").attr("error")(
                    "exception in on_new_connection callback: %s", error.what());
            }
        });
    }

private:
    std::shared_ptr<ListenerShared> m_shared;
};

// The TARNListener and its connector, closed once, from Python or from the exit hook.
class ListenerBox : public Closable {
public:
    explicit ListenerBox(bool tcp)
        : m_tcp(tcp),
          m_shared(std::make_shared<ListenerShared>()),
          m_pListener(new TARNListener(tcp ? eTransportTCP : eTransportEUDP)),
          m_pConnector(new PyConnector(m_shared)) {}
    ~ListenerBox() override { close(); }
    void closeForExit() override { close(); }

    // Without the GIL. From inside on_new_connection the listener cannot be deleted (its thread
    // goes on with the connection it handed over, and deleting waits for that thread), so the
    // reaper does it once the thread is out.
    void close() {
        TARNListener* listener = nullptr;
        PyConnector* orphan = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            std::swap(listener, m_pListener);
            if (!m_bConnectorGiven) {
                orphan = m_pConnector;
            }
            m_pConnector = nullptr;
        }
        if (listener == nullptr) {
            return;
        }
        std::shared_ptr<ListenerShared> shared = m_shared;
        auto finish = [listener, orphan, shared] {
            delete listener;  // stops the accept thread; deletes the connector it was given
            delete orphan;
            shared->completePending();
        };
        if (std::this_thread::get_id() == m_shared->m_acceptThread.load()) {
            Reaper::instance().submit(finish);
        } else {
            finish();
        }
    }

    // Runs `use` on the listener under the lock, without the GIL; ValueError when closed.
    template <class Use>
    auto with(Use use) -> decltype(use(std::declval<TARNListener&>())) {
        ReleaseGil release;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_pListener == nullptr) {
            throw py::value_error("the listener is closed");
        }
        return use(*m_pListener);
    }

    const bool m_tcp;
    std::shared_ptr<ListenerShared> m_shared;
    ITARNConnector* connector() {
        m_bConnectorGiven = true;
        return m_pConnector;
    }

private:
    std::mutex m_mutex;
    TARNListener* m_pListener;
    PyConnector* m_pConnector;
    bool m_bConnectorGiven = false;
};

class PyListener {
public:
    explicit PyListener(bool tcp) : m_box(std::make_shared<ListenerBox>(tcp)) { registerClosable(m_box); }
    PyListener(const PyListener&) = delete;
    PyListener& operator=(const PyListener&) = delete;
    ~PyListener() {
        ReleaseGil release;
        m_box->close();
    }

    std::shared_ptr<ListenerBox> m_box;
};

const char* const kListenerDoc = R"doc(
Accepts peers on its own thread (TARNListener) and hands each to ``on_new_connection`` as a
tarn.Connection, not yet started: attach server callbacks there with ``set_server()``, and keep a
reference for as long as the connection should live (dropping it closes the connection).
``close()`` (or the end of a ``with`` block) stops accepting; connections handed out live on.)doc";

}  // namespace

void bindListener(py::module_& m) {
    py::class_<PyListener>(m, "Listener", kListenerDoc)
        .def(py::init([](const TransportArg& transport) {
                 return new PyListener(parseTransport(transport.handle()));
             }),
             py::arg("transport") = "tcp")
        .def(
            "listen",
            [](PyListener& self, const Text& address, const IntArg& port, const Callback& callback) {
                const std::string a = toText(address.handle(), "address");
                const unsigned short p = parsePort(port.handle());
                py::object onNewConnection = callback.object;
                if (!onNewConnection.is_none() && !PyCallable_Check(onNewConnection.ptr())) {
                    throw py::type_error("on_new_connection must be callable");
                }
                std::string reason;
                if (self.m_box->m_tcp && !canBind(a, p, true, reason)) {
                    const std::string text =
                        "cannot listen on " + a + ":" + std::to_string(p) + ": " + reason;
                    PyErr_SetString(PyExc_OSError, text.c_str());
                    throw py::error_already_set();
                }
                self.m_box->m_shared->m_onNewConnection =
                    onNewConnection.is_none() ? py::object() : onNewConnection;
                ListenerBox& box = *self.m_box;
                return box.with([&](TARNListener& l) { return l.listen(a, p, box.connector()); });
            },
            py::arg("address"), py::arg("port"), py::arg("on_new_connection"),
            "Starts the accept thread on address:port ('' or '0.0.0.0': every interface; port 0: the system "
            "chooses, see get_local_port()). True, as the library always answers: binding happens on the "
            "thread. Over TCP an address that cannot be bound raises OSError instead (the library would end "
            "the process); over EUDP the listener then accepts nobody.")
        .def(
            "start",
            [](PyListener& self) { return self.m_box->with([](TARNListener& l) { return l.start(); }); },
            "Starts the accept thread again after shutdown() (a bare start ends after one peer; listen() "
            "restarts properly).")
        .def(
            "shutdown",
            [](PyListener& self, int timeout) {
                const bool stopped =
                    self.m_box->with([timeout](TARNListener& l) { return l.shutdown(timeout); });
                if (stopped) {
                    self.m_box->m_shared->completePending();
                }
                return stopped;
            },
            py::arg("timeout_ms") = -1,
            "Stops accepting, waiting up to `timeout_ms` ms (-1: without limit) for the thread; False when "
            "there was no thread or it did not end in time.")
        .def(
            "get_local_port",
            [](PyListener& self) {
                return self.m_box->with([](TARNListener& l) { return l.getLocalPort(); });
            },
            "The bound port, 0 until the accept thread has bound it.")
        .def(
            "close",
            [](PyListener& self) {
                ReleaseGil release;
                self.m_box->close();
            },
            "Stops accepting and frees the listener; harmless twice.")
        .def(
            "__enter__", [](py::object self) { return self; }, "Returns the object itself, for `with`.")
        .def(
            "__exit__",
            [](PyListener& self, py::args) {
                ReleaseGil release;
                self.m_box->close();
            },
            "Closes the listener.");
}

}  // namespace tarnpy
