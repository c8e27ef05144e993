#include "cliargs.h"

#include <cstdio>
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

namespace {

const OptionEntry* findLong(const std::vector<OptionEntry>& options, const std::string& name) {
    for (const OptionEntry& option : options) {
        if (name == option.name) {
            return &option;
        }
    }
    return nullptr;
}

const OptionEntry* findShort(const std::vector<OptionEntry>& options, char letter) {
    for (const OptionEntry& option : options) {
        if (option.shortName != 0 && option.shortName == letter) {
            return &option;
        }
    }
    return nullptr;
}

bool isPositional(const std::string& arg) {
    return arg.size() < 2 || arg[0] != '-' || (arg[1] >= '0' && arg[1] <= '9');
}

// One word beginning "--": the option and, for one that takes a value, its value (attached after
// '=' or the next word, which `i` then passes).
bool readLong(const std::vector<std::string>& args, std::size_t& i, const std::vector<OptionEntry>& options,
              ParsedArgs& out, std::string& error) {
    std::string name = args[i];
    std::string value;
    const std::size_t equals = name.find('=');
    const bool inlineValue = equals != std::string::npos;
    if (inlineValue) {
        value = name.substr(equals + 1);
        name.erase(equals);
    }
    const OptionEntry* option = findLong(options, name);
    if (!option) {
        error = "unknown option '" + name + "'";
        return false;
    }
    if (option->valueName && !inlineValue) {
        if (i + 1 >= args.size()) {
            error = "option " + name + " needs a value";
            return false;
        }
        value = args[++i];
    } else if (!option->valueName && inlineValue) {
        error = "option " + name + " takes no value";
        return false;
    }
    out.options.emplace_back(name, value);
    return true;
}

// One word of short options: flags bundled ("-jr"), the last of which may take a value, attached
// ("-c3") or as the next word ("-c 3").
bool readShort(const std::vector<std::string>& args, std::size_t& i, const std::vector<OptionEntry>& options,
               ParsedArgs& out, std::string& error) {
    const std::string word = args[i];
    for (std::size_t k = 1; k < word.size(); ++k) {
        const OptionEntry* option = findShort(options, word[k]);
        if (!option) {
            error = std::string("unknown option '-") + word[k] + "'";
            return false;
        }
        if (!option->valueName) {
            out.options.emplace_back(option->name, std::string());
            continue;
        }
        std::string value = word.substr(k + 1);
        if (value.empty()) {
            if (i + 1 >= args.size()) {
                error = std::string("option -") + word[k] + " needs a value";
                return false;
            }
            value = args[++i];
        }
        out.options.emplace_back(option->name, value);
        return true;
    }
    return true;
}

}  // namespace

bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionEntry>& options, ParsedArgs& out,
               std::string& error) {
    out = ParsedArgs();
    error.clear();
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || isPositional(arg)) {
            out.positionals.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        std::string wordError;
        const bool ok = arg[1] == '-' ? readLong(args, i, options, out, wordError)
                                      : readShort(args, i, options, out, wordError);
        if (!ok && error.empty()) {
            error = wordError;
        }
    }
    return error.empty();
}

void printVersion() {
    std::printf("tarn %s\n", TARN_TOOL_VERSION);
    std::fflush(stdout);
}

bool beginCommand(const CommandEntry& command, const std::vector<std::string>& args, ParsedArgs& parsed,
                  int& status) {
    std::string error;
    const bool ok = parseArgs(args, allOptions(command), parsed, error);
    setErrorFormat(formatOf(parsed));
    if (!ok) {
        status = usageError(command.name, error);
        return false;
    }
    if (parsed.has("--help")) {
        const std::string help = commandHelp(command);
        std::FILE* out = formatOf(parsed) == Format::Json ? stderr : stdout;
        std::fwrite(help.data(), 1, help.size(), out);
        std::fflush(out);
        status = kExitOk;
        return false;
    }
    if (parsed.has("--version")) {
        printVersion();
        status = kExitOk;
        return false;
    }
    if (!applyLogLevel(parsed, error)) {
        status = usageError(command.name, error);
        return false;
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
