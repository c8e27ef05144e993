#include "readerservice.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace sal {
namespace detail {

namespace {
// Reports taken per wait: sockets that become readable close together are served in one wake-up.
const int kReportsPerWait = 64;
}  // namespace

ReaderService* ReaderService::instance() {
    // Never destroyed, like the timer service: a socket closed during static destruction still
    // finds it.
    static ReaderService* s_pService = [] {
        ReaderService* pService = new ReaderService;
        if (!pService->start()) {
            delete pService;
            return static_cast<ReaderService*>(nullptr);
        }
        return pService;
    }();
    return s_pService;
}

// The thread carries the name "sal-reader".
bool ReaderService::start() {
    m_epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_epollFd < 0) {
        return false;
    }
    try {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::thread thread([this] { run(); });
        ::pthread_setname_np(thread.native_handle(), "sal-reader");
        m_thread = thread.get_id();
        thread.detach();
        return true;
    } catch (const std::system_error&) {
        ::close(m_epollFd);
        m_epollFd = -1;
        return false;
    }
}

// Under the lock, so that the thread, which reads an entry under it, sees it whole.
ReaderService::Entry* ReaderService::add(int fd, UdpSocket::IReader* pReader) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Entry* pEntry = new Entry{fd, pReader};
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = EPOLLONESHOT;
    event.data.ptr = pEntry;
    if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        delete pEntry;
        return nullptr;
    }
    return pEntry;
}

// No lock: a removed entry's descriptor is out of the set, so the change fails there, and the
// descriptor stays open (and unused by anything else) until the socket retires the entry.
//
// Every setting is one-shot, the disarmed one too: the system reports a hang-up or an error even
// when nothing is asked for, and one-shot makes that one report instead of one per wait.
bool ReaderService::set(Entry* pEntry, unsigned int events) {
    epoll_event event;
    std::memset(&event, 0, sizeof(event));
    event.events = events | EPOLLONESHOT;
    event.data.ptr = pEntry;
    return ::epoll_ctl(m_epollFd, EPOLL_CTL_MOD, pEntry->fd, &event) == 0;
}

void ReaderService::remove(Entry* pEntry) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!pEntry->bRemoved) {
        pEntry->bRemoved = true;
        ::epoll_ctl(m_epollFd, EPOLL_CTL_DEL, pEntry->fd, nullptr);
    }
    if (std::this_thread::get_id() == m_thread) {
        return;  // from inside a reader: the call under way is the caller's own
    }
    m_callEnded.wait(lock, [pEntry] { return !pEntry->bCalling; });
}

void ReaderService::retire(Entry* pEntry) {
    remove(pEntry);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_retired.push_back(pEntry);
}

void ReaderService::run() {
    epoll_event reports[kReportsPerWait];
    for (;;) {
        {
            // Whatever was retired before the previous wait began can be in no report from here on.
            std::lock_guard<std::mutex> lock(m_mutex);
            for (Entry* pEntry : m_freeing) {
                delete pEntry;
            }
            m_freeing.swap(m_retired);
            m_retired.clear();
        }
        const int n = ::epoll_wait(m_epollFd, reports, kReportsPerWait, -1);
        for (int i = 0; i < n; ++i) {
            dispatch(static_cast<Entry*>(reports[i].data.ptr));
        }
    }
}

void ReaderService::dispatch(Entry* pEntry) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (pEntry->bRemoved) {
            return;
        }
        pEntry->bCalling = true;
    }
    pEntry->pReader->onReadable();
    std::lock_guard<std::mutex> lock(m_mutex);
    pEntry->bCalling = false;
    m_callEnded.notify_all();
}

}  // namespace detail
}  // namespace sal
