// Runs the tarn tool as a user does (a testsupport::ChildProcess), `tarn serve` on an ephemeral
// port, and small helpers of the tool's tests.
#ifndef TARN_TESTS_CLI_PROCESS_H
#define TARN_TESTS_CLI_PROCESS_H

#include <cstdint>
#include <string>
#include <vector>

#include "childprocess.h"

namespace clitest {

// The tool under test, as CMake built it.
const char* toolPath();

// The tool (or `program`) run with `args` as a user runs it.
class ToolProcess : public testsupport::ChildProcess {
public:
    explicit ToolProcess(const std::vector<std::string>& args, const std::string& program = std::string());
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

// What a run of the tool to its end gave: the exit status (-1 when it did not end in time), its
// standard output and its standard error.
struct ToolResult {
    int status = -1;
    std::string out;
    std::string err;
};
// Runs the tool (or `program`) to its end with `input` on standard input (then closed).
ToolResult runToEnd(const std::vector<std::string>& args, const std::string& input = std::string(),
                    int timeoutMs = kWaitMs, const std::string& program = std::string());

// Runs the tool to its end with `input` on standard input (then closed); returns the exit status
// (-1 when it did not end within `timeoutMs`).
int runTool(const std::vector<std::string>& args, const std::string& input, int timeoutMs, std::string& out,
            std::string& err);

// The lines of a text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace clitest

#endif  // TARN_TESTS_CLI_PROCESS_H
