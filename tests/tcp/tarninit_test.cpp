// tarnInit and tarnDeinit: the command processor's life, the configuration file probe, and the
// assertion for a second start-up.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <sal/cmdprocessor.h>
#include <tarnconnection.h>

#include "testsupport.h"

namespace {

using Processor = sal::SingletonDll<sal::CmdProcessor>;

// Runs a test inside a fresh, empty working directory and goes back afterwards.
class InScratchDirectory {
public:
    InScratchDirectory() {
        char previous[PATH_MAX];
        m_previous = getcwd(previous, sizeof(previous)) != nullptr ? previous : "/";
        char pattern[] = "/tmp/tarninit-XXXXXX";
        m_directory = mkdtemp(pattern) != nullptr ? pattern : "";
        m_bEntered = !m_directory.empty() && chdir(m_directory.c_str()) == 0;
    }
    ~InScratchDirectory() {
        if (chdir(m_previous.c_str()) == 0 && !m_directory.empty()) {
            unlink((m_directory + "/Halvex_Menu.exe.config").c_str());
            rmdir(m_directory.c_str());
        }
    }
    bool entered() const { return m_bEntered; }

private:
    std::string m_previous;
    std::string m_directory;
    bool m_bEntered = false;
};

}  // namespace

TEST(TarnInit, InitThenDeinitThenInitAgainSucceeds) {
    ASSERT_EQ(nullptr, Processor::getInstance());
    tarnInit();
    sal::CmdProcessor* first = Processor::getInstance();
    ASSERT_NE(nullptr, first);
    std::atomic<bool> ran{false};
    EXPECT_TRUE(first->post([&] { ran = true; }));
    first->flush();
    EXPECT_TRUE(ran.load());
    tarnDeinit();
    EXPECT_EQ(nullptr, Processor::getInstance());
    tarnInit();
    EXPECT_NE(nullptr, Processor::getInstance());
    tarnDeinit();
    EXPECT_EQ(nullptr, Processor::getInstance());
}

TEST(TarnInit, DeinitAloneOrTwiceDoesNothing) {
    tarnDeinit();
    EXPECT_EQ(nullptr, Processor::getInstance());
    tarnInit();
    tarnDeinit();
    tarnDeinit();
    EXPECT_EQ(nullptr, Processor::getInstance());
}

TEST(TarnInit, AMissingConfigurationFileIsNoError) {
    InScratchDirectory scratch;
    ASSERT_TRUE(scratch.entered());
    tarnInit();
    EXPECT_NE(nullptr, Processor::getInstance());
    tarnDeinit();
}

TEST(TarnInit, ProbesTheConfigurationFileForReadingAndClosesItAtOnce) {
    InScratchDirectory scratch;
    ASSERT_TRUE(scratch.entered());
    // A FIFO shows the probe: opening it for reading blocks until a writer comes, and a writer
    // that does not wait can open it only while a reader has it open.
    ASSERT_EQ(0, mkfifo("Halvex_Menu.exe.config", 0600));
    std::atomic<bool> done{false};
    std::thread starter([&] {
        tarnInit();
        done = true;
    });
    int writer = -1;
    EXPECT_TRUE(testsupport::waitUntil(
        [&] {
            writer = open("Halvex_Menu.exe.config", O_WRONLY | O_NONBLOCK);
            return writer >= 0;
        },
        5000));
    EXPECT_TRUE(testsupport::waitUntil([&] { return done.load(); }, 5000));
    if (writer >= 0) {
        close(writer);
    }
    // The probe closed the file again: with no reader left, a writer that does not wait is refused.
    const int again = open("Halvex_Menu.exe.config", O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(-1, again);
    EXPECT_EQ(ENXIO, errno);
    if (again >= 0) {
        close(again);
    }
    if (!done.load()) {  // unblock a probe that never saw a writer, so the thread can end
        const int unblock = open("Halvex_Menu.exe.config", O_WRONLY);
        close(unblock);
    }
    starter.join();
    tarnDeinit();
}

TEST(TarnInitDeathTest, ASecondInitFailsTheAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            tarnInit();
            tarnInit();
        },
        "static void sal::SingletonDll<T>::createInstance\\(\\) \\[with T = sal::CmdProcessor\\]: "
        "Assertion `s_pInstance == NULL' failed\\.");
}
