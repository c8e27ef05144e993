// What the bridge is told to do, from the command line or a configuration file, and the parsing
// of both. A file holds one option a line, written as on the command line without the leading
// "--" (`device lab=tcp://127.0.0.1:5555`, `sub temperature humidity`); blank lines and lines
// starting with '#' are skipped. Plain functions and values: no threads, no logging.
#ifndef TARN_BRIDGE_CONFIG_H
#define TARN_BRIDGE_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

#include <itarntransport.h>

namespace tarnbridge {

struct DeviceConfig {
    std::string name;
    ETransport transport = eTransportTCP;
    std::string host;
    std::uint16_t port = 0;
    std::vector<std::string> subscriptions;  // in the order given, each once
};

struct BrokerConfig {
    std::string host = "127.0.0.1";
    std::uint16_t port = 1883;
    std::string clientId;  // empty: "tarn-bridge-" and the process id
    std::string username;
    std::string password;
    bool hasPassword = false;
    std::string caFile;
    std::string caPath;
    std::string certFile;
    std::string keyFile;
    bool tlsInsecure = false;
    int keepAliveSeconds = 30;
};

struct BridgeConfig {
    BrokerConfig broker;
    std::string root = "tarn";
    std::string name = "bridge";  // the bridge's own level under the root, for its status
    std::vector<DeviceConfig> devices;
    bool raw = false;
    bool json = false;
    int qos = 1;
    int retryMaxMs = 10000;  // the longest pause between two tries to reach a device
    std::string logLevel;    // the library's own log lines: empty (none), error, warning, info, debug
};

enum class ParseResult { Run, Help, Version, Error };

// Reads the arguments after the program name. On Error `error` holds a one-line reason.
ParseResult parseArguments(const std::vector<std::string>& args, BridgeConfig& config, std::string& error);

// NAME=[tcp://|eudp://]HOST:PORT, HOST also as [ADDRESS] for IPv6.
bool parseDevice(const std::string& text, DeviceConfig& device, std::string& error);
// HOST:PORT or [ADDRESS]:PORT; the port 1 to 65535.
bool parseHostPort(const std::string& text, std::string& host, std::uint16_t& port, std::string& error);

// The usage text for --help.
std::string usageText();

}  // namespace tarnbridge

#endif  // TARN_BRIDGE_CONFIG_H
