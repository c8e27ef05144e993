// Runs the example programs as an application would and checks what they print and how they end.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tcptestutil.h"
#include "testsupport.h"

extern char** environ;

namespace {

// A child process whose standard output and error come back through one pipe.
class Child {
public:
    explicit Child(const std::vector<std::string>& argv) {
        int fds[2];
        if (::pipe(fds) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        std::vector<char*> args;
        for (const auto& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
            m_pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        m_fd = fds[0];
    }
    ~Child() {
        if (m_pid > 0 && !m_bReaped) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const { return m_pid > 0; }

    // Reads output until `text` has appeared or the time is up.
    bool readUntil(const std::string& text, int timeoutMs) {
        const std::int64_t deadline = testsupport::nowMs() + timeoutMs;
        while (output.find(text) == std::string::npos) {
            if (!readSome(deadline)) {
                return output.find(text) != std::string::npos;
            }
        }
        return true;
    }

    // Reads everything until the child closes its output, then reaps it; the exit status, or -1
    // when it did not end in time.
    int finish(int timeoutMs) {
        const std::int64_t deadline = testsupport::nowMs() + timeoutMs;
        while (readSome(deadline)) {
        }
        while (testsupport::nowMs() < deadline) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_bReaped = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            usleep(5000);
        }
        return -1;
    }

    std::string output;

private:
    bool readSome(std::int64_t deadline) {
        const std::int64_t left = deadline - testsupport::nowMs();
        pollfd entry{m_fd, POLLIN, 0};
        if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t n = ::read(m_fd, buffer, sizeof(buffer));
        if (n <= 0) {
            return false;
        }
        output.append(buffer, static_cast<std::size_t>(n));
        return true;
    }

    pid_t m_pid = -1;
    int m_fd = -1;
    bool m_bReaped = false;
};

const std::string kDir = TARN_EXAMPLE_DIR;

}  // namespace

TEST(TarnExamples, DemoTellsTheWholeStoryAndSucceeds) {
    Child demo({kDir + "/tarn-example-demo"});
    ASSERT_TRUE(demo.started());
    EXPECT_EQ(0, demo.finish(30000)) << demo.output;
    for (const char* line :
         {"client: connected\n", "server: new connection from 127.0.0.1\n", "server: client connected\n",
          "server: subscribe lamp\n", "client: state lamp = ON\n",
          "server: call dim with fade = 1.5 level = 40 \n", "client: trigger dim = done\n",
          "server: unsubscribe lamp\n", "client: disconnected\n", "server: client disconnected\n"}) {
        EXPECT_NE(std::string::npos, demo.output.find(line)) << line << "\n" << demo.output;
    }
    EXPECT_NE(std::string::npos, demo.output.find("demo: server listening on 127.0.0.1:")) << demo.output;
    EXPECT_EQ(demo.output.size() - 11, demo.output.rfind("demo: done\n")) << demo.output;
}

TEST(TarnExamples, ClientAndServerTalkAndBothEndCleanly) {
    Child server({kDir + "/tarn-example-server", "0", "1"});
    ASSERT_TRUE(server.started());
    ASSERT_TRUE(server.readUntil("\n", 10000)) << server.output;
    const std::string prefix = "server: listening on port ";
    ASSERT_EQ(0u, server.output.find(prefix)) << server.output;
    const std::string port = server.output.substr(prefix.size(), server.output.find('\n') - prefix.size());
    ASSERT_NE("0", port);

    Child client({kDir + "/tarn-example-client", "127.0.0.1", port});
    ASSERT_TRUE(client.started());
    EXPECT_EQ(0, client.finish(30000)) << client.output;
    EXPECT_EQ(
        "client: connected\nclient: state temperature = 21.5\nclient: trigger measure = 1\n"
        "client: trigger measure = 2\nclient: trigger measure = 3\nclient: disconnected\n",
        client.output);

    EXPECT_EQ(0, server.finish(30000)) << server.output;
    // The listener reports the connected status after starting the receive thread, so that line
    // may come anywhere before the end; the commands come in the order they were sent.
    std::string commands = server.output;
    const std::string connected = "server: client connected\n";
    const std::size_t at = commands.find(connected);
    ASSERT_NE(std::string::npos, at) << server.output;
    commands.erase(at, connected.size());
    EXPECT_NE(std::string::npos,
              commands.find("server: subscribe temperature\nserver: call measure with count 3\n"
                            "server: unsubscribe temperature\nserver: client disconnected\n"))
        << server.output;
}

TEST(TarnExamples, ClientWithoutServerFailsWithAMessage) {
    const testsupport::ClosedTcpPort closed;
    const std::string port = std::to_string(closed.port());
    Child client({kDir + "/tarn-example-client", "127.0.0.1", port});
    ASSERT_TRUE(client.started());
    EXPECT_EQ(1, client.finish(30000)) << client.output;
    EXPECT_EQ("client: cannot connect to 127.0.0.1:" + port + "\n", client.output);
}
