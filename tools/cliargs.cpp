#include "cliargs.h"

#include <cstdlib>

#include <logging/logging.h>

namespace tarncli {

namespace Logging = Corvane::Utilities::Logging;

bool ParsedArgs::has(const std::string& name) const {
    for (const auto& option : options) {
        if (option.first == name) {
            return true;
        }
    }
    return false;
}

std::string ParsedArgs::value(const std::string& name, const std::string& fallback) const {
    std::string result = fallback;
    for (const auto& option : options) {
        if (option.first == name) {
            result = option.second;
        }
    }
    return result;
}

bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionSpec>& optionSpecs,
               ParsedArgs& out, std::string& error) {
    std::vector<OptionSpec> all = optionSpecs;
    all.push_back({"--help", false});
    all.push_back({"--log-level", true});
    out = ParsedArgs();
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-' || (arg[1] != '-' && arg != "-h")) {
            out.positionals.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        std::string name = arg == "-h" ? "--help" : arg;
        std::string value;
        bool inlineValue = false;
        const std::size_t equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
            inlineValue = true;
        }
        const OptionSpec* found = nullptr;
        for (const OptionSpec& option : all) {
            if (name == option.name) {
                found = &option;
            }
        }
        if (!found) {
            error = "unknown option '" + name + "'";
            return false;
        }
        if (found->takesValue && !inlineValue) {
            if (i + 1 >= args.size()) {
                error = "option " + name + " needs a value";
                return false;
            }
            value = args[++i];
        } else if (!found->takesValue && inlineValue) {
            error = "option " + name + " takes no value";
            return false;
        }
        out.options.emplace_back(name, value);
    }
    return true;
}

namespace {

// A sink that drops every line: the tool's default, so that each failure is told once, in the
// tool's own words.
void dropLine(Logging::ELogLevel, const std::string&, const std::string&) {}

}  // namespace

bool applyLogLevel(const ParsedArgs& args, std::string& error) {
    Logging::LogManager& manager = Logging::LogManager::getInstance();
    if (!args.has("--log-level")) {
        if (std::getenv("TARN_LOG_LEVEL") == nullptr) {
            manager.setSink(dropLine);
        }
        return true;
    }
    const std::string name = args.value("--log-level");
    if (name == "none") {
        manager.setSink(dropLine);
        manager.setLevel(Logging::eError);
        return true;
    }
    Logging::ELogLevel level = Logging::eWarning;
    if (name == "error") {
        level = Logging::eError;
    } else if (name == "warning") {
        level = Logging::eWarning;
    } else if (name == "info") {
        level = Logging::eInfo;
    } else if (name == "debug") {
        level = Logging::eDebug;
    } else {
        error = "unknown log level '" + name + "' (none, error, warning, info or debug)";
        return false;
    }
    manager.setSink(Logging::LogSink());
    manager.setLevel(level);
    return true;
}

bool transportOf(const ParsedArgs& args, ETransport& kind, std::string& error) {
    const bool tcp = args.has("--tcp");
    const bool eudp = args.has("--eudp");
    if (tcp && eudp) {
        error = "--tcp and --eudp exclude each other";
        return false;
    }
    kind = eudp ? eTransportEUDP : eTransportTCP;
    return true;
}

Format formatOf(const ParsedArgs& args) {
    return args.has("--json") ? Format::Json : Format::Human;
}

int usageError(const std::string& command, const std::string& message) {
    printError(message + "; see 'tarn " + command + " --help'");
    return kExitUsage;
}

}  // namespace tarncli
