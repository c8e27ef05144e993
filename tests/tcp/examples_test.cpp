// Runs the example programs as an application would and checks what they print and how they end.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "childprocess.h"
#include "tcptestutil.h"
#include "testsupport.h"

namespace {

// An example program with its standard output and error on one pipe.
class Child : public testsupport::ChildProcess {
public:
    explicit Child(const std::vector<std::string>& argv) : testsupport::ChildProcess(argv, Errors::ToOutput) {
        closeInput();  // the examples read nothing
    }

    // The first line of output, with its line end, into `output`; false when none came in time.
    bool readFirstLine(int timeoutMs) {
        std::string line;
        if (!nextLine(line, timeoutMs)) {
            return false;
        }
        output = line + "\n";
        return true;
    }

    // Reads everything until the child ends; the exit status, or -1 when it did not end in time.
    int finish(int timeoutMs) {
        const int status = wait(timeoutMs);
        output += restOfOutput();
        return status;
    }

    std::string output;  // what was read so far
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
    ASSERT_TRUE(server.readFirstLine(10000)) << server.output;
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
