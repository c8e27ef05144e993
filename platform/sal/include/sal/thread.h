// A thread object: derive, implement run(), start().
//
// start() runs run() on a new OS thread; it may be called again once run() has returned, and then
// runs it again on a fresh OS thread. shutdown(timeoutMs) calls shutdownCallback() on the calling
// thread (to make run() return, e.g. by closing a socket it blocks on) and waits up to timeoutMs
// milliseconds (-1: without limit) for run() to return.
//
// Destruction never terminates the process: the destructor waits for a run() that is still going
// (so an owner must make run() return first, or the destructor blocks), and a Thread destroyed from
// inside its own run() lets the OS thread finish on its own. A derived class must make run() return
// before its own destructor ends, since run() may use the derived part.
//
// Threads: start, shutdown and isRunning may be called from any thread, but not concurrently with
// the destructor.
#ifndef SAL_THREAD_H
#define SAL_THREAD_H

#include <memory>

#include <sal/sal_export.h>

namespace sal {

class SAL_EXPORT Thread {
public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    virtual void run() = 0;
    // Called by shutdown() before it waits; the default does nothing and returns true.
    virtual bool shutdownCallback();

    // False when run() is still going from an earlier start, or the OS refused a thread.
    bool start();
    // True when run() is not going once the wait ends (also when the thread never started).
    bool shutdown(int timeoutMs);
    bool isRunning() const;

    static void mssleep(unsigned int ms);

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

}  // namespace sal

#endif  // SAL_THREAD_H
