#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <logging/logging.h>

namespace {

namespace Log = Corvane::Utilities::Logging;
using Log::LogManager;

struct Line {
    Log::ELogLevel level;
    std::string category;
    std::string text;
};

// Installs a recording sink and a level for the test's duration.
class Recorder {
public:
    explicit Recorder(Log::ELogLevel level = Log::eDebug) : m_previous(LogManager::getInstance().getLevel()) {
        LogManager::getInstance().setSink(
            [this](Log::ELogLevel lineLevel, const std::string& category, const std::string& text) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_lines.push_back(Line{lineLevel, category, text});
            });
        LogManager::getInstance().setLevel(level);
    }
    ~Recorder() {
        LogManager::getInstance().setSink(Log::LogSink());
        LogManager::getInstance().setLevel(m_previous);
    }
    std::vector<Line> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    std::mutex m_mutex;
    std::vector<Line> m_lines;
    Log::ELogLevel m_previous;
};

// Sends this process's stderr to a file or a pipe for the object's lifetime.
class StderrRedirect {
public:
    explicit StderrRedirect(int target) : m_saved(::dup(STDERR_FILENO)) { ::dup2(target, STDERR_FILENO); }
    ~StderrRedirect() {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }

private:
    int m_saved;
};

std::string readAll(int fd) {
    std::string content;
    char buffer[65536];
    ::lseek(fd, 0, SEEK_SET);
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        content.append(buffer, static_cast<std::size_t>(n));
    }
    return content;
}

int tempFile() {
    char name[] = "/tmp/tarn-logging-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd >= 0) {
        ::unlink(name);
    }
    return fd;
}

std::vector<std::string> splitLines(const std::string& content) {
    std::vector<std::string> lines;
    std::istringstream stream(content);
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

// True when `line` is "<UTC time stamp> " + `rest`, the stamp as in 2026-11-22T13:17:00.123456.
bool stampedAs(const std::string& line, const std::string& rest) {
    const std::string layout = "dddd-dd-ddTdd:dd:dd.dddddd ";
    if (line.size() != layout.size() + rest.size()) {
        return false;
    }
    for (std::size_t i = 0; i < layout.size(); ++i) {
        const bool ok = layout[i] == 'd' ? (line[i] >= '0' && line[i] <= '9') : line[i] == layout[i];
        if (!ok) {
            return false;
        }
    }
    return line.compare(layout.size(), std::string::npos, rest) == 0;
}

// A value whose formatting is counted.
struct Counted {
    static std::atomic<int> s_formatted;
};
std::atomic<int> Counted::s_formatted{0};
std::ostream& operator<<(std::ostream& out, const Counted&) {
    ++Counted::s_formatted;
    return out << "counted";
}

TEST(Logging, SinkReceivesTheExactText) {
    Recorder recorder;
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    category.getWarnStream() << "TARN: value " << 42 << ' ' << 2.5 << " end";
    const auto lines = recorder.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(Log::eWarning, lines[0].level);
    EXPECT_EQ("TARN", lines[0].category);
    EXPECT_EQ("TARN: value 42 2.5 end", lines[0].text);  // no prefix, no newline
}

TEST(Logging, EachStreamGivesOneLineAtItsLevel) {
    Recorder recorder;
    Log::LogCategory category = LogManager::getInstance().getCategory("Cat");
    category.getErrorStream() << "e";
    category.getWarnStream() << "w";
    category.getInfoStream() << "i";
    category.getDebugStream() << "d";
    category.getInfoStream();  // an empty line is still a line
    const auto lines = recorder.lines();
    ASSERT_EQ(5u, lines.size());
    EXPECT_EQ(Log::eError, lines[0].level);
    EXPECT_EQ("e", lines[0].text);
    EXPECT_EQ(Log::eWarning, lines[1].level);
    EXPECT_EQ(Log::eInfo, lines[2].level);
    EXPECT_EQ(Log::eDebug, lines[3].level);
    EXPECT_EQ("d", lines[3].text);
    EXPECT_EQ("", lines[4].text);
}

TEST(Logging, SetLevelDropsLinesBelowTheThreshold) {
    Recorder recorder(Log::eWarning);
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    EXPECT_EQ(Log::eWarning, LogManager::getInstance().getLevel());
    category.getDebugStream() << "debug";
    category.getInfoStream() << "info";
    category.getWarnStream() << "warn";
    category.getErrorStream() << "error";
    LogManager::getInstance().setLevel(Log::eError);
    category.getWarnStream() << "warn2";
    category.getErrorStream() << "error2";
    LogManager::getInstance().setLevel(Log::eInfo);
    category.getDebugStream() << "debug3";
    category.getInfoStream() << "info3";
    const auto lines = recorder.lines();
    std::vector<std::string> texts;
    for (const auto& line : lines) {
        texts.push_back(line.text);
    }
    EXPECT_EQ((std::vector<std::string>{"warn", "error", "error2", "info3"}), texts);
    EXPECT_TRUE(LogManager::getInstance().isEnabled(Log::eInfo));
    EXPECT_FALSE(LogManager::getInstance().isEnabled(Log::eDebug));
}

TEST(Logging, DisabledStreamDoesNotFormat) {
    Recorder recorder(Log::eWarning);
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    Counted::s_formatted = 0;
    {
        Log::LogStream stream = category.getDebugStream();
        EXPECT_FALSE(stream.isEnabled());
        stream << Counted() << 1 << "text" << std::endl;
    }
    EXPECT_EQ(0, Counted::s_formatted.load());
    EXPECT_TRUE(recorder.lines().empty());
    {
        Log::LogStream stream = category.getWarnStream();
        EXPECT_TRUE(stream.isEnabled());
        stream << Counted();
    }
    EXPECT_EQ(1, Counted::s_formatted.load());
    ASSERT_EQ(1u, recorder.lines().size());
    EXPECT_EQ("counted", recorder.lines()[0].text);
}

namespace {

// Nanoseconds per line over `lines` lines, written at warning level (`emitted`) or at debug level.
double nsPerLine(Log::LogCategory& category, bool emitted, int lines) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < lines; ++i) {
        (emitted ? category.getWarnStream() : category.getDebugStream())
            << "TARN: sent packet " << i << " of " << lines;
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) / lines;
}

}  // namespace

