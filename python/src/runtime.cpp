#include "runtime.h"
#include "values.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <logging/logging.h>
#include <sal/cmdprocessor.h>
#include <sal/singleton.h>
#include <tarnconnection.h>

namespace tarnpy {

namespace Log = Corvane::Utilities::Logging;

namespace {

std::atomic<bool> g_pythonAlive{true};

std::mutex g_registryMutex;
std::vector<std::weak_ptr<Closable>>& registry() {
    static auto* s_pRegistry = new std::vector<std::weak_ptr<Closable>>;  // outlives every static
    return *s_pRegistry;
}

// The level of a library line as Python's logging numbers it.
int pythonLevel(Log::ELogLevel level) {
    switch (level) {
        case Log::eError:
            return 40;
        case Log::eWarning:
            return 30;
        case Log::eInfo:
            return 20;
        case Log::eDebug:
            return 10;
    }
    return 40;
}

// "TARN" is the library's category and goes to the logger "tarn"; any other goes below it.
std::string loggerName(const std::string& category) {
    if (category == "TARN") {
        return "tarn";
    }
    std::string name = "tarn.";
    for (char c : category) {
        name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return name;
}

}  // namespace

bool pythonAlive() {
    return g_pythonAlive.load();
}

void markPythonGone() {
    g_pythonAlive = false;
}

// The interpreter is finalized by the process's main thread, which keeps the GIL; any other thread
// that comes back now is a daemon thread that the interpreter would end.
ReleaseGil::~ReleaseGil() {
    if (_Py_IsFinalizing() && ::syscall(SYS_gettid) != ::getpid()) {
        for (;;) {
            ::pause();
        }
    }
    PyEval_RestoreThread(m_pState);
}

void reportCallbackError(const char* where, py::error_already_set& error) {
    try {
        py::object logger = py::module_::import("logging").attr("getLogger")("tarn");
        py::tuple info = py::make_tuple(error.type(), error.value(), error.trace());
        logger.attr("error")("exception in %s callback (the connection goes on)", where,
                             py::arg("exc_info") = info);
    } catch (py::error_already_set& inner) {
        inner.discard_as_unraisable(where);
    }
}

// ---- reaper ------------------------------------------------------------------------------------

Reaper& Reaper::instance() {
    static Reaper* s_pReaper = new Reaper;  // never destroyed: jobs may still finish at exit
    return *s_pReaper;
}

void Reaper::submit(std::function<void()> job) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopped) {
        return;
    }
    m_jobs.push_back(std::move(job));
    if (m_workers - m_busy < static_cast<int>(m_jobs.size()) && m_workers < kMaxWorkers) {
        ++m_workers;
        std::thread(&Reaper::work, this).detach();
    }
}

void Reaper::work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_jobs.empty()) {
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        ++m_busy;
        lock.unlock();
        job();
        job = nullptr;  // whatever the job held goes now, outside the lock
        lock.lock();
        --m_busy;
    }
    --m_workers;
    m_idle.notify_all();
}

bool Reaper::drain(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_idle.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [this] { return m_jobs.empty() && m_workers == 0; });
}

void Reaper::stop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
}

// ---- hand-over and owned connections ------------------------------------------------------------

void Handoff::complete() {
    TARNConnection* toClose = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_done) {
            return;
        }
        m_done = true;
        std::swap(toClose, m_pToClose);
        m_changed.notify_all();
    }
    if (toClose != nullptr) {
        toClose->disconnect();
    }
}

bool Handoff::closeWhenDone(TARNConnection* connection) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_done) {
        m_pToClose = connection;
    }
    return m_done;
}

bool Handoff::isDone() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_done;
}

void Handoff::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_done; });
}

void ConnBox::closeForExit() {
    if (handoff.isDone() && connection != nullptr) {
        connection->disconnect();
    }
}

ConnRef adoptConnection(ConnBox* box) {
    return ConnRef(box, [](ConnBox* owned) {
        Reaper::instance().submit([owned] {
            owned->handoff.wait();
            if (owned->connection != nullptr) {
                owned->connection->disconnect();
                delete owned->connection;
            }
            owned->keepAlive.reset();
            delete owned;
        });
    });
}

// ---- registry and exit ---------------------------------------------------------------------------

void registerClosable(const std::shared_ptr<Closable>& object) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    auto& objects = registry();
    // Forget the objects that are gone whenever the list has doubled, so that it stays small.
    static std::size_t s_sweepAt = 64;
    if (objects.size() >= s_sweepAt) {
        std::vector<std::weak_ptr<Closable>> live;
        for (auto& entry : objects) {
            if (!entry.expired()) {
                live.push_back(entry);
            }
        }
        objects.swap(live);
        s_sweepAt = std::max<std::size_t>(64, objects.size() * 2);
    }
    objects.push_back(object);
}

void shutdownRuntime() {
    markPythonGone();
    std::vector<std::shared_ptr<Closable>> open;
    {
        std::lock_guard<std::mutex> lock(g_registryMutex);
        for (auto& entry : registry()) {
            if (auto object = entry.lock()) {
                open.push_back(object);
            }
        }
        registry().clear();
    }
    {
        ReleaseGil release;
        for (auto& object : open) {
            object->closeForExit();
        }
        // A send that blocks for good (a full EUDP ring towards a dead peer) would hold the exit
        // up for ever; after this long the process ends without waiting for it.
        const bool drained = Reaper::instance().drain(15000);
        Reaper::instance().stop();
        if (drained && sal::SingletonDll<sal::CmdProcessor>::getInstance() != nullptr) {
            tarnDeinit();
        }
        Log::LogManager::getInstance().setSink(Log::LogSink());
    }
    open.clear();
}

// ---- binding check ---------------------------------------------------------------------------------

bool canBind(const std::string& host, std::uint16_t port, bool tcp, std::string& reason) {
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;  // an IPv4 or IPv6 address, as the library's sockets take
    hints.ai_socktype = tcp ? SOCK_STREAM : SOCK_DGRAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    const int status = ::getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(), &hints, &found);
    if (status != 0 || found == nullptr) {
        reason = "unknown address '" + host + "'";
        return false;
    }
    const int fd = ::socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, 0);
    bool ok = false;
    if (fd >= 0) {
        if (tcp) {
            const int on = 1;  // as the library's TCP socket does: a port in TIME_WAIT is free
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        }
        ok = ::bind(fd, found->ai_addr, found->ai_addrlen) == 0;
        if (!ok) {
            reason = std::strerror(errno);
        }
        ::close(fd);
    } else {
        reason = std::strerror(errno);
    }
    ::freeaddrinfo(found);
    return ok;
}

// ---- log sink --------------------------------------------------------------------------------------

void installLogSink() {
    Log::LogManager::getInstance().setSink([](Log::ELogLevel level, const std::string& category,
                                              const std::string& text) {
        withGil([&] {
            try {
                py::object logger = py::module_::import("logging").attr("getLogger")(loggerName(category));
                logger.attr("log")(pythonLevel(level), "%s", textToPython(text));
            } catch (py::error_already_set& error) {
                error.discard_as_unraisable("tarn log line");
            }
        });
    });
}

}  // namespace tarnpy
