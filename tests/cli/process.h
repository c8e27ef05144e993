// Runs the tarn tool as a user does: a child process with its standard input, output and error on
// pipes, read line by line with deadlines.
#ifndef TARN_TESTS_CLI_PROCESS_H
#define TARN_TESTS_CLI_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace clitest {

// The tool under test, as CMake built it.
const char* toolPath();

class ToolProcess {
public:
    // `program` is the tool under test unless another path is given.
    explicit ToolProcess(const std::vector<std::string>& args, const std::string& program = std::string());
    ~ToolProcess();  // kills a process still running and reaps it
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    // Writes `line` and a line end to the child's standard input.
    bool send(const std::string& line);
    bool sendRaw(const std::string& text);
    void closeInput();
    void signal(int number);

    // The next line of standard output within `timeoutMs`; false on time-out or end of output.
    bool nextLine(std::string& line, int timeoutMs);
    // Reads standard output until a line satisfies `match`; the lines passed over are kept in
    // `skipped` when given.
    bool waitForLine(const std::function<bool(const std::string&)>& match, std::string& line, int timeoutMs,
                     std::vector<std::string>* skipped = nullptr);
    bool waitForLine(const std::string& exact, int timeoutMs, std::vector<std::string>* skipped = nullptr);
    // The next line of standard error within `timeoutMs`.
    bool nextErrorLine(std::string& line, int timeoutMs);

    // Waits for the child to end: its exit status, 128 + the signal that ended it, or -1 when it
    // is still running after `timeoutMs`. Output keeps being collected meanwhile.
    int wait(int timeoutMs);

    // Everything of standard output not yet taken as lines, and all standard error not yet taken;
    // complete once wait() has returned a status.
    std::string restOfOutput() const { return m_out; }
    std::string restOfErrors() const { return m_err; }

private:
    // Reads whatever is available within `timeoutMs`; false when nothing more can come.
    bool pump(int timeoutMs);
    bool takeLine(std::string& buffer, std::string& line);

    pid_t m_pid = -1;
    int m_in = -1;
    int m_outFd = -1;
    int m_errFd = -1;
    std::string m_out;
    std::string m_err;
    int m_status = -1;
};

// Deadline for anything a test waits for: generous, since sanitizer builds on a small shared
// machine are slow.
const int kWaitMs = 15000;

// `tarn serve` on an ephemeral port of 127.0.0.1, with the port read from its first line.
class ServeProcess {
public:
    // `transport` is "tcp" or "eudp".
    explicit ServeProcess(const std::string& transport, const std::vector<std::string>& extra = {});
    ~ServeProcess();

    std::uint16_t port() const { return m_port; }
    std::string portText() const { return std::to_string(m_port); }
    ToolProcess& process() { return m_process; }
    std::string firstLine() const { return m_firstLine; }

    // The next line of output, whatever it is ("" on time-out).
    std::string next(int timeoutMs = kWaitMs);
    bool send(const std::string& line) { return m_process.send(line); }
    // Sends quit and waits for the exit status.
    int quit();

private:
    ToolProcess m_process;
    std::uint16_t m_port = 0;
    std::string m_firstLine;
};

// Runs the tool to its end with `input` on standard input (then closed); returns the exit status
// (-1 when it did not end within `timeoutMs`).
int runTool(const std::vector<std::string>& args, const std::string& input, int timeoutMs, std::string& out,
            std::string& err);

// The lines of a text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

// A local port on which nothing listens (TCP) at the moment of the call.
std::uint16_t closedTcpPort();

}  // namespace clitest

#endif  // TARN_TESTS_CLI_PROCESS_H
