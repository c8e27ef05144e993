// The manual page, the bash completion and docs/cli.md against the tool's command table: the kept
// copies are what the table makes now, the page formats cleanly, the completion completes, the
// user guide names every option, and an install puts the page and the completion in place.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "commandtable.h"
#include "docs.h"

using namespace tarncli;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs a shell command; its standard output, and its exit status in `status`.
std::string shell(const std::string& command, int& status) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        status = -1;
        return out;
    }
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        out.append(buffer, n);
    }
    const int raw = ::pclose(pipe);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return out;
}

const std::string kShare = std::string(TARN_SOURCE_DIR) + "/tools/share/";
const char kRemake[] = "remake it with: cmake --build <build dir> --target tarn_docs";

// What bash's completion offers for the words typed so far (the last one being completed).
std::string complete(const std::vector<std::string>& words) {
    std::string array;
    for (const std::string& word : words) {
        array += " '" + word + "'";
    }
    char path[] = "/tmp/tarn-completion-XXXXXX";
    const int fd = ::mkstemp(path);
    EXPECT_GE(fd, 0);
    const std::string script = "source '" + kShare + "tarn.bash'\nCOMP_WORDS=(" + array +
                               ")\nCOMP_CWORD=" + std::to_string(words.size() - 1) +
                               "\n_tarn\nprintf '%s\\n' \"${COMPREPLY[*]}\"\n";
    const bool written = ::write(fd, script.data(), script.size()) == static_cast<ssize_t>(script.size());
    ::close(fd);
    EXPECT_TRUE(written);
    int status = 0;
    std::string out = shell(std::string("bash '") + path + "' 2>&1", status);
    ::unlink(path);
    EXPECT_EQ(status, 0) << out;
    if (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

}  // namespace

TEST(CliDocs, ManPageIsWhatTheTableMakes) {
    EXPECT_EQ(readFile(kShare + "tarn.1"), manPage()) << "tools/share/tarn.1 is out of date; " << kRemake;
}

TEST(CliDocs, CompletionIsWhatTheTableMakes) {
    EXPECT_EQ(readFile(kShare + "tarn.bash"), bashCompletion())
        << "tools/share/tarn.bash is out of date; " << kRemake;
}

TEST(CliDocs, ManPageNamesEveryCommandOptionAndStatus) {
    const std::string page = manPage();
    for (const CommandEntry& command : commandTable()) {
        EXPECT_NE(page.find(".SS \"tarn " + std::string(command.name) + "\""), std::string::npos)
            << command.name;
        EXPECT_NE(page.find(".B tarn " + std::string(command.name)), std::string::npos) << command.name;
        for (const OptionEntry& option : allOptions(command)) {
            std::string escaped;
            for (const char c : std::string(option.name)) {
                escaped += c == '-' ? "\\-" : std::string(1, c);
            }
            EXPECT_NE(page.find("\\fB" + escaped + "\\fR"), std::string::npos) << option.name;
        }
    }
    for (const ExitStatusEntry& status : exitStatuses()) {
        EXPECT_NE(page.find(".TP\n\\fB" + std::to_string(status.status) + "\\fR\n"), std::string::npos);
    }
}

TEST(CliDocs, ManPageFormatsWithoutWarnings) {
    int status = 0;
    shell("command -v groff >/dev/null 2>&1", status);
    if (status != 0) {
        GTEST_SKIP() << "groff is not installed";
    }
    const std::string out = shell("groff -man -ww -z '" + kShare + "tarn.1' 2>&1", status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "");
    const std::string text = shell("groff -man -Tutf8 '" + kShare + "tarn.1' 2>/dev/null | col -b", status);
    EXPECT_NE(text.find("tarn sub [OPTIONS] HOST PORT NAME..."), std::string::npos) << text.substr(0, 2000);
    EXPECT_NE(text.find("--allow-send MODES"), std::string::npos);
}

TEST(CliDocs, CompletionCompletesCommandsOptionsAndValues) {
    EXPECT_EQ(complete({"tarn", "s"}), "serve sub");
    EXPECT_EQ(complete({"tarn", "i"}), "impair");
    EXPECT_EQ(complete({"tarn", "help", "c"}), "connect call");
    EXPECT_EQ(complete({"tarn", "sub", "--c"}), "--count --cert --ca");
    EXPECT_EQ(complete({"tarn", "sub", "127.0.0.1", "--t"}), "--tcp --timeout --tls");
    EXPECT_EQ(complete({"tarn", "serve", "--log-level", "w"}), "warning");
    EXPECT_EQ(complete({"tarn", "connect", "--allow-send", "real"}), "realtime realtime,reliable");
    EXPECT_EQ(complete({"tarn", "serve", "-p", ""}), "");  // a port is anybody's guess
    EXPECT_EQ(complete({"tarn", "impair", "--d"}), "--dup --delay --data-only --duration");
    EXPECT_EQ(complete({"tarn", "b"}), "bridge");
    EXPECT_EQ(complete({"tarn", "bridge", "--t"}), "--topic-root --tls-insecure");
    EXPECT_EQ(complete({"tarn", "bridge", "--device", "lab=127.0.0.1:5555", "--qos", ""}), "0 1 2");
    EXPECT_EQ(complete({"tarn", "call", "-"}),
              "--tcp --eudp --reliable -r --wait -w --tls --cert --key --ca --insecure --hardened --help -h "
              "--version -V --log-level");
}

namespace {

// The part of docs/cli.md from "## tarn NAME" to the next "## ".
std::string guideSection(const std::string& guide, const std::string& name) {
    const std::string heading = "\n## tarn " + name + "\n";
    const std::size_t start = guide.find(heading);
    if (start == std::string::npos) {
        return std::string();
    }
    const std::size_t end = guide.find("\n## ", start + heading.size());
    return guide.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

TEST(CliDocs, UserGuideDocumentsEveryCommandAndOption) {
    const std::string guide = readFile(std::string(TARN_SOURCE_DIR) + "/docs/cli.md");
    ASSERT_FALSE(guide.empty());
    for (const CommandEntry& command : commandTable()) {
        const std::string section = guideSection(guide, command.name);
        ASSERT_FALSE(section.empty()) << "docs/cli.md has no section '## tarn " << command.name << "'";
        for (const OptionEntry& option : command.options) {
            EXPECT_NE(section.find(std::string("`") + option.name), std::string::npos)
                << "tarn " << command.name << " " << option.name;
            if (option.shortName) {
                EXPECT_NE(section.find(std::string("`-") + option.shortName), std::string::npos)
                    << "tarn " << command.name << " -" << option.shortName;
            }
        }
        for (const ShellCommandEntry& line : command.shell) {
            const std::string usage = line.usage;
            const std::string word = usage.substr(0, usage.find(' '));
            EXPECT_NE(section.find("| `" + word), std::string::npos)
                << "tarn " << command.name << ": " << usage;
        }
    }
    for (const OptionEntry& option : commonOptions()) {
        EXPECT_NE(guide.find(std::string("`") + option.name), std::string::npos) << option.name;
    }
    for (const ExitStatusEntry& status : exitStatuses()) {
        EXPECT_NE(guide.find("\n| " + std::to_string(status.status) + " |"), std::string::npos)
            << status.status;
    }
}

TEST(CliDocs, InstallPutsThePageAndTheCompletionInPlace) {
    const std::string prefix = std::string(TARN_BINARY_DIR) + "/cli-docs-install";
    int status = 0;
    const std::string log = shell("rm -rf '" + prefix + "' && cmake --install '" + TARN_BINARY_DIR +
                                      "' --prefix '" + prefix + "' --component tool 2>&1",
                                  status);
    ASSERT_EQ(status, 0) << log;
    EXPECT_EQ(readFile(prefix + "/share/man/man1/tarn.1"), manPage()) << log;
    EXPECT_EQ(readFile(prefix + "/share/bash-completion/completions/tarn"), bashCompletion()) << log;
    shell("test -x '" + prefix + "/bin/tarn'", status);
    EXPECT_EQ(status, 0) << log;
    shell("rm -rf '" + prefix + "'", status);
}
