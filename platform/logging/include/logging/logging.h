// Logging library: named categories with four severity streams.
//
// A LogStream is written to like an std::ostream and emits one line when it is destroyed, so a whole
// statement `log.getWarnStream() << "a" << 1;` becomes one line. Lines less severe than the manager's
// level are dropped at the stream's creation: a disabled stream holds nothing, formats nothing and
// allocates nothing.
//
// Ownership: LogManager is a process-wide singleton. LogCategory is a small copyable handle; the
// category it names lives as long as the process. LogStream is movable, not copyable.
//
// Threads: every operation may be called from any thread. Lines from many threads never interleave,
// neither on the default output (stderr) nor towards a sink: the sink is called for one whole line at
// a time, possibly from several threads at once, so a sink must be thread-safe itself.
//
// Level: eWarning unless the environment variable TARN_LOG_LEVEL names another one
// ("error", "warning", "info" or "debug", read once when the manager is first used); setLevel
// overrides both.
#ifndef LOGGING_LOGGING_H
#define LOGGING_LOGGING_H

#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

#include <logging/logging_export.h>

namespace Corvane {
namespace Utilities {
namespace Logging {

// Decreasing severity: a level lets through itself and everything above it.
enum ELogLevel { eError, eWarning, eInfo, eDebug };

// Receives every emitted line instead of the default output. `text` is exactly what was streamed:
// no prefix, no newline.
typedef std::function<void(ELogLevel level, const std::string& category, const std::string& text)> LogSink;

// Text name of a level ("ERROR", "WARN", "INFO", "DEBUG").
LOGGING_EXPORT const char* levelName(ELogLevel level);

class LOGGING_EXPORT LogStream {
public:
    LogStream(LogStream&& other) noexcept;
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;
    LogStream& operator=(LogStream&&) = delete;
    ~LogStream();

    // True when this stream will emit a line.
    bool isEnabled() const { return m_pStream != nullptr; }

    template <class T>
    LogStream& operator<<(const T& value) {
        if (m_pStream) {
            *m_pStream << value;
        }
        return *this;
    }
    LogStream& operator<<(std::ostream& (*manipulator)(std::ostream&));

private:
    friend class LogCategory;
    LogStream() = default;  // disabled
    LogStream(ELogLevel level, const std::string* pCategory);

    ELogLevel m_level = eError;
    const std::string* m_pCategory = nullptr;  // interned name, lives as long as the process
    std::unique_ptr<std::ostringstream> m_pStream;
};

class LOGGING_EXPORT LogCategory {
public:
    LogCategory();  // the unnamed category ""
    const std::string& getName() const { return *m_pName; }

    LogStream getErrorStream() const { return stream(eError); }
    LogStream getWarnStream() const { return stream(eWarning); }
    LogStream getInfoStream() const { return stream(eInfo); }
    LogStream getDebugStream() const { return stream(eDebug); }
    LogStream stream(ELogLevel level) const;

private:
    friend class LogManager;
    explicit LogCategory(const std::string* pName) : m_pName(pName) {}
    const std::string* m_pName;
};

class LOGGING_EXPORT LogManager {
public:
    static LogManager& getInstance();

    // The category of that name; asking twice gives handles to the same category.
    LogCategory getCategory(const std::string& name);

    void setLevel(ELogLevel level);
    ELogLevel getLevel() const;
    bool isEnabled(ELogLevel level) const { return static_cast<int>(level) <= getLevel(); }

    // Installs a sink; an empty function restores the default output on stderr.
    void setSink(LogSink sink);

    // Emits one line now (what a LogStream does when it is destroyed).
    void emit(ELogLevel level, const std::string& category, const std::string& text);

    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

private:
    LogManager();
    ~LogManager();
    struct Impl;
    Impl* m_pImpl;
};

}  // namespace Logging
}  // namespace Utilities
}  // namespace Corvane

#endif  // LOGGING_LOGGING_H
