// The tool's entry for `tarn bridge` against tarn-bridge's own parser and help: the same options,
// each taking a value exactly when the bridge reads one, so that tarn's help, manual page and
// completion say what the bridge does.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "commandtable.h"
#include "config.h"

namespace {

const tarncli::CommandEntry& bridgeEntry() {
    const tarncli::CommandEntry* entry = tarncli::findCommand("bridge");
    EXPECT_NE(entry, nullptr);
    static const tarncli::CommandEntry none{};
    return entry ? *entry : none;
}

// Every "--name" in a text.
std::set<std::string> longOptions(const std::string& text) {
    std::set<std::string> names;
    for (std::size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at + 2)) {
        std::size_t end = at + 2;
        while (end < text.size() &&
               (std::islower(static_cast<unsigned char>(text[end])) || text[end] == '-')) {
            ++end;
        }
        if (end > at + 2) {
            names.insert(text.substr(at, end - at));
        }
        at = end - 2;
    }
    return names;
}

}  // namespace

TEST(BridgeTable, TheToolListsExactlyTheBridgesOptions) {
    std::set<std::string> listed;
    for (const tarncli::OptionEntry& option : tarncli::allOptions(bridgeEntry())) {
        listed.insert(option.name);
    }
    EXPECT_EQ(listed, longOptions(tarnbridge::usageText()));
}

TEST(BridgeTable, EachOptionTakesAValueExactlyWhenTheBridgeReadsOne) {
    for (const tarncli::OptionEntry& option : bridgeEntry().options) {
        tarnbridge::BridgeConfig config;
        std::string error;
        const tarnbridge::ParseResult result =
            tarnbridge::parseArguments({"--device", "lab=127.0.0.1:5555", option.name}, config, error);
        if (option.valueName) {
            EXPECT_EQ(result, tarnbridge::ParseResult::Error) << option.name;
            EXPECT_NE(error.find(option.name), std::string::npos) << option.name << ": " << error;
            EXPECT_NE(error.find("need"), std::string::npos) << option.name << ": " << error;
        } else {
            EXPECT_EQ(result, tarnbridge::ParseResult::Run) << option.name << ": " << error;
        }
    }
    // The common options are the bridge's too.
    tarnbridge::BridgeConfig config;
    std::string error;
    EXPECT_EQ(tarnbridge::parseArguments({"--help"}, config, error), tarnbridge::ParseResult::Help);
    EXPECT_EQ(tarnbridge::parseArguments({"-h"}, config, error), tarnbridge::ParseResult::Help);
    EXPECT_EQ(tarnbridge::parseArguments({"--version"}, config, error), tarnbridge::ParseResult::Version);
    EXPECT_EQ(
        tarnbridge::parseArguments({"--device", "lab=127.0.0.1:5555", "--log-level", "debug"}, config, error),
        tarnbridge::ParseResult::Run)
        << error;
}

TEST(BridgeTable, QosChoicesAreWhatTheBridgeTakes) {
    for (const tarncli::OptionEntry& option : bridgeEntry().options) {
        if (std::string(option.name) != "--qos") {
            continue;
        }
        ASSERT_NE(option.choices, nullptr);
        EXPECT_STREQ(option.choices, "0 1 2");
        for (const char* value : {"0", "1", "2"}) {
            tarnbridge::BridgeConfig config;
            std::string error;
            EXPECT_EQ(
                tarnbridge::parseArguments({"--device", "lab=127.0.0.1:5555", "--qos", value}, config, error),
                tarnbridge::ParseResult::Run)
                << error;
            EXPECT_EQ(config.qos, value[0] - '0');
        }
        return;
    }
    ADD_FAILURE() << "tarn bridge has no --qos";
}
