#include <cstdio>

#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

const char kCommandHelp[] =
    "Commands:\n"
    "  set NAME VALUE          store the state and send it to the connections subscribed to NAME\n"
    "  set NAME[:t]=TEXT       the same in one word, e.g. set temp:f=21.5\n"
    "  trigger NAME VALUE      send a trigger to the connections subscribed to NAME\n"
    "  trigger NAME[:t]=TEXT   the same in one word\n"
    "  list                    show the states, their subscribers and the connections\n"
    "  quit                    disconnect every connection and exit\n"
    "  help                    show these commands\n"
    "VALUE is TEXT (a string), :i=42, :b=on|off, :f=1.5 or :s=TEXT. Words may be quoted:\n"
    "\"two words\" (with \\\" \\\\ \\n \\t \\xHH escapes) or 'two words'.\n";

const char kCommands[] =
    "commands: set NAME VALUE | set NAME[:t]=TEXT | trigger NAME VALUE | trigger NAME[:t]=TEXT | list | quit";

std::string plural(std::size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

const char* ServeShell::commandHelp() {
    return kCommandHelp;
}

bool ServeShell::execute(const std::string& line) {
    std::vector<Token> words;
    if (!commandWords(line, words)) {
        return true;
    }
    const std::string& command = words[0].text;
    if (command == "set" || command == "trigger") {
        send(command == "trigger", words);
    } else if (command == "list") {
        list();
    } else if (command == "quit" || command == "exit") {
        return false;
    } else if (command == "help") {
        std::FILE* out = m_printer.json() ? stderr : stdout;  // keep standard output all JSON
        std::fputs(kCommandHelp, out);
        std::fflush(out);
    } else {
        printError("unknown command '" + command + "'; " + kCommands);
    }
    return true;
}

void ServeShell::send(bool isTrigger, const std::vector<Token>& words) {
    const std::string command = isTrigger ? "trigger" : "set";
    NamedValue entry;
    std::string error;
    if (words.size() == 3 && words[1].separator == std::string::npos) {
        if (!parseValue(words[2], entry, error)) {
            printError(error);
            return;
        }
        if (!entry.name.empty()) {
            printError("the value of " + command + " takes no name: '" + words[2].text + "' (write " +
                       namedValue(words[1].text, entry.value) + ")");
            return;
        }
        entry.name = words[1].text;
    } else if (words.size() == 2 && words[1].separator != std::string::npos) {
        if (!parseValue(words[1], entry, error)) {
            printError(error);
            return;
        }
    } else {
        printError(command + " needs NAME VALUE or NAME[:t]=TEXT");
        return;
    }
    if (!checkValueFits(entry.name, entry.value, error)) {
        printError(error);
        return;
    }
    const StateServer::Delivery delivery =
        isTrigger ? m_server.trigger(entry.name, entry.value) : m_server.set(entry.name, entry.value);
    m_printer.line(deliveryLine(command, entry.name, entry.value, delivery.sent, m_printer.format()));
    for (const int id : delivery.failed) {
        printError("[" + std::to_string(id) + "] failed to send " + (isTrigger ? "trigger " : "update ") +
                   word(entry.name));
    }
}

void ServeShell::list() {
    const std::vector<StateServer::StateInfo> states = m_server.states();
    const std::vector<StateServer::ConnectionInfo> connections = m_server.connections();
    m_printer.pick("list " + plural(states.size(), "state") + ", " + plural(connections.size(), "connection"),
                   Json("list")
                       .number("states", static_cast<long long>(states.size()))
                       .number("connections", static_cast<long long>(connections.size())));
    for (const StateServer::StateInfo& state : states) {
        std::string text;
        std::string json;
        for (const int id : state.subscribers) {
            text += (text.empty() ? "" : ",") + std::to_string(id);
            json += (json.empty() ? "" : ",") + std::to_string(id);
        }
        m_printer.pick(
            "state " + namedValue(state.name, state.value) + " subscribers " + (text.empty() ? "none" : text),
            Json("state").text("name", state.name).value(state.value).raw("subscribers", "[" + json + "]"));
    }
    for (const StateServer::ConnectionInfo& connection : connections) {
        std::string text;
        std::string json;
        for (const std::string& name : connection.subscriptions) {
            text += (text.empty() ? "" : ",") + word(name);
            json += (json.empty() ? "" : ",") + jsonString(name);
        }
        m_printer.pick("connection [" + std::to_string(connection.id) + "] " + connection.peer +
                           " subscribed " + (text.empty() ? "none" : text),
                       Json("connection")
                           .number("conn", connection.id)
                           .text("peer", connection.peer)
                           .raw("subscriptions", "[" + json + "]"));
    }
}

void ServeShell::report(const Event& event) {
    m_printer.line(serverEventLine(event, m_printer.format()));
    const StateServer::Reply reply = m_server.handle(event);
    if (!reply.sentState) {
        return;
    }
    if (reply.sendOk) {
        m_printer.line(sentStateLine(event.source, event.name, reply.value, m_printer.format()));
    } else {
        printError("[" + std::to_string(event.source) + "] failed to send update " + word(event.name));
    }
}

}  // namespace tarncli
