#include <limits>

#include "commands.h"
#include "commandtable.h"
#include "hardening.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

std::string plural(std::size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

bool ServeShell::execute(const std::string& line) {
    std::vector<Token> words;
    bool failed = false;
    if (!commandWords(line, words, failed)) {
        return true;
    }
    const std::string& command = words[0].text;
    if (command == "set" || command == "trigger") {
        send(command == "trigger", words);
    } else if (command == "list") {
        list();
    } else if (command == "mode") {
        mode(words);
    } else if (command == "window") {
        window(words);
    } else if (command == "stats") {
        stats(words);
    } else if (command == "quit" || command == "exit") {
        return false;
    } else if (command == "help") {
        printShellHelp("serve", m_printer);
    } else {
        printError("unknown command '" + command + "'; " + shellCommandList(*findCommand("serve")));
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

TARNConnection* ServeShell::target(const Token& word, int& id) {
    long long number = 0;
    if (!parseInteger(word.text, 1, std::numeric_limits<int>::max(), number)) {
        printError("'" + word.text + "' is not a connection number");
        return nullptr;
    }
    id = static_cast<int>(number);
    TARNConnection* connection = m_server.connection(id);
    if (!connection) {
        printError("no connection [" + word.text + "]; 'list' shows them");
    }
    return connection;
}

void ServeShell::mode(const std::vector<Token>& words) {
    EConnMode mode = eReliable;
    if (words.size() != 4 || (words[2].text != "send" && words[2].text != "receive") ||
        !parseMode(words[3].text, mode)) {
        printError("mode needs CONN, send|receive and realtime|reliable");
        return;
    }
    int id = 0;
    TARNConnection* connection = target(words[1], id);
    if (!connection) {
        return;
    }
    const bool send = words[2].text == "send";
    const bool ok = send ? connection->setSendMode(mode) : connection->setReceiveMode(mode);
    EUDPTransport* eudp = m_server.eudp(id);
    const EConnMode sending = eudp ? eudp->getSendMode() : eReliable;
    const EConnMode receiving = eudp ? eudp->getReceiveMode() : eReliable;
    m_printer.line(modeLine(words[2].text, mode, ok, modeOutcome(ok, eudp, "client"), sending, receiving,
                            m_printer.format(), id));
}

void ServeShell::window(const std::vector<Token>& words) {
    long long size = 0;
    if (words.size() != 3 ||
        !parseInteger(words[2].text, 0, std::numeric_limits<unsigned int>::max(), size)) {
        printError("window needs CONN and a size N from 0 to 4294967295");
        return;
    }
    int id = 0;
    TARNConnection* connection = target(words[1], id);
    if (!connection) {
        return;
    }
    const bool ok = connection->setWindowSize(static_cast<uint>(size));
    std::string outcome = "ok";
    if (!ok) {
        outcome = m_server.eudp(id) ? "failed: the client did not confirm within 10 s"
                                    : "refused: tcp has no window";
    }
    m_printer.line(windowLine(size, ok, outcome, m_printer.format(), id));
}

void ServeShell::stats(const std::vector<Token>& words) {
    if (words.size() > 2) {
        printError("stats takes at most one connection number");
        return;
    }
    if (words.size() == 2) {
        int id = 0;
        TARNConnection* connection = target(words[1], id);
        if (connection) {
            printConnectionStats(m_printer, id, connection->getStatistics());
        }
        return;
    }
    printListenerStats(m_printer, m_server.listenerStatistics(), m_server.kind());
    for (const StateServer::ConnectionInfo& info : m_server.connections()) {
        TARNConnection* connection = m_server.connection(info.id);
        if (connection) {
            printConnectionStats(m_printer, info.id, connection->getStatistics());
        }
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
