// UDP socket for IPv4 and IPv6.
//
// Where the system has IPv6 the socket takes both families (dual-stack): unbound or bound to the
// any-address (HostAddress::eAnyAddress, "" or "::") it exchanges datagrams with IPv4 and IPv6
// peers, and an IPv4 sender is reported as plain IPv4. Without IPv6 in the system it is IPv4 only
// and refuses IPv6 addresses.
//
// Blocking: receiveFrom blocks until a datagram arrives. close() may be called from any thread and
// wakes a thread blocked in receiveFrom, which then returns -1; every later receiveFrom returns -1 at
// once and every later sendTo fails. The descriptor is released only by the destructor, so a close
// racing with a blocked receive can never hit a reused descriptor.
//
// Threads: sendTo may be called from several threads at once (each datagram leaves whole); one
// thread receives at a time. Two threads may take turns at receiving through the readiness watch
// (armWatch, disarmWatch, waitReadable): one sleeps in waitReadable while the other reads, and the
// turn passes by arming and disarming; the caller serialises the receives and the arming.
//
// The shared watch (watchShared, armShared, disarmShared, unwatchShared): one thread of the process
// waits for every socket registered with it and calls the socket's reader on that thread when a
// datagram is waiting or the socket has been closed, so that many quiet sockets cost one sleeping
// thread instead of one each. It reports like the readiness watch: one-shot, level-triggered.
//
// Batches: receiveBatch and tryReceiveBatch take several waiting datagrams in one system call,
// sendBatchTo hands several datagrams for one destination to the system in as few calls as it
// takes; each datagram is still one whole datagram on the wire, in the order given. Their
// blocking, partial results and closing are stated with each.
//
// An unbound socket gets an ephemeral port from the system on its first sendTo.
#ifndef SAL_UDPSOCKET_H
#define SAL_UDPSOCKET_H

#include <atomic>

#include <sal/hostaddress.h>
#include <sal/sal_export.h>
#include <sal/types.h>

namespace sal {

class SAL_EXPORT UdpSocket {
public:
    UdpSocket();
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool bind(const HostAddress& address, uint16 port);  // port 0: an ephemeral port

    // Sends one datagram; returns the bytes sent (`length`), or -1 on error or once closed.
    int sendTo(const void* data, int length, const HostAddress& address, uint16 port);

    // Blocks for one datagram; copies at most `size` bytes of it (the rest of a longer datagram is
    // discarded) and returns the count copied, which is 0 for an empty datagram. Returns -1 on error
    // or once the socket is closed. `from` and `fromPort` receive the sender.
    int receiveFrom(void* buffer, int size, HostAddress& from, uint16& fromPort);

    // receiveFrom that never blocks: WOULD_BLOCK when no datagram is waiting (and what a blocking
    // receive answers when a receive time-out passes, see setReceiveTimeout).
    static const int WOULD_BLOCK = -2;
    int tryReceiveFrom(void* buffer, int size, HostAddress& from, uint16& fromPort);

    // One entry of a received batch: `buffer` and `size` are the caller's; `length`, `from` and
    // `fromPort` are filled in for each datagram taken (`length` as receiveFrom counts it: at most
    // `size`, the rest of a longer datagram discarded, 0 for an empty datagram).
    struct ReceivedDatagram {
        void* buffer;
        int size;
        int length;
        HostAddress from;
        uint16 fromPort;
    };
    // The most datagrams one batch call takes or hands over in one system call; a larger count is
    // served in several calls (sends) or taken as this many (receives).
    static const int MAX_BATCH = 64;
    // A receive of at most this many is served with a frame sized for it rather than for MAX_BATCH.
    static const int SMALL_BATCH = 2;

    // Blocks until a datagram is waiting, then takes it and whatever else is already waiting, up to
    // `count` (at most MAX_BATCH), in the order they arrived, in one system call; it never waits for
    // a second datagram. Returns how many were taken (at least 1), filling entries 0 to n-1. Returns
    // -1 on error, for a count below 1, or once the socket is closed: close() wakes a thread blocked
    // here, and datagrams the call had taken when the close came are dropped, as receiveFrom drops
    // its one.
    int receiveBatch(ReceivedDatagram* datagrams, int count);
    // receiveBatch that never blocks: WOULD_BLOCK when no datagram is waiting.
    int tryReceiveBatch(ReceivedDatagram* datagrams, int count);