TEST(Logging, CostOfADisabledLine) {
    Recorder recorder(Log::eWarning);
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    constexpr int kDisabledLines = 1000000;
    constexpr int kEmittedLines = 5000;
    const double disabled = nsPerLine(category, false, kDisabledLines);
    EXPECT_TRUE(recorder.lines().empty());
    const double emitted = nsPerLine(category, true, kEmittedLines);
    EXPECT_EQ(static_cast<std::size_t>(kEmittedLines), recorder.lines().size());
    std::printf("disabled log line: %.1f ns, emitted: %.1f ns\n", disabled, emitted);
    // Both measured side by side, so a loaded machine or a sanitizer slows both: a disabled line
    // neither allocates nor formats, and costs a small part of what an emitted line does.
    EXPECT_LT(disabled * 10, emitted);
}

TEST(Logging, ManipulatorsApply) {
    Recorder recorder;
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    category.getInfoStream() << std::hex << 255 << std::dec << ' ' << 255 << ' ' << std::setw(4)
                             << std::setfill('0') << 7;
    ASSERT_EQ(1u, recorder.lines().size());
    EXPECT_EQ("ff 255 0007", recorder.lines()[0].text);
}

TEST(Logging, MovedStreamEmitsOnce) {
    Recorder recorder;
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    {
        Log::LogStream first = category.getErrorStream();
        first << "a";
        Log::LogStream second(std::move(first));
        second << "b";
        EXPECT_TRUE(second.isEnabled());
    }
    ASSERT_EQ(1u, recorder.lines().size());
    EXPECT_EQ("ab", recorder.lines()[0].text);
}

