#include "config.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "mapping.h"

namespace tarnbridge {

namespace {

// A whole decimal number within [min, max].
bool parseNumber(const std::string& text, long min, long max, long& out) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    out = std::stol(text);
    return out >= min && out <= max;
}

// Words of a file, one option a line, each turned into "--option" followed by its values.
bool readFile(const std::string& path, std::vector<std::string>& words, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read configuration file '" + path + "'";
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream split(line);
        std::string word;
        bool first = true;
        while (split >> word) {
            if (first && word[0] == '#') {
                break;
            }
            words.push_back(first ? "--" + word : word);
            first = false;
        }
    }
    return true;
}

bool readNames(const std::string& path, std::vector<std::string>& names, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read subscription file '" + path + "'";
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        line.erase(0, line.find_first_not_of(" \t\r"));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (!line.empty() && line[0] != '#') {
            names.push_back(line);
        }
    }
    return true;
}

bool addSubscriptions(BridgeConfig& config, const std::vector<std::string>& names, std::string& error) {
    if (config.devices.empty()) {
        error = "--sub and --sub-file follow the --device they belong to";
        return false;
    }
    DeviceConfig& device = config.devices.back();
    for (const std::string& name : names) {
        if (!validTail(name) || name.size() + 1 > kBodyRoom) {
            error = "'" + name + "' cannot be a state's topic level (empty, '+', '#' or too long)";
            return false;
        }
        if (std::find(device.subscriptions.begin(), device.subscriptions.end(), name) ==
            device.subscriptions.end()) {
            device.subscriptions.push_back(name);
        }
    }
    return true;
}

class Parser {
public:
    Parser(std::vector<std::string> words, BridgeConfig& config)
        : m_words(std::move(words)), m_config(config) {}

    ParseResult run(std::string& error) {
        while (m_pos < m_words.size()) {
            const std::string option = m_words[m_pos++];
            if (option == "--help" || option == "-h") {
                return ParseResult::Help;
            }
            if (option == "--version") {
                return ParseResult::Version;
            }
            if (!one(option, error)) {
                return ParseResult::Error;
            }
        }
        return finish(error) ? ParseResult::Run : ParseResult::Error;
    }

private:
    bool value(const std::string& option, std::string& out, std::string& error) {
        if (m_pos >= m_words.size()) {
            error = option + " needs a value";
            return false;
        }
        out = m_words[m_pos++];
        return true;
    }

    // The words up to the next option.
    std::vector<std::string> values() {
        std::vector<std::string> out;
        while (m_pos < m_words.size() && m_words[m_pos].compare(0, 2, "--") != 0) {
            out.push_back(m_words[m_pos++]);
        }
        return out;
    }

    bool flag(const std::string& option) {
        if (option == "--raw") {
            m_config.raw = true;
        } else if (option == "--json") {
            m_config.json = true;
        } else if (option == "--tls-insecure") {
            m_config.broker.tlsInsecure = true;
        } else {
            return false;
        }
        return true;
    }

    bool one(const std::string& option, std::string& error) {
        if (flag(option)) {
            return true;
        }
        if (option == "--sub") {
            const std::vector<std::string> names = values();
            if (names.empty()) {
                error = "--sub needs one or more names";
                return false;
            }
            return addSubscriptions(m_config, names, error);
        }
        if (option == "--config") {
            std::string path;
            std::vector<std::string> words;
            if (!value(option, path, error) || !readFile(path, words, error)) {
                return false;
            }
            if (++m_depth > 8) {
                error = "configuration files include each other too deeply";
                return false;
            }
            m_words.insert(m_words.begin() + static_cast<long>(m_pos), words.begin(), words.end());
            return true;
        }
        std::string text;
        if (option.compare(0, 2, "--") != 0 || !value(option, text, error)) {
            if (error.empty()) {
                error = "unknown option '" + option + "'";
            }
            return false;
        }
        return withValue(option, text, error);
    }

    bool withValue(const std::string& option, const std::string& text, std::string& error) {
        BrokerConfig& broker = m_config.broker;
        long number = 0;
        if (option == "--broker") {
            return parseHostPort(text, broker.host, broker.port, error);
        } else if (option == "--device") {
            DeviceConfig device;
            if (!parseDevice(text, device, error)) {
                return false;
            }
            m_config.devices.push_back(device);
        } else if (option == "--sub-file") {
            std::vector<std::string> names;
            return readNames(text, names, error) && addSubscriptions(m_config, names, error);
        } else if (option == "--topic-root") {
            m_config.root = text;
        } else if (option == "--name") {
            m_config.name = text;
        } else if (option == "--client-id") {
            broker.clientId = text;
        } else if (option == "--username") {
            broker.username = text;
        } else if (option == "--password") {
            broker.password = text;
            broker.hasPassword = true;
        } else if (option == "--cafile") {
            broker.caFile = text;
        } else if (option == "--capath") {
            broker.caPath = text;
        } else if (option == "--cert") {
            broker.certFile = text;
        } else if (option == "--key") {
            broker.keyFile = text;
        } else if (option == "--keepalive") {
            if (!parseNumber(text, 5, 65535, number)) {
                error = "--keepalive takes 5 to 65535 seconds, not '" + text + "'";
                return false;
            }
            broker.keepAliveSeconds = static_cast<int>(number);
        } else if (option == "--qos") {
            if (!parseNumber(text, 0, 2, number)) {
                error = "--qos takes 0, 1 or 2, not '" + text + "'";
                return false;
            }
            m_config.qos = static_cast<int>(number);
        } else if (option == "--retry-max") {
            if (!parseNumber(text, 1, 3600, number)) {
                error = "--retry-max takes 1 to 3600 seconds, not '" + text + "'";
                return false;
            }
            m_config.retryMaxMs = static_cast<int>(number) * 1000;
        } else if (option == "--log-level") {
            if (text != "none" && text != "error" && text != "warning" && text != "info" && text != "debug") {
                error = "unknown log level '" + text + "' (none, error, warning, info or debug)";
                return false;
            }
            m_config.logLevel = text == "none" ? "" : text;
        } else {
            error = "unknown option '" + option + "'";
            return false;
        }
        return true;
    }

