// Timers that call a callback after a period.
//
// All timers of the process share one scheduling thread and a small pool of worker threads that
// run the callbacks, so a timer costs no thread of its own. A callback that can do its work at
// once without waiting may do it on the scheduling thread itself (ICallback::callInline). A callback that
// blocks keeps only its own worker: the pool grows when every worker is busy, so other timers (the other
// timer of the same owner included) still fire on time. Idle extra workers retire.
//
// start(periodUs, oneShot): arms the timer for `periodUs` microseconds. With oneShot true it fires
// once and is then no longer running; with oneShot false it fires every period until stopped.
// Starting a timer that is already running changes nothing and returns false: a repeated start
// never postpones the expiry.
//
// stop(): disarms the timer; safe from any thread, including from inside its own callback. After
// stop() returns the timer starts no further callback. A callback that was already running when
// stop() was called is not waited for (it may be blocked on the very thread that stops the timer);
// the destructor waits for it, so an owner that destroys its timers before the state their
// callbacks use is safe.
//
// The timer owns the callback registered with setCallback and deletes it.
#ifndef SAL_TIMER_H
#define SAL_TIMER_H

#include <memory>

#include <sal/sal_export.h>

namespace sal {

class SAL_EXPORT ICallback {
public:
    virtual ~ICallback() = default;
    virtual void call() = 0;
    // Offered first when the timer comes due, on the service's scheduling thread: a callback whose
    // work is short and never waits does it here and answers true, which spares the hand-over to a
    // worker thread. Answering false (the default) passes the expiry on to a worker, which runs
    // call() as usual. An attempt that answers false must not have stopped or restarted its own
    // timer. Either way the run counts as the callback running (stop(), waitUntilIdle() and the
    // destructor treat it as such).
    virtual bool callInline() { return false; }
};

// Calls a member function of an object; does nothing when either is null. The optional second
// member function is the inline attempt (see ICallback::callInline).
template <class T>
class Callback : public ICallback {
public:
    typedef void (T::*Method)();
    typedef bool (T::*InlineMethod)();
    Callback(T* pObject, Method pMethod, InlineMethod pInline = nullptr)
        : m_pObject(pObject), m_pMethod(pMethod), m_pInline(pInline) {}
    void call() override {
        if (m_pObject != nullptr && m_pMethod != nullptr) {
            (m_pObject->*m_pMethod)();
        }
    }
    bool callInline() override {
        if (m_pObject == nullptr || m_pMethod == nullptr) {
            return true;  // nothing would be called: done here
        }
        return m_pInline != nullptr && (m_pObject->*m_pInline)();
    }

private:
    T* m_pObject;
    Method m_pMethod;
    InlineMethod m_pInline;
};

class SAL_EXPORT Timer {
public:
    Timer();
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Takes ownership; a callback registered before is deleted (after any run of it has ended).
    void setCallback(ICallback* pCallback);

    bool start(unsigned int periodUs, bool oneShot);
    void stop();
    bool isRunning() const;

    // Blocks until no callback of this timer is running. Must not be called from inside that
    // callback. With stop() before it, the owner may then release what the callback uses.
    void waitUntilIdle();

    struct State;  // shared with the scheduler; opaque

private:
    std::shared_ptr<State> m_pState;
};

}  // namespace sal

#endif  // SAL_TIMER_H
