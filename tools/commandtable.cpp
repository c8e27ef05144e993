#include "commandtable.h"

#include <cstring>

#include "hardening.h"
#include "tls_options.h"

namespace tarncli {

const char kToolSummary[] =
    "tarn is libtarn's command-line tool: it pokes a TARN server by hand, watches what a peer sends,\n"
    "scripts a check, and shows the library at work in one command.";

const char kTargetText[] =
    "HOST PORT may also be written as one word, HOST:PORT. HOST is a name, an IPv4 address or an\n"
    "IPv6 address; an IPv6 address and its port in one word take brackets: [::1]:5555.";

const char kValueText[] =
    "Values: TEXT or name=TEXT (a string), name:i=42 (an integer), name:b=on|off (a boolean),\n"
    "name:f=1.5 (a float, inf and nan too), name:s=TEXT (a string, said explicitly).";

const char kJsonErrorText[] =
    "With --json, standard output holds JSON only, one object per line: errors are objects there\n"
    "too, {\"event\":\"error\",\"message\":\"...\"}, and help goes to standard error.";

const char kEnvironmentText[] =
    "TARN_LOG_LEVEL: when --log-level is not given and this is set, the library's own rule for it\n"
    "decides which of the library's log lines are shown.";

namespace {

const OptionEntry kTcp = {"--tcp", 0, nullptr, "TCP transport (the default)", nullptr};
const OptionEntry kEudp = {"--eudp", 0, nullptr, "EUDP transport", nullptr};
const OptionEntry kJson = {"--json", 'j', nullptr, "one JSON object per line", nullptr};
const OptionEntry kWait = {"--wait", 'w', "S",
                           "when the server is not up yet, try again until S seconds have\n"
                           "passed (fractions allowed), saying so once",
                           nullptr};
const char kModeChoices[] = "realtime reliable realtime,reliable";

CommandEntry makeDemo() {
    return CommandEntry{
        "demo",
        "",
        "a server and a client in one process, a scripted session",
        "Starts a TARN server on free TCP and EUDP ports of 127.0.0.1, connects a client to each and\n"
        "plays a short session: subscribe, state updates, a trigger, a function call with a string, an\n"
        "integer, a boolean and a float, on EUDP a switch to reliable delivery, unsubscribe and\n"
        "disconnect. Lines \"$\" start a tool, lines \"server>\" and \"client>\" are typed into tarn\n"
        "serve and tarn connect, and lines \"server:\" and \"client:\" are what those print. Each step\n"
        "waits up to 10 s for its answer; the exit status is 1 when one did not come.",
        {},
        {},
        nullptr};
}

CommandEntry makeServe() {
    return CommandEntry{
        "serve",
        "",
        "a server with a table of states, driven from standard input",
        "Runs a TARN server on ADDR:P (every interface by default; port 0 picks a free port). The\n"
        "first line printed names the transport, address and port bound. Every connection (numbered\n"
        "from 1), status change and received command is printed as it happens; a new subscriber gets\n"
        "the current state of the name at once.\n"
        "\n"
        "End of input leaves the server running; quit, SIGINT or SIGTERM stop it: it says how many\n"
        "connections it closes, closes them all at once and prints \"stopped\".",
        {kTcp,
         kEudp,
         {"--bind", 'b', "ADDR", "local address to listen on (default: every interface)", nullptr},
         {"--port", 'p', "P", "port to listen on, 0 to 65535 (required; 0 picks a free one)", nullptr},
         kJson,
         {"--allow-send", 0, "MODES",
          "EUDP: the modes a client may ask this side to send in\n"
          "(realtime, reliable or realtime,reliable; default both)",
          kModeChoices},
         {"--allow-receive", 0, "MODES", "EUDP: the same for receiving", kModeChoices}},
        {{"set NAME VALUE", "store the state and send it to the connections subscribed to NAME"},
         {"set NAME[:t]=TEXT", "the same in one word, e.g. set temp:f=21.5"},
         {"trigger NAME VALUE", "send a trigger to the connections subscribed to NAME"},
         {"trigger NAME[:t]=TEXT", "the same in one word"},
         {"list", "show the states, their subscribers and the connections"},
         {"mode CONN send MODE", "ask connection CONN to send in MODE (realtime or reliable)"},
         {"mode CONN receive MODE", "ask connection CONN to receive in MODE"},
         {"window CONN N", "ask connection CONN to keep at most N unacknowledged messages in flight"},
         {"quit", "close every connection and exit"},
         {"help", "show these commands"}},
        "VALUE is TEXT (a string), :i=42, :b=on|off, :f=1.5 or :s=TEXT. CONN is a connection's number.\n"
        "Modes and windows are negotiated over EUDP and wait up to 10 s for the answer; over TCP,\n"
        "delivery is always reliable. Words may be quoted: \"two words\" (with \\\" \\\\ \\n \\r \\t\n"
        "\\xHH escapes) or 'two words'."};
}

CommandEntry makeConnect() {
    return CommandEntry{
        "connect",
        "HOST PORT",
        "an interactive client",
        "Connects to a TARN server and reads commands from standard input; every update and trigger\n"
        "that arrives is printed as it comes. End of input, quit, SIGINT or SIGTERM disconnect.\n"
        "\n"
        "A line that fails (an unknown command, a malformed value, a refused mode or window, a failed\n"
        "send) gets its error line and the session goes on; the exit status is then 1. When the\n"
        "server closes the connection, or stops answering for 10 s, the exit status is 6.",
        {kTcp,
         kEudp,
         kJson,
         {"--allow-send", 0, "MODES",
          "EUDP: the modes the server may ask this side to send in\n"
          "(realtime, reliable or realtime,reliable; default both)",
          kModeChoices},
         {"--allow-receive", 0, "MODES", "EUDP: the same for receiving", kModeChoices},
         kWait},
        {{"sub NAME", "subscribe to NAME"},
         {"unsub NAME", "unsubscribe from NAME"},
         {"call FID [ARG...]", "call function FID; an ARG without a name is called argN"},
         {"mode send MODE", "ask the server to send in MODE (realtime or reliable)"},
         {"mode receive MODE", "ask the server to receive in MODE"},
         {"window N", "ask the server to keep at most N unacknowledged messages in flight"},
         {"quit", "disconnect and exit"},
         {"help", "show these commands"}},
        "ARG is TEXT, name=TEXT, name:i=42, name:b=on|off, name:f=1.5 or name:s=TEXT. Modes and\n"
        "windows are negotiated over EUDP and wait up to 10 s for the answer; over TCP, delivery is\n"
        "always reliable. Words may be quoted: \"two words\" (with \\\" \\\\ \\n \\r \\t \\xHH\n"
        "escapes) or 'two words'."};
}

CommandEntry makeCall() {
    return CommandEntry{
        "call",
        "HOST PORT FID [ARG...]",
        "call a function once and exit",
        "Connects to a TARN server, calls function FID with the arguments, and exits once the call\n"
        "has been sent. Prints nothing on success. The arguments are checked before connecting.\n"
        "\n"
        "ARG is TEXT or name=TEXT (a string), name:i=42 (an integer), name:b=on|off (a boolean),\n"
        "name:f=1.5 (a float) or name:s=TEXT (a string); an ARG without a name is called argN, N its\n"
        "position. Put -- before arguments that begin with -.",
        {kTcp,
         kEudp,
         {"--reliable", 'r', nullptr, "EUDP: ask the server to receive this side's messages reliably first",
          nullptr},
         kWait},
        {},
        nullptr};
}

CommandEntry makeSub() {
    return CommandEntry{
        "sub",
        "HOST PORT NAME...",
        "print updates and triggers of NAME...",
        "Connects to a TARN server, subscribes to every NAME and prints each state update and trigger\n"
        "that arrives, one line each. Once the subscriptions are sent it prints \"ready: subscriptions\n"
        "sent for NAME...\" on standard error (with --json, a \"ready\" event), so that a script can\n"
        "wait for that line before it makes the server send. It exits after N messages (--count), after\n"
        "S seconds (--timeout), when the server closes the connection or stops answering, or on SIGINT\n"
        "or SIGTERM.",
        {kTcp,
         kEudp,
         {"--reliable", 'r', nullptr, "EUDP: ask the server to send reliably before subscribing", nullptr},
         kJson,
         {"--count", 'c', "N", "exit after N updates and triggers", nullptr},
         {"--timeout", 't', "S",
          "exit after S seconds (fractions allowed); with --count, running out of\n"
          "time before N messages is a failure (exit status 5)",
          nullptr},
         kWait},
        {},
        nullptr};
}

CommandEntry makeImpair() {
    return CommandEntry{
        "impair",
        "",
        "a UDP relay that disturbs EUDP traffic, for testing",
        "A UDP relay between EUDP clients and an EUDP server that drops, duplicates, reorders and\n"
        "delays datagrams. Clients connect to the relay's port instead of the server's; the relay\n"
        "follows the port from which the server answers each connection, so the client keeps talking\n"
        "through the relay. The same seed gives the same decisions for the same traffic. The relay\n"
        "speaks IPv4.\n"
        "\n"
        "Prints \"impair: relaying ADDR:P to HOST:PORT\" once it listens, and the counts of what it\n"
        "did when it ends: on SIGINT or SIGTERM, or after --duration.",
        {{"--listen", 0, "P", "port for the clients (required; 0: any free port, printed at start)", nullptr},
         {"--bind", 'b', "ADDR", "address for the clients (default 127.0.0.1)", nullptr},
         {"--to", 0, "HOST:PORT", "the EUDP server's listening address and port (required)", nullptr},
         {"--loss", 0, "PCT", "drop this percentage of datagrams (0 to 100, fractions allowed)", nullptr},
         {"--dup", 0, "PCT", "send this percentage of forwarded datagrams twice", nullptr},
         {"--reorder", 0, "PCT", "hold back this percentage behind the next datagram (at most 20 ms)",
          nullptr},
         {"--delay", 0, "MS", "delay every datagram by MS milliseconds", nullptr},
         {"--jitter", 0, "MS", "add a random -MS..+MS milliseconds to each delay (never below 0)", nullptr},
         {"--seed", 0, "N", "seed of the random decisions (default 1)", nullptr},
         {"--data-only", 0, nullptr,
          "disturb only data, acknowledgements and keep-alives of established\n"
          "connections; connection requests, DIS and mode/window requests pass",
          nullptr},
         {"--duration", 0, "S", "stop after S seconds (fractions allowed)", nullptr}},
        {},
        nullptr};
}

CommandEntry makeBridge() {
    return CommandEntry{
        "bridge",
        "",
        "TARN servers on an MQTT broker (runs tarn-bridge)",
        "Runs tarn-bridge, the MQTT bridge, with the same words, in the place of this process: its\n"
        "exit status and the signals sent to it are its own. It connects to every --device as a TARN\n"
        "client and to one MQTT broker, publishes every update of a state named by --sub retained on\n"
        "ROOT/DEVICE/state/NAME, every trigger on ROOT/DEVICE/trigger/NAME and each device's link on\n"
        "ROOT/DEVICE/status (online or offline); a JSON object of parameters published on\n"
        "ROOT/DEVICE/call/FID calls FID, and a refused call is answered on ROOT/DEVICE/error.\n"
        "\n"
        "SIGINT or SIGTERM publish offline for every device and the bridge, and stop it with status 0;\n"
        "its other statuses are 2 (usage) and 3 (the broker refused the log-in, or TLS could not be set\n"
        "up). Its errors begin \"tarn-bridge: \". Only a first word -h, --help, -V or --version is\n"
        "answered by tarn itself.\n"
        "\n"
        "tarn-bridge is looked for beside tarn, then in the directory tarn is installed into. It is\n"
        "built only where libmosquitto is found; without it, tarn bridge says so and exits with 127.",
        {{"--device", 0, "NAME=ADDR",
          "a TARN server, ADDR being [tcp://|eudp://]HOST:PORT (tcp:// is the\n"
          "default); required, repeat for more devices",
          nullptr},
         {"--sub", 0, "NAME...", "states to subscribe to on the device given last", nullptr},
         {"--sub-file", 0, "PATH", "the same, one name a line", nullptr},
         {"--broker", 0, "HOST:PORT", "the MQTT broker (default 127.0.0.1:1883)", nullptr},
         {"--topic-root", 0, "ROOT", "first topic levels (default tarn)", nullptr},
         {"--name", 0, "NAME", "the bridge's own level: ROOT/NAME/status, its last will (default\nbridge)",
          nullptr},
         {"--raw", 0, nullptr, "values as plain text instead of {\"type\":...,\"value\":...}", nullptr},
         {"--qos", 0, "N", "quality of service of every publication: 0, 1 (default) or 2", "0 1 2"},
         {"--json", 0, nullptr, "log one JSON object a line instead of readable lines", nullptr},
         {"--config", 0, "FILE", "options from a file, one a line, without the leading --", nullptr},
         {"--client-id", 0, "ID", "the MQTT client id (default tarn-bridge-PID)", nullptr},
         {"--username", 0, "U", "user name for the broker's log-in", nullptr},
         {"--password", 0, "P", "password for the broker's log-in", nullptr},
         {"--cafile", 0, "F", "TLS to the broker, trusting the certificates in F", nullptr},
         {"--capath", 0, "D", "TLS to the broker, trusting the certificates in directory D", nullptr},
         {"--cert", 0, "F", "client certificate for TLS (with --key)", nullptr},
         {"--key", 0, "F", "the client certificate's private key", nullptr},
         {"--tls-insecure", 0, nullptr, "TLS without checking the broker's host name", nullptr},
         {"--keepalive", 0, "S", "MQTT keep-alive in seconds, 5 to 65535 (default 30)", nullptr},
         {"--retry-max", 0, "S", "longest pause between tries to reach a device, 1 to 3600 s\n(default 10)",
          nullptr}},
        {},
        nullptr};
}

CommandEntry makeVersion() {
    return CommandEntry{
        "version", "",     "print the version", "Prints the version of the tool: \"tarn 1.2.3\".", {},
        {},        nullptr};
}

CommandEntry makeHelp() {
    return CommandEntry{
        "help",
        "[COMMAND]",
        "show this help, or the help of COMMAND",
        "Shows the list of commands, or the help of COMMAND (the same as tarn COMMAND --help).",
        {},
        {},
        nullptr};
}

std::vector<CommandEntry> makeCommands() {
    std::vector<CommandEntry> commands = {makeDemo(),   makeServe(),  makeConnect(), makeCall(), makeSub(),
                                          makeImpair(), makeBridge(), makeVersion(), makeHelp()};
    addTlsOptions(commands);
    addHardening(commands);
    return commands;
}

void appendLines(std::string& out, const char* text, std::size_t indent) {
    const std::string pad(indent, ' ');
    const char* line = text;
    for (;;) {
        const char* end = std::strchr(line, '\n');
        out += pad;
        out.append(line, end ? static_cast<std::size_t>(end - line) : std::strlen(line));
        out += '\n';
        if (!end) {
            return;
        }
        line = end + 1;
    }
}

// A two-column block: labels padded to `width`, help lines after them (a label too long for its
// column gets its help on the next line).
void appendRow(std::string& out, const std::string& label, const char* help, std::size_t width) {
    std::string row = "  " + label;
    if (row.size() + 2 > width) {
        out += row + '\n';
        row.clear();
    }
    row.resize(width, ' ');
    std::string helpLines;
    appendLines(helpLines, help, width);
    out += row + helpLines.substr(width);
}

// `text` broken at blanks into lines of at most `width` characters, each ended by a line end.
std::string wrapped(const std::string& text, std::size_t width) {
    std::string out;
    std::size_t start = 0;
    while (text.size() - start > width) {
        std::size_t cut = text.rfind(' ', start + width);
        if (cut == std::string::npos || cut <= start) {
            cut = text.find(' ', start + width);
            if (cut == std::string::npos) {
                break;
            }
        }
        out += text.substr(start, cut - start) + '\n';
        start = cut + 1;
    }
    return out + text.substr(start) + '\n';
}

}  // namespace

const std::vector<CommandEntry>& commandTable() {
    static const std::vector<CommandEntry> commands = makeCommands();
    return commands;
}

const CommandEntry* findCommand(const std::string& name) {
    for (const CommandEntry& command : commandTable()) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

const std::vector<OptionEntry>& commonOptions() {
    static const std::vector<OptionEntry> options = {
        {"--help", 'h', nullptr, "show this help and exit", nullptr},
        {"--version", 'V', nullptr, "print the version and exit", nullptr},
        {"--log-level", 0, "LEVEL",
         "show the library's log lines: none (default), error, warning, info,\ndebug",
         "none error warning info debug"}};
    return options;
}

std::vector<OptionEntry> allOptions(const CommandEntry& command) {
    std::vector<OptionEntry> options = command.options;
    options.insert(options.end(), commonOptions().begin(), commonOptions().end());
    return options;
}

const std::vector<ExitStatusEntry>& exitStatuses() {
    static const std::vector<ExitStatusEntry> statuses = {
        {0, "ok", "success; also the end by SIGINT or SIGTERM, and sub --timeout without --count"},
        {1, "failed", "a send, a mode or window request, a line of connect's input, or a demo step failed"},
        {2, "usage",
         "usage: unknown command or option, missing or extra argument, malformed value, port out of\n"
         "range, message too large"},
        {3, "unknown host",
         "unknown host, or a bind address that does not resolve (every command); from tarn bridge:\n"
         "the broker refused the log-in, or TLS could not be set up"},
        {4, "cannot connect",
         "cannot connect: refused (TCP, at once) or no answer within 5 s (EUDP), also once --wait\n"
         "has run out"},
        {5, "timed out", "sub: --timeout ran out before --count messages arrived"},
        {6, "closed or lost",
         "the server closed the connection or stopped answering for 10 s (connect, sub)"},
        {7, "cannot listen",
         "serve, impair: the address and port cannot be bound (in use, or not an address of this\n"
         "machine)"},
        {127, "no bridge",
         "bridge: tarn-bridge is neither beside tarn nor in the directory tarn is installed into\n"
         "(it is built only where libmosquitto is found), or it cannot be run"}};
    return statuses;
}

std::string commandNames(const char* separator) {
    std::string names;
    for (const CommandEntry& command : commandTable()) {
        names += (names.empty() ? "" : separator) + std::string(command.name);
    }
    return names;
}

std::string optionLabel(const OptionEntry& option) {
    std::string label = option.shortName ? std::string("-") + option.shortName + ", " : std::string("    ");
    label += option.name;
    if (option.valueName) {
        label += std::string(" ") + option.valueName;
    }
    return label;
}

std::string commandHelp(const CommandEntry& command) {
    std::string out = std::string("usage: tarn ") + command.name;
    out += " [OPTIONS]";
    if (*command.arguments) {
        out += std::string(" ") + command.arguments;
    }
    out += "\n\n";
    appendLines(out, command.description, 0);
    if (std::strstr(command.arguments, "HOST PORT")) {
        out += '\n';
        appendLines(out, kTargetText, 0);
    }
    out += "\nOptions:\n";
    for (const OptionEntry& option : allOptions(command)) {
        appendRow(out, optionLabel(option), option.help, 28);
    }
    if (!command.shell.empty()) {
        out += '\n' + shellHelp(command);
    }
    return out;
}

std::string shellHelp(const CommandEntry& command) {
    std::string out = "Commands (one per line on standard input):\n";
    for (const ShellCommandEntry& line : command.shell) {
        appendRow(out, line.usage, line.help, 28);
    }
    if (command.shellNotes) {
        appendLines(out, command.shellNotes, 0);
    }
    return out;
}

std::string shellCommandList(const CommandEntry& command) {
    std::string list;
    for (const ShellCommandEntry& line : command.shell) {
        if (std::strcmp(line.usage, "help") != 0) {
            list += (list.empty() ? "" : " | ") + std::string(line.usage);
        }
    }
    return "commands: " + list;
}

std::string toolHelp() {
    std::string out = "usage: tarn COMMAND [OPTIONS] [ARGS]\n\n";
    appendLines(out, kToolSummary, 0);
    out += "\nCommands:\n";
    for (const CommandEntry& command : commandTable()) {
        std::string label = command.name;
        if (*command.arguments) {
            label += std::string(" ") + command.arguments;
        }
        appendRow(out, label, command.summary, 28);
    }
    out +=
        "\nEvery command takes -h/--help, -V/--version and --log-level LEVEL; 'tarn help COMMAND'\n"
        "shows its options.\n";
    appendLines(out, kTargetText, 0);
    appendLines(out, kValueText, 0);
    std::string statuses = "Exit status:";
    for (const ExitStatusEntry& status : exitStatuses()) {
        statuses +=
            std::string(status.status == 0 ? " " : ", ") + std::to_string(status.status) + " " + status.label;
    }
    out += wrapped(statuses + ".", 96);
    return out;
}

}  // namespace tarncli