    // One datagram of a batch to send: `length` bytes at `data`.
    struct OutgoingDatagram {
        const void* data;
        int length;
    };
    // Sends `count` datagrams to one destination, in the order given, as sendTo would send them one
    // after another, in as few system calls as the system allows (one when it takes the whole batch
    // at once, which it does for up to MAX_BATCH datagrams unless one is refused). Blocks only as
    // sendTo blocks, while the system has no room for the next datagram. A partial hand-over goes
    // on with the rest, in order; a datagram the system refuses (too long, for instance) is skipped,
    // as a failed sendTo would be, and the ones after it still go. Returns how many datagrams left;
    // -1 when nothing was sent because the arguments or destination are invalid or the socket is
    // closed. A close() between two system calls of a batch stops it there: the result is then the
    // number that had left. Concurrent senders on the socket may put their datagrams between two
    // datagrams of a batch; callers that need a batch kept together serialise their sends.
    int sendBatchTo(const OutgoingDatagram* datagrams, int count, const HostAddress& address, uint16 port);

    // The readiness watch, for one thread that waits while another may be reading. waitReadable()
    // blocks until the watch is armed and a datagram is waiting (or the socket is closed), and
    // every such return disarms the watch. armWatch() arms it, reporting at once what is already
    // waiting; disarmWatch() takes it away, so that waitReadable() sleeps on whatever arrives.
    // armWatch() false: the system refused the watch (no descriptor to spare). waitReadable() false:
    // there is no watch, or the wait failed.
    bool armWatch();
    bool disarmWatch();
    bool waitReadable();
    // Arms the watch so that waitReadable() returns at once, datagram or not.
    bool wakeWatcher();
    // waitReadable() for at most `timeoutMs` milliseconds: 1 on a report, 0 when the time passed
    // without one, -1 when there is no watch or the wait failed.
    int waitReadableFor(int timeoutMs);

    // What the shared watch calls. onReadable() runs on the watch's one thread, which serves every
    // registered socket of the process: it must not wait for long, and it may arm, disarm or
    // unwatch any socket, its own included.
    class SAL_EXPORT IReader {
    public:
        virtual ~IReader() = default;
        virtual void onReadable() = 0;
    };
    // Registers the socket with the shared watch, disarmed; `pReader` must outlive the
    // registration. False when the system gives no watch (no descriptor or thread to spare) or the
    // socket is registered already.
    bool watchShared(IReader* pReader);
    // Arms the shared watch (reporting at once a datagram already waiting, or a closed socket);
    // every report disarms it again. False when the socket is not registered.
    bool armShared();
    bool disarmShared();
    // Ends the registration. When it returns, the reader is not running for this socket (unless
    // it is the reader that calls it) and is never called again. The destructor does it too.
    void unwatchShared();

    // Blocking receives (receiveFrom, receiveBatch) give up after `timeoutMs` milliseconds without
    // a datagram and answer WOULD_BLOCK; 0 (the default) waits without a limit.
    bool setReceiveTimeout(int timeoutMs);

    void close();  // idempotent
    bool isClosed() const { return m_bClosed.load(std::memory_order_acquire); }

    // Asks the system for a receive buffer of `bytes` (it may grant less, up to its own limit);
    // a larger buffer absorbs bursts that would otherwise be dropped before receiveFrom runs.
    bool setReceiveBufferSize(int bytes);

    uint16 getLocalPort() const;  // 0 while unbound
    int getDescriptor() const { return m_fd; }

private:
    int receive(void* buffer, int size, HostAddress& from, uint16& fromPort, int flags);
    int receiveMany(ReceivedDatagram* datagrams, int count, int flags);
    bool setWatch(unsigned int events);

    int m_fd;
    int m_family;                // AF_INET6 (dual-stack) or AF_INET, fixed at creation
    std::atomic<int> m_watchFd;  // the readiness watch (an epoll set), made by the first armWatch
    std::atomic<bool> m_bClosed;
    // The shared watch's entry (readerservice.h): made by watchShared, removed by unwatchShared,
    // handed back by the destructor. Set once; a reader may use it for another socket.
    std::atomic<void*> m_pShared;
};

}  // namespace sal

#endif  // SAL_UDPSOCKET_H
