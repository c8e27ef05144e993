// What every part of the Python module shares: whether the interpreter may still be entered, the
// reaper that deletes connections off the caller's thread, the registry of open objects that the
// module closes when the interpreter exits, and the report of an exception raised by a callback.
//
// Threads: the library calls back on its own threads. Those threads take the GIL only through
// withGil(), which does nothing once the interpreter is on its way out. Python threads release the
// GIL around every library call, so a library thread waiting for the GIL never waits behind a
// Python thread that waits for the library.
#ifndef TARN_PYTHON_RUNTIME_H
#define TARN_PYTHON_RUNTIME_H

#include <pybind11/pybind11.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class TARNConnection;
class ITARNTransport;

namespace tarnpy {

namespace py = pybind11;

// False from the module's exit hook on: callbacks and log lines no longer enter Python.
bool pythonAlive();
void markPythonGone();

// Runs `fn` holding the GIL, unless the interpreter is going away (then `fn` is skipped).
template <class F>
void withGil(F&& fn) {
    if (!pythonAlive()) {
        return;
    }
    py::gil_scoped_acquire gil;
    if (!pythonAlive()) {
        return;
    }
    fn();
}

// Releases the GIL for a blocking library call, like py::gil_scoped_release, except at the end: a
// daemon thread that comes back while the interpreter is finalizing waits there for the process to
// end, instead of being ended by the interpreter from inside this destructor (which would end the
// whole process).
class ReleaseGil {
public:
    ReleaseGil() : m_pState(PyEval_SaveThread()) {}
    ~ReleaseGil();
    ReleaseGil(const ReleaseGil&) = delete;
    ReleaseGil& operator=(const ReleaseGil&) = delete;

private:
    PyThreadState* m_pState;
};

// Reports an exception that a callback raised on a library thread: logged with its traceback to the
// "tarn" logger, and the thread goes on. Needs the GIL.
void reportCallbackError(const char* where, py::error_already_set& error);

// Runs jobs on threads of their own. Deleting a TARNConnection pauses 200 ms and joins its receive
// thread, which may be the caller's, so connections are always deleted here, many at once.
class Reaper {
public:
    static Reaper& instance();
    // Never blocks. After stop() jobs are dropped (the process is ending).
    void submit(std::function<void()> job);
    // Waits (without the GIL) until every job submitted so far has run, at most `timeoutMs`; false
    // when jobs were still running then.
    bool drain(int timeoutMs);
    void stop();

private:
    Reaper() = default;
    void work();

    static const int kMaxWorkers = 256;
    std::mutex m_mutex;
    std::condition_variable m_idle;
    std::deque<std::function<void()>> m_jobs;
    int m_workers = 0;
    int m_busy = 0;
    bool m_stopped = false;
};

// Something the exit hook must close: a listener, a server, a connection.
class Closable {
public:
    virtual ~Closable() = default;
    // Called without the GIL. Ends every thread the object runs; harmless twice.
    virtual void closeForExit() = 0;
};
void registerClosable(const std::shared_ptr<Closable>& object);

// Closes everything registered, waits for the reaper and shuts the library down. The exit hook.
void shutdownRuntime();

// Hand-over of a connection from the listener's thread. The listener still starts the connection
// and reports eConnected after onNewConnection returned; the connection may be deleted only after
// that. Connections made by the application have nothing to wait for.
// A close asked for before the hand-over is complete is carried out (a disconnect) when it completes.
class Handoff {
public:
    explicit Handoff(bool done) : m_done(done) {}
    void complete();
    bool isDone() const;
    void wait();
    // True when the hand-over is complete, so the caller disconnects `connection` itself; otherwise
    // complete() disconnects it.
    bool closeWhenDone(TARNConnection* connection);

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done;
    TARNConnection* m_pToClose = nullptr;
};

// A TARNConnection owned by the module. The last reference hands it to the reaper, which waits for
// the hand-over, disconnects, deletes the connection, and only then lets go of `keepAlive` (the
// callback objects that the connection calls). At exit it is disconnected, so that its threads end.
struct ConnBox : public Closable {
    explicit ConnBox(bool handedOver = true) : handoff(handedOver) {}
    void closeForExit() override;

    TARNConnection* connection = nullptr;
    ITARNTransport* transport = nullptr;  // owned by the connection; null when the listener made it
    Handoff handoff;
    std::shared_ptr<void> keepAlive;
};
using ConnRef = std::shared_ptr<ConnBox>;
ConnRef adoptConnection(ConnBox* box);

// True when `host`:`port` can be bound now for a TCP or UDP socket (port 0 always can, given a
// local address). The library's TCP listener ends the process when its bind fails, so the module
// asks the system first.
bool canBind(const std::string& host, std::uint16_t port, bool tcp, std::string& reason);

// Routes the library's log lines to Python's `logging` (logger "tarn") from now on.
void installLogSink();

}  // namespace tarnpy

#endif  // TARN_PYTHON_RUNTIME_H
