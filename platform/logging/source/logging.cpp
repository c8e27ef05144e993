#include <logging/logging.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

namespace Corvane {
namespace Utilities {
namespace Logging {

namespace {

const std::string kUnnamed;

bool parseLevel(const char* text, ELogLevel& level) {
    if (text == nullptr) {
        return false;
    }
    static const struct {
        const char* name;
        ELogLevel level;
    } kNames[] = {
        {"error", eError}, {"warning", eWarning}, {"warn", eWarning}, {"info", eInfo}, {"debug", eDebug}};
    for (const auto& entry : kNames) {
        if (strcasecmp(text, entry.name) == 0) {
            level = entry.level;
            return true;
        }
    }
    return false;
}

// Held while one line goes out on stderr. A single write() is atomic only up to the pipe's atomic
// size (4096 bytes) and may come back short; longer lines from two threads would mix without it.
std::mutex& defaultOutputMutex() {
    static std::mutex* s_pMutex = new std::mutex;  // never destroyed: late lines still find it
    return *s_pMutex;
}

// "2026-11-22T13:17:00.123456 WARN  TARN: text\n", written with one write() where the system
// allows, so that lines of different processes sharing stderr do not interleave either (up to the
// atomic size); lines of this process's threads never do.
void writeDefault(ELogLevel level, const std::string& category, const std::string& text) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long micros = static_cast<long>(
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() % 1000000);
    std::tm parts;
    gmtime_r(&seconds, &parts);
    char stamp[40];
    const size_t used = std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(stamp + used, sizeof(stamp) - used, ".%06ld", micros);

    std::string line;
    line.reserve(text.size() + category.size() + 48);
    line += stamp;
    line += ' ';
    line += levelName(level);
    line.append(6 - std::strlen(levelName(level)), ' ');
    line += category;
    line += ": ";
    line += text;
    line += '\n';
    const char* p = line.data();
    size_t left = line.size();
    std::lock_guard<std::mutex> lock(defaultOutputMutex());
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0 && errno == EINTR) {
            continue;  // a signal arrived before anything was written
        }
        if (n <= 0) {
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

}  // namespace

const char* levelName(ELogLevel level) {
    switch (level) {
        case eError:
            return "ERROR";
        case eWarning:
            return "WARN";
        case eInfo:
            return "INFO";
        case eDebug:
            return "DEBUG";
    }
    return "?";
}

struct LogManager::Impl {
    std::atomic<int> level{eWarning};
    std::mutex categoriesMutex;
    std::map<std::string, std::unique_ptr<std::string>> categories;  // interned names, never freed
    std::mutex sinkMutex;
    std::shared_ptr<const LogSink> sink;  // null: default output
};

LogManager::LogManager() : m_pImpl(new Impl) {
    ELogLevel level = eWarning;
    if (parseLevel(std::getenv("TARN_LOG_LEVEL"), level)) {
        m_pImpl->level.store(level, std::memory_order_relaxed);
    }
}

// The manager lives until the process ends (it is never destroyed, so that lines logged from
// static destructors and late threads still have somewhere to go).
LogManager::~LogManager() = default;

LogManager& LogManager::getInstance() {
    static LogManager* s_pManager = new LogManager;
    return *s_pManager;
}

LogCategory LogManager::getCategory(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_pImpl->categoriesMutex);
    auto& slot = m_pImpl->categories[name];
    if (!slot) {
        slot.reset(new std::string(name));
    }
    return LogCategory(slot.get());
}

void LogManager::setLevel(ELogLevel level) {
    m_pImpl->level.store(level, std::memory_order_relaxed);
}

ELogLevel LogManager::getLevel() const {
    return static_cast<ELogLevel>(m_pImpl->level.load(std::memory_order_relaxed));
}

void LogManager::setSink(LogSink sink) {
    std::shared_ptr<const LogSink> next;
    if (sink) {
        next = std::make_shared<const LogSink>(std::move(sink));
    }
    std::lock_guard<std::mutex> lock(m_pImpl->sinkMutex);
    m_pImpl->sink.swap(next);
}

void LogManager::emit(ELogLevel level, const std::string& category, const std::string& text) {
    std::shared_ptr<const LogSink> sink;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->sinkMutex);
        sink = m_pImpl->sink;
    }
    if (sink) {
        (*sink)(level, category, text);
    } else {
        writeDefault(level, category, text);
    }
}

LogCategory::LogCategory() : m_pName(&kUnnamed) {}

LogStream LogCategory::stream(ELogLevel level) const {
    if (!LogManager::getInstance().isEnabled(level)) {
        return LogStream();
    }
    return LogStream(level, m_pName);
}

LogStream::LogStream(ELogLevel level, const std::string* pCategory)
    : m_level(level), m_pCategory(pCategory), m_pStream(new std::ostringstream) {}

LogStream::LogStream(LogStream&& other) noexcept
    : m_level(other.m_level), m_pCategory(other.m_pCategory), m_pStream(std::move(other.m_pStream)) {}

LogStream::~LogStream() {
    if (m_pStream) {
        // A destructor must not throw: a line that cannot be built or delivered is lost.
        try {
            LogManager::getInstance().emit(m_level, *m_pCategory, m_pStream->str());
        } catch (...) {
        }
    }
}

LogStream& LogStream::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    if (m_pStream) {
        manipulator(*m_pStream);
    }
    return *this;
}

}  // namespace Logging
}  // namespace Utilities
}  // namespace Corvane
