#include <sal/cmdprocessor.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

namespace sal {

template <>
CmdProcessor* SingletonDll<CmdProcessor>::s_pInstance = NULL;

namespace {

// What the worker thread shares with the processor. The thread holds its own reference, so a
// processor deleted from inside one of its commands leaves the queue alive until the thread has
// drained it and ended.
struct Core {
    std::mutex mutex;
    std::condition_variable wake;      // a command was posted, or the processor is stopping
    std::condition_variable progress;  // a command has run
    std::deque<std::function<void()>> commands;
    unsigned long posted = 0;    // commands accepted so far
    unsigned long executed = 0;  // commands run so far
    bool bStopping = false;
    std::thread::id worker;

    void run() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [this] { return bStopping || !commands.empty(); });
            if (commands.empty()) {
                return;  // stopping, and everything queued has run
            }
            std::function<void()> command = std::move(commands.front());
            commands.pop_front();
            lock.unlock();
            // A command's exception must not end the processor's thread, let alone the process.
            try {
                command();
            } catch (...) {
            }
            command = nullptr;  // whatever it captured is released before it counts as run
            lock.lock();
            ++executed;
            progress.notify_all();
        }
    }
};

}  // namespace

struct CmdProcessor::Impl {
    std::shared_ptr<Core> pCore = std::make_shared<Core>();
    std::thread thread;
};

CmdProcessor::CmdProcessor() : m_pImpl(new Impl) {
    std::shared_ptr<Core> pCore = m_pImpl->pCore;
    try {
        m_pImpl->thread = std::thread([pCore] { pCore->run(); });
        std::lock_guard<std::mutex> lock(pCore->mutex);
        pCore->worker = m_pImpl->thread.get_id();
    } catch (const std::system_error&) {
        // Without a thread the processor refuses every command instead of queuing it for ever.
        std::lock_guard<std::mutex> lock(pCore->mutex);
        pCore->bStopping = true;
    }
    // A processor built while another is registered leaves that registration alone; createInstance
    // asserts before it ever builds a second one.
    if (SingletonDll<CmdProcessor>::s_pInstance == NULL) {
        SingletonDll<CmdProcessor>::s_pInstance = this;
    }
}

CmdProcessor::~CmdProcessor() {
    if (SingletonDll<CmdProcessor>::s_pInstance == this) {
        SingletonDll<CmdProcessor>::s_pInstance = NULL;
    }
    Core& core = *m_pImpl->pCore;
    {
        std::lock_guard<std::mutex> lock(core.mutex);
        core.bStopping = true;
        core.wake.notify_all();
    }
    if (m_pImpl->thread.joinable()) {
        if (m_pImpl->thread.get_id() == std::this_thread::get_id()) {
            m_pImpl->thread.detach();  // deleted by one of its own commands: the thread ends by itself
        } else {
            m_pImpl->thread.join();  // runs what is still queued first
        }
    }
}

bool CmdProcessor::post(ICallback* pCommand) {
    if (pCommand == nullptr) {
        return false;
    }
    std::shared_ptr<ICallback> pOwned(pCommand);
    return post([pOwned] { pOwned->call(); });
}

// An empty function is refused: there is nothing to run.
bool CmdProcessor::post(std::function<void()> command) {
    if (!command) {
        return false;
    }
    Core& core = *m_pImpl->pCore;
    std::lock_guard<std::mutex> lock(core.mutex);
    if (core.bStopping) {
        return false;  // the command is destroyed on return, with whatever it owns
    }
    core.commands.push_back(std::move(command));
    ++core.posted;
    core.wake.notify_one();
    return true;
}

void CmdProcessor::flush() {
    Core& core = *m_pImpl->pCore;
    std::unique_lock<std::mutex> lock(core.mutex);
    if (std::this_thread::get_id() == core.worker) {
        return;  // a command cannot wait for the commands queued behind it
    }
    const unsigned long target = core.posted;
    core.progress.wait(lock, [&core, target] { return core.executed >= target; });
}

unsigned long CmdProcessor::getExecutedCount() const {
    Core& core = *m_pImpl->pCore;
    std::lock_guard<std::mutex> lock(core.mutex);
    return core.executed;
}

}  // namespace sal