TEST(Logging, CategoriesAndLevelNames) {
    Log::LogCategory first = LogManager::getInstance().getCategory("TARN");
    Log::LogCategory second = LogManager::getInstance().getCategory("TARN");
    EXPECT_EQ("TARN", first.getName());
    EXPECT_EQ(&first.getName(), &second.getName());  // the same category
    EXPECT_EQ("", Log::LogCategory().getName());
    EXPECT_STREQ("ERROR", Log::levelName(Log::eError));
    EXPECT_STREQ("WARN", Log::levelName(Log::eWarning));
    EXPECT_STREQ("INFO", Log::levelName(Log::eInfo));
    EXPECT_STREQ("DEBUG", Log::levelName(Log::eDebug));
}

TEST(Logging, EmptySinkRestoresTheDefaultOutput) {
    const int fd = tempFile();
    ASSERT_GE(fd, 0);
    {
        Recorder recorder;
        StderrRedirect redirect(fd);
        LogManager::getInstance().getCategory("TARN").getWarnStream() << "to the sink";
        LogManager::getInstance().setSink(Log::LogSink());
        LogManager::getInstance().getCategory("TARN").getWarnStream() << "to stderr";
        LogManager::getInstance().getCategory("X").getErrorStream() << "error line";
        LogManager::getInstance().getCategory("X").getInfoStream() << "info line";
        LogManager::getInstance().getCategory("X").getDebugStream() << "debug line";
        ASSERT_EQ(1u, recorder.lines().size());
        EXPECT_EQ("to the sink", recorder.lines()[0].text);
    }
    const auto lines = splitLines(readAll(fd));
    ::close(fd);
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(stampedAs(lines[0], "WARN  TARN: to stderr")) << lines[0];
    EXPECT_TRUE(stampedAs(lines[1], "ERROR X: error line")) << lines[1];
    EXPECT_TRUE(stampedAs(lines[2], "INFO  X: info line")) << lines[2];
    EXPECT_TRUE(stampedAs(lines[3], "DEBUG X: debug line")) << lines[3];
}

// The text of line `number` of thread `thread`: long, and different everywhere, so that any mix of
// two lines shows.
std::string lineText(int thread, int number, std::size_t length) {
    std::string text = "thread " + std::to_string(thread) + " line " + std::to_string(number) + " ";
    while (text.size() < length) {
        text += static_cast<char>('a' + (thread * 7 + number + static_cast<int>(text.size())) % 26);
    }
    return text;
}