    bool finish(std::string& error) {
        if (m_config.devices.empty()) {
            error = "no --device given";
            return false;
        }
        if (!validRoot(m_config.root)) {
            error = "'" + m_config.root + "' cannot be a topic root";
            return false;
        }
        if (!validLevel(m_config.name)) {
            error = "'" + m_config.name + "' cannot be a topic level (--name)";
            return false;
        }
        if (m_config.broker.keyFile.empty() != m_config.broker.certFile.empty()) {
            error = "--cert and --key go together";
            return false;
        }
        for (std::size_t i = 0; i < m_config.devices.size(); ++i) {
            const std::string& name = m_config.devices[i].name;
            if (name == m_config.name) {
                error = "device '" + name + "' has the bridge's own name (see --name)";
                return false;
            }
            for (std::size_t j = 0; j < i; ++j) {
                if (m_config.devices[j].name == name) {
                    error = "device '" + name + "' is given twice";
                    return false;
                }
            }
        }
        return true;
    }

    std::vector<std::string> m_words;
    std::size_t m_pos = 0;
    int m_depth = 0;
    BridgeConfig& m_config;
};

}  // namespace

bool parseHostPort(const std::string& text, std::string& host, std::uint16_t& port, std::string& error) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        error = "'" + text + "' is not HOST:PORT";
        return false;
    }
    std::string name = text.substr(0, colon);
    if (name.front() == '[') {
        if (name.back() != ']' || name.size() < 3) {
            error = "'" + text + "' is not [ADDRESS]:PORT";
            return false;
        }
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        error = "'" + text + "': write an IPv6 address as [ADDRESS]:PORT";
        return false;
    }
    long number = 0;
    if (!parseNumber(text.substr(colon + 1), 1, 65535, number)) {
        error = "not a port number in '" + text + "'";
        return false;
    }
    host = name;
    port = static_cast<std::uint16_t>(number);
    return true;
}

bool parseDevice(const std::string& text, DeviceConfig& device, std::string& error) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        error = "--device takes NAME=[tcp://|eudp://]HOST:PORT, not '" + text + "'";
        return false;
    }
    device.name = text.substr(0, equals);
    if (!validLevel(device.name)) {
        error = "'" + device.name + "' cannot be a device's topic level (empty, '/', '+' or '#')";
        return false;
    }
    std::string address = text.substr(equals + 1);
    device.transport = eTransportTCP;
    if (address.compare(0, 6, "tcp://") == 0) {
        address.erase(0, 6);
    } else if (address.compare(0, 7, "eudp://") == 0) {
        device.transport = eTransportEUDP;
        address.erase(0, 7);
    } else if (address.find("://") != std::string::npos) {
        error = "unknown transport in '" + text + "' (tcp:// or eudp://)";
        return false;
    }
    return parseHostPort(address, device.host, device.port, error);
}

std::string usageText() {
    return "usage: tarn-bridge --device NAME=[tcp://|eudp://]HOST:PORT [--sub NAME...] [--sub-file PATH] "
           "...\n"
           "                   [--broker HOST:PORT] [--topic-root ROOT] [--raw] [--json] [--config FILE]\n"
           "Puts TARN servers on an MQTT broker: every update of a subscribed state is published retained "
           "on\n"
           "ROOT/DEVICE/state/NAME, every trigger on ROOT/DEVICE/trigger/NAME, the device's link on\n"
           "ROOT/DEVICE/status (online/offline); a JSON object of parameters on ROOT/DEVICE/call/FID calls "
           "FID,\n"
           "and a refused call is answered on ROOT/DEVICE/error.\n"
           "\n"
           "  --device NAME=ADDR    a TARN server (tcp:// is the default); repeat for more devices\n"
           "  --sub NAME...         states to subscribe to on the device given last\n"
           "  --sub-file PATH       the same, one name a line\n"
           "  --broker HOST:PORT    the MQTT broker (default 127.0.0.1:1883)\n"
           "  --topic-root ROOT     first topic levels (default tarn)\n"
           "  --name NAME           the bridge's own level: ROOT/NAME/status, its last will (default "
           "bridge)\n"
           "  --raw                 values as plain text instead of {\"type\":...,\"value\":...}\n"
           "  --qos 0|1|2           quality of service of every publication (default 1)\n"
           "  --json                log one JSON object a line instead of readable lines\n"
           "  --config FILE         options from a file, one a line, without the leading --\n"
           "  --client-id ID        the MQTT client id (default tarn-bridge-PID)\n"
           "  --username U, --password P      broker log-in\n"
           "  --cafile F, --capath D, --cert F, --key F, --tls-insecure   TLS to the broker\n"
           "  --keepalive S         MQTT keep-alive in seconds (default 30)\n"
           "  --retry-max S         longest pause between tries to reach a device (default 10)\n"
           "  --log-level LEVEL     the library's own lines: none, error, warning, info, debug (default "
           "none)\n"
           "  --help, --version\n"
           "\n"
           "Runs until SIGINT or SIGTERM, then publishes offline for every device and itself. Exit status:\n"
           "0 stopped by a signal, 2 usage, 3 the broker refused the log-in or TLS set-up failed.\n";
}

ParseResult parseArguments(const std::vector<std::string>& args, BridgeConfig& config, std::string& error) {
    return Parser(args, config).run(error);
}

}  // namespace tarnbridge
