// TCP socket for IPv4 and IPv6: listening, accepting, connecting, sending and receiving.
//
// Where the system has IPv6 the socket takes both families (dual-stack): bound to the any-address
// (HostAddress::eAnyAddress, "" or "::") it accepts IPv4 and IPv6 peers, and an IPv4 peer is
// reported as plain IPv4. Without IPv6 in the system it is IPv4 only and refuses IPv6 addresses.
//
// Blocking: accept, connect, send and receive block the calling thread. close() may be called from
// any thread at any time and wakes a thread blocked in accept or receive on the same socket: accept
// then returns null and receive returns 0. The descriptor itself is released only by the destructor,
// so a close racing with a blocked call can never hit a reused descriptor.
//
// Threads: one thread may send while another receives; close() is safe against both. Concurrent
// sends, or concurrent receives, must be serialised by the caller.
//
// Sends never raise SIGPIPE: a send to a vanished peer returns -1.
#ifndef SAL_TCPSOCKET_H
#define SAL_TCPSOCKET_H

#include <atomic>

#include <sal/hostaddress.h>
#include <sal/sal_export.h>
#include <sal/types.h>

namespace sal {

class SAL_EXPORT TcpSocket {
public:
    TcpSocket();  // a new, unbound, unconnected socket
    ~TcpSocket();
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    // Binds to address:port (port 0: an ephemeral port). Address reuse is switched on so that a
    // restarted server can bind its port at once.
    bool bind(const HostAddress& address, uint16 port);
    bool listen(int backlog);

    // Blocks until a peer connects; returns the connected socket, owned by the caller, or null when
    // the socket is closed or the accept fails.
    TcpSocket* accept();

    bool connect(const HostAddress& address, uint16 port);

    // Sends all `length` bytes (resuming after partial writes); returns `length`, or -1 on error
    // or once closed. A length of 0 sends nothing and returns 0.
    int send(const void* data, int length);

    // Blocks until exactly `length` bytes have arrived and returns `length`; returns 0 when the
    // peer closed the stream in order or this socket was closed, a negative number on error. A
    // length of 0 returns 0 at once without touching the socket.
    int receive(void* buffer, int length);

    // Shuts the connection down and wakes blocked callers; idempotent.
    void close();
    bool isClosed() const { return m_bClosed.load(std::memory_order_acquire); }

    bool setNoDelay(bool on);
    bool setKeepAlive(bool on = true);

    bool getPeerName(HostAddress& address, uint16& port) const;
    uint16 getLocalPort() const;  // 0 when unbound or on error

    int getDescriptor() const { return m_fd; }  // for diagnostics and tests

private:
    TcpSocket(int fd, int family);
    int m_fd;
    int m_family;  // AF_INET6 (dual-stack) or AF_INET, fixed at creation
    std::atomic<bool> m_bClosed;
};

}  // namespace sal

#endif  // SAL_TCPSOCKET_H
