#include "process.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace clitest {

const char* toolPath() {
    return TARN_TOOL_PATH;
}

namespace {

std::vector<std::string> toolArgv(const std::vector<std::string>& args, const std::string& program) {
    std::vector<std::string> argv = {program.empty() ? std::string(toolPath()) : program};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& args, const std::string& program)
    : testsupport::ChildProcess(toolArgv(args, program)) {}

namespace {

std::vector<std::string> serveArgs(const std::string& transport, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"serve", "--" + transport, "--bind", "127.0.0.1", "--port", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

}  // namespace

ServeProcess::ServeProcess(const std::string& transport, const std::vector<std::string>& extra)
    : m_process(serveArgs(transport, extra)) {
    // "listening on tcp 127.0.0.1:41234", or the JSON form with "port":41234}
    if (!m_process.nextLine(m_firstLine, kWaitMs)) {
        return;
    }
    std::size_t digits = m_firstLine.find_last_not_of("0123456789}");
    if (digits != std::string::npos) {
        const std::string tail = m_firstLine.substr(digits + 1);
        m_port = static_cast<std::uint16_t>(std::atoi(tail.c_str()));
    }
}

ServeProcess::~ServeProcess() {
    m_process.signal(SIGTERM);
    m_process.wait(kWaitMs);
}

std::string ServeProcess::next(int timeoutMs) {
    std::string line;
    m_process.nextLine(line, timeoutMs);
    return line;
}

int ServeProcess::quit() {
    m_process.send("quit");
    return m_process.wait(kWaitMs);
}

ToolResult runToEnd(const std::vector<std::string>& args, const std::string& input, int timeoutMs,
                    const std::string& program) {
    ToolProcess process(args, program);
    process.sendRaw(input);
    process.closeInput();
    ToolResult result;
    result.status = process.wait(timeoutMs);
    result.out = process.restOfOutput();
    result.err = process.restOfErrors();
    return result;
}

int runTool(const std::vector<std::string>& args, const std::string& input, int timeoutMs, std::string& out,
            std::string& err) {
    ToolResult result = runToEnd(args, input, timeoutMs);
    out = result.out;
    err = result.err;
    return result.status;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

}  // namespace clitest
