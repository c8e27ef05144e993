// The handshake thread of a listening TLS transport. It accepts TCP peers on the listening socket
// and drives every handshake in progress a step at a time as its socket becomes ready, each with its
// own deadline; a finished handshake joins the queue that accept() takes from. A peer that stalls,
// sends plaintext or garbage, or shows a certificate that fails the check costs only its own
// connection: nothing waits on it but its own deadline.
//
// At most kMaxPending handshakes run at once; a new peer beyond that pushes out the oldest one, so
// a flood of silent connections cannot keep honest peers out for a whole time-out.
#ifndef TARN_TLS_TLSACCEPTOR_H
#define TARN_TLS_TLSACCEPTOR_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tlscontext.h"
#include "tlslink.h"

namespace tarntls {

class TlsAcceptor {
public:
    static constexpr std::size_t kMaxPending = 64;

    // Starts the thread on `listenFd` (bound, listening, non-blocking; stays the caller's).
    TlsAcceptor(const std::shared_ptr<TlsContext>& context, int listenFd);
    ~TlsAcceptor();  // stops
    TlsAcceptor(const TlsAcceptor&) = delete;
    TlsAcceptor& operator=(const TlsAcceptor&) = delete;

    // The next link whose handshake succeeded; null once stopped.
    std::unique_ptr<TlsLink> accept();
    // Ends the thread and drops every handshake in progress and every link not yet taken; a
    // blocked accept() returns null. Harmless twice; any thread but the handshake thread.
    void stop();

private:
    struct Pending {
        std::unique_ptr<TlsLink> link;
        std::chrono::steady_clock::time_point deadline;
        short events;
    };

    void run();
    int nextTimeoutMs() const;
    void acceptNewPeers();
    void expire();
    // Takes one step; false when the handshake is over (done or failed) and leaves the set.
    bool advance(Pending& pending);

    std::shared_ptr<TlsContext> m_context;
    int m_listenFd;
    int m_wake[2] = {-1, -1};  // a pipe: stop() writes, the thread's poll wakes
    std::atomic<bool> m_bStopped{false};
    std::vector<Pending> m_pending;  // the thread's own
    std::mutex m_readyMutex;
    std::condition_variable m_readyChanged;
    std::deque<std::unique_ptr<TlsLink>> m_ready;
    std::mutex m_stopMutex;
    std::thread m_thread;
};

}  // namespace tarntls

#endif  // TARN_TLS_TLSACCEPTOR_H
