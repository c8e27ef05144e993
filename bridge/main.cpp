// tarn-bridge: TARN servers on an MQTT broker. A program of its own, so that neither libtarn nor
// the tarn command needs an MQTT library.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <logging/logging.h>
#include <tarnconnection.h>

#include "bridge.h"
#include "config.h"
#include "eventlog.h"
#include "mqttlink.h"

namespace {

namespace Logging = Corvane::Utilities::Logging;

void dropLine(Logging::ELogLevel, const std::string&, const std::string&) {}

void applyLogLevel(const std::string& level) {
    Logging::LogManager& manager = Logging::LogManager::getInstance();
    if (level.empty()) {
        if (std::getenv("TARN_LOG_LEVEL") == nullptr) {
            manager.setSink(dropLine);
        }
        return;
    }
    const Logging::ELogLevel value = level == "error"     ? Logging::eError
                                     : level == "warning" ? Logging::eWarning
                                     : level == "info"    ? Logging::eInfo
                                                          : Logging::eDebug;
    manager.setLevel(value);
}

// Waits for SIGINT or SIGTERM, or for the bridge to find that it cannot go on; the exit status.
int waitForEnd(const tarnbridge::Bridge& bridge, const sigset_t& signals) {
    const timespec tick = {0, 200 * 1000 * 1000};
    for (;;) {
        if (sigtimedwait(&signals, nullptr, &tick) > 0) {
            return 0;
        }
        if (bridge.refused()) {
            return 3;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    tarnbridge::BridgeConfig config;
    std::string error;
    switch (tarnbridge::parseArguments(args, config, error)) {
        case tarnbridge::ParseResult::Help:
            std::fputs(tarnbridge::usageText().c_str(), stdout);
            return 0;
        case tarnbridge::ParseResult::Version:
            std::printf("tarn-bridge %s\n", TARN_BRIDGE_VERSION);
            return 0;
        case tarnbridge::ParseResult::Error:
            std::fprintf(stderr, "tarn-bridge: %s\n", error.c_str());
            return 2;
        case tarnbridge::ParseResult::Run:
            break;
    }
    // The signals are taken by sigtimedwait on this thread only: every thread started from here
    // on inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    applyLogLevel(config.logLevel);
    tarnInit();
    tarnbridge::MqttLink::initLibrary();
    int status = 0;
    {
        tarnbridge::EventLog log(config.json);
        tarnbridge::Bridge bridge(config, log);
        bridge.start();
        status = waitForEnd(bridge, signals);
        bridge.stop();
    }
    tarnbridge::MqttLink::cleanupLibrary();
    tarnDeinit();
    return status;
}