// Writes `perThread` lines from each of 8 threads through the default output.
void logFromEightThreads(int perThread, std::size_t length) {
    Log::LogCategory category = LogManager::getInstance().getCategory("TARN");
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([category, t, perThread, length] {
            for (int i = 0; i < perThread; ++i) {
                category.getWarnStream() << lineText(t, i, length);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// Every line is one whole line of one thread, each exactly once.
void expectWholeLines(const std::string& content, int perThread, std::size_t length) {
    const std::string stamp = "2026-11-22T13:17:00.123456 ";
    const std::string head = "WARN  TARN: thread ";
    std::vector<std::vector<int>> seen(8, std::vector<int>(static_cast<std::size_t>(perThread), 0));
    int broken = 0;
    int total = 0;
    for (const auto& line : splitLines(content)) {
        ++total;
        int thread = -1;
        int number = -1;
        if (line.size() > stamp.size() + head.size() + 10 &&
            line.compare(stamp.size(), head.size(), head) == 0) {
            std::sscanf(line.c_str() + stamp.size() + head.size(), "%d line %d", &thread, &number);
        }
        if (thread < 0 || thread >= 8 || number < 0 || number >= perThread ||
            !stampedAs(line, "WARN  TARN: " + lineText(thread, number, length))) {
            ++broken;
            continue;
        }
        ++seen[static_cast<std::size_t>(thread)][static_cast<std::size_t>(number)];
    }
    EXPECT_EQ(0, broken);
    EXPECT_EQ(8 * perThread, total);
    int missing = 0;
    for (const auto& perThreadSeen : seen) {
        for (int count : perThreadSeen) {
            if (count != 1) {
                ++missing;
            }
        }
    }
    EXPECT_EQ(0, missing);
}

TEST(Logging, LinesFromEightThreadsNeverInterleaveInAFile) {
    LogManager::getInstance().setSink(Log::LogSink());
    const Log::ELogLevel previous = LogManager::getInstance().getLevel();
    LogManager::getInstance().setLevel(Log::eWarning);
    const int fd = tempFile();
    ASSERT_GE(fd, 0);
    {
        StderrRedirect redirect(fd);
        logFromEightThreads(500, 200);
    }
    LogManager::getInstance().setLevel(previous);
    expectWholeLines(readAll(fd), 500, 200);
    ::close(fd);
}

TEST(Logging, LongLinesFromEightThreadsNeverInterleaveInAPipe) {
    // Lines longer than the pipe's atomic write size: the kernel alone would let them mix.
    constexpr std::size_t kLength = 20000;
    constexpr int kPerThread = 40;
    LogManager::getInstance().setSink(Log::LogSink());
    const Log::ELogLevel previous = LogManager::getInstance().getLevel();
    LogManager::getInstance().setLevel(Log::eWarning);
    int fds[2];
    ASSERT_EQ(0, ::pipe(fds));
    std::string content;
    std::thread reader([&content, fds] {
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(fds[0], buffer, sizeof(buffer));
            if (n <= 0) {
                break;
            }
            content.append(buffer, static_cast<std::size_t>(n));
        }
    });
    {
        StderrRedirect redirect(fds[1]);
        ::close(fds[1]);  // the redirected stderr holds the write end now
        logFromEightThreads(kPerThread, kLength);
    }  // stderr restored: the write end is gone and the reader sees the end
    reader.join();
    ::close(fds[0]);
    LogManager::getInstance().setLevel(previous);
    expectWholeLines(content, kPerThread, kLength);
}

TEST(Logging, SinkGetsWholeLinesFromEightThreads) {
    Recorder recorder(Log::eWarning);
    logFromEightThreads(500, 100);
    const auto lines = recorder.lines();
    ASSERT_EQ(4000u, lines.size());
    std::vector<int> perThread(8, 0);
    for (const auto& line : lines) {
        const int thread = line.text[7] - '0';
        ASSERT_TRUE(thread >= 0 && thread < 8) << line.text;
        // Lines of one thread arrive in that thread's order.
        EXPECT_EQ(lineText(thread, perThread[static_cast<std::size_t>(thread)], 100), line.text);
        ++perThread[static_cast<std::size_t>(thread)];
        EXPECT_EQ("TARN", line.category);
    }
}

// The manager reads TARN_LOG_LEVEL once, when it is first used, so each reading is checked in a
// fresh child process that sets the variable before its first use of the manager.
void checkEnvironmentLevel(const char* value, Log::ELogLevel expected) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            if (value == nullptr) {
                ::unsetenv("TARN_LOG_LEVEL");
            } else {
                ::setenv("TARN_LOG_LEVEL", value, 1);
            }
            const int level = LogManager::getInstance().getLevel();
            std::fprintf(stderr, "level=%d\n", level);
            std::exit(level == expected ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "level=")
        << "TARN_LOG_LEVEL=" << (value == nullptr ? "(unset)" : value);
}

TEST(LoggingEnvironmentDeathTest, NamedLevels) {
    checkEnvironmentLevel("error", Log::eError);
    checkEnvironmentLevel("warning", Log::eWarning);
    checkEnvironmentLevel("info", Log::eInfo);
    checkEnvironmentLevel("debug", Log::eDebug);
}

TEST(LoggingEnvironmentDeathTest, CaseDoesNotMatter) {
    checkEnvironmentLevel("DEBUG", Log::eDebug);
    checkEnvironmentLevel("Info", Log::eInfo);
}

TEST(LoggingEnvironmentDeathTest, UnsetOrUnknownMeansWarning) {
    checkEnvironmentLevel(nullptr, Log::eWarning);
    checkEnvironmentLevel("", Log::eWarning);
    checkEnvironmentLevel("verbose", Log::eWarning);
    checkEnvironmentLevel("debug ", Log::eWarning);
}

TEST(LoggingEnvironmentDeathTest, SetLevelOverridesTheEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("TARN_LOG_LEVEL", "debug", 1);
            LogManager::getInstance().setLevel(Log::eError);
            ::setenv("TARN_LOG_LEVEL", "info", 1);  // read once: a later change is not seen
            std::exit(LogManager::getInstance().getLevel() == Log::eError ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
