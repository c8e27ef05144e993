// The shared watch behind UdpSocket::watchShared: one thread of the process waits on an epoll set
// that holds every socket registered with it, and calls a socket's reader when the socket reports.
//
// An entry is made by add() and belongs to its socket, which hands it to retire() when it goes. The
// thread may still hold an entry in the reports of its current wait after the socket removed it,
// so a retired entry is freed only two waits later, by the thread itself, when no report can name
// it any more. remove() stops the reports and, from any other thread, waits until a call of the
// reader that is under way has returned; from inside a reader it only stops further calls.
#ifndef SAL_SOURCE_READERSERVICE_H
#define SAL_SOURCE_READERSERVICE_H

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <sal/udpsocket.h>

namespace sal {
namespace detail {

class ReaderService {
public:
    struct Entry {
        int fd;
        UdpSocket::IReader* pReader;
        bool bRemoved = false;  // under the service's lock
        bool bCalling = false;  // the reader runs now (under the service's lock)
    };

    // The process's service, started on first use and never destroyed; null when the system gives
    // no epoll set or no thread for it.
    static ReaderService* instance();

    // Registers `fd` disarmed; null when the system refuses.
    Entry* add(int fd, UdpSocket::IReader* pReader);
    // Arms the one-shot report (EPOLLIN) or disarms it (0). False for a removed entry.
    bool set(Entry* pEntry, unsigned int events);
    void remove(Entry* pEntry);
    // The entry's socket is going: freed once no report of the thread can name it.
    void retire(Entry* pEntry);

private:
    ReaderService() = default;
    bool start();
    void run();
    void dispatch(Entry* pEntry);

    int m_epollFd = -1;
    std::thread::id m_thread;
    std::mutex m_mutex;
    std::condition_variable m_callEnded;
    std::vector<Entry*> m_retired;  // retired since the last wait began
    std::vector<Entry*> m_freeing;  // retired before it: freed as the next wait begins
};

}  // namespace detail
}  // namespace sal

#endif  // SAL_SOURCE_READERSERVICE_H
