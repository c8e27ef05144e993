// A program run as a child process by a test, as a user runs it: its standard input, output and
// error on pipes (or output and error on one pipe), read line by line with deadlines.
//
// Ownership: the object owns the child; destroying it kills a child still running and reaps it.
// Threads: one thread at a time.
#ifndef TARN_TESTS_SUPPORT_CHILDPROCESS_H
#define TARN_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

class ChildProcess {
public:
    // Where the child's standard error goes: a pipe of its own (read with nextErrorLine), the
    // output pipe (in the order it was written), or a file appended to (`errorFile`, "" for none).
    enum class Errors { Pipe, ToOutput, ToFile };

    // Starts `argv[0]` with the arguments that follow; started() tells whether it ran.
    explicit ChildProcess(const std::vector<std::string>& argv, Errors errors = Errors::Pipe,
                          const std::string& errorFile = std::string());
    virtual ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

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
    // Puts lines back in front of the output still to be read.
    void putBack(const std::vector<std::string>& lines);
    // The next line of standard error within `timeoutMs`.
    bool nextErrorLine(std::string& line, int timeoutMs);

    // Exactly `count` bytes of standard output within `timeoutMs`, for a child whose output is not
    // made of lines; false on time-out or end of output, the bytes then left for later reads.
    bool readExactly(std::string& bytes, std::size_t count, int timeoutMs);
    // Standard error so far, without waiting: what the pipe holds now is read too.
    std::string errorsSoFar();

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
    static bool takeLine(std::string& buffer, std::string& line);

    pid_t m_pid = -1;
    int m_in = -1;
    int m_outFd = -1;
    int m_errFd = -1;
    std::string m_out;
    std::string m_err;
    int m_status = -1;
};

}  // namespace testsupport

#endif  // TARN_TESTS_SUPPORT_CHILDPROCESS_H
