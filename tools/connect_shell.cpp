#include <limits>

#include "commands.h"
#include "commandtable.h"
#include "hardening.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

void ConnectShell::fail(const std::string& message) {
    printError(message);
    m_bFailed = true;
}

bool ConnectShell::execute(const std::string& line) {
    std::vector<Token> words;
    if (!commandWords(line, words, m_bFailed)) {
        return true;
    }
    const std::string& command = words[0].text;
    if (command == "sub" || command == "unsub") {
        subscription(command == "sub", words);
    } else if (command == "call") {
        call(words);
    } else if (command == "mode") {
        mode(words);
    } else if (command == "window") {
        window(words);
    } else if (command == "stats") {
        stats(words);
    } else if (command == "quit" || command == "exit") {
        return false;
    } else if (command == "help") {
        printShellHelp("connect", m_printer);
    } else {
        fail("unknown command '" + command + "'; " + shellCommandList(*findCommand("connect")));
    }
    return true;
}

void ConnectShell::subscription(bool subscribe, const std::vector<Token>& words) {
    const std::string command = subscribe ? "subscribe" : "unsubscribe";
    std::string error;
    if (words.size() != 2) {
        fail(words[0].text + " needs one NAME");
        return;
    }
    const std::string& name = words[1].text;
    if (!checkNameFits(name, error)) {
        fail(error);
        return;
    }
    TARNConnection* connection = m_session.connection();
    if (!(subscribe ? connection->subscribe(name) : connection->unsubscribe(name))) {
        fail("failed to send " + command + " " + word(name));
        return;
    }
    m_printer.line(sentLine(command, name, m_printer.format()));
}

void ConnectShell::call(const std::vector<Token>& words) {
    if (words.size() < 2) {
        fail("call needs a function FID");
        return;
    }
    const std::string& function = words[1].text;
    std::vector<NamedValue> params;
    std::string error;
    if (!parseArguments(std::vector<Token>(words.begin() + 2, words.end()), params, error) ||
        !checkCallFits(function, params, error)) {
        fail(error);
        return;
    }
    ParameterList list;
    fillList(params, list);
    if (!m_session.connection()->callFunctionId(function, list)) {
        fail("failed to send call " + word(function));
        return;
    }
    m_printer.line(sentCallLine(function, listEntries(list), m_printer.format()));
}

void ConnectShell::mode(const std::vector<Token>& words) {
    EConnMode mode = eReliable;
    if (words.size() != 3 || (words[1].text != "send" && words[1].text != "receive") ||
        !parseMode(words[2].text, mode)) {
        fail("mode needs send|receive and realtime|reliable");
        return;
    }
    const bool send = words[1].text == "send";
    TARNConnection* connection = m_session.connection();
    const bool ok = send ? connection->setSendMode(mode) : connection->setReceiveMode(mode);
    EUDPTransport* eudp = m_session.eudp();
    const EConnMode sending = eudp ? eudp->getSendMode() : eReliable;
    const EConnMode receiving = eudp ? eudp->getReceiveMode() : eReliable;
    m_printer.line(modeLine(words[1].text, mode, ok, modeOutcome(ok, eudp, "server"), sending, receiving,
                            m_printer.format()));
    m_bFailed = m_bFailed || !ok;
}

void ConnectShell::window(const std::vector<Token>& words) {
    long long size = 0;
    if (words.size() != 2 ||
        !parseInteger(words[1].text, 0, std::numeric_limits<unsigned int>::max(), size)) {
        fail("window needs a size N from 0 to 4294967295");
        return;
    }
    const bool ok = m_session.connection()->setWindowSize(static_cast<uint>(size));
    std::string outcome = "ok";
    if (!ok) {
        outcome = m_session.eudp() ? "failed: the server did not confirm within 10 s"
                                   : "refused: tcp has no window";
    }
    m_printer.line(windowLine(size, ok, outcome, m_printer.format()));
    m_bFailed = m_bFailed || !ok;
}

void ConnectShell::stats(const std::vector<Token>& words) {
    if (words.size() != 1) {
        fail("stats takes no arguments");
        return;
    }
    TARNConnection* connection = m_session.connection();
    if (connection == nullptr) {
        fail("not connected");
        return;
    }
    printConnectionStats(m_printer, 0, connection->getStatistics());
}

}  // namespace tarncli
