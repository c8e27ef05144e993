// The process's command processor: one thread that runs posted commands one after another, in the
// order they were posted. There is one per process, held by SingletonDll<CmdProcessor>; a new
// CmdProcessor registers itself there when it is constructed, and its destructor, which runs the
// commands still queued before its thread ends, clears the registration.
//
// Threads: post and flush may be called from any thread, including from inside a command (flush
// from inside a command returns at once, since it cannot wait for itself).
#ifndef SAL_CMDPROCESSOR_H
#define SAL_CMDPROCESSOR_H

#include <functional>
#include <memory>

#include <sal/sal_export.h>
#include <sal/singleton.h>
#include <sal/timer.h>

namespace sal {

class SAL_EXPORT CmdProcessor {
public:
    CmdProcessor();
    virtual ~CmdProcessor();
    CmdProcessor(const CmdProcessor&) = delete;
    CmdProcessor& operator=(const CmdProcessor&) = delete;

    // Queues a command; the processor runs it on its thread and deletes it. False (and the
    // command deleted) once the processor is shutting down.
    bool post(ICallback* pCommand);
    bool post(std::function<void()> command);

    // Waits until every command posted before the call has run.
    void flush();

    // Commands run so far.
    unsigned long getExecutedCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

// The one instance, shared by every library of the process.
template <>
SAL_EXPORT CmdProcessor* SingletonDll<CmdProcessor>::s_pInstance;

}  // namespace sal

#endif  // SAL_CMDPROCESSOR_H
