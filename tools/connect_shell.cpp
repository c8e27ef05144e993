#include <cstdio>
#include <limits>

#include "commands.h"
#include "report.h"
#include "shells.h"

namespace tarncli {

namespace {

const char kCommandHelp[] =
    "Commands:\n"
    "  sub NAME             subscribe to NAME\n"
    "  unsub NAME           unsubscribe from NAME\n"
    "  call FID [ARG...]    call function FID; ARG is TEXT, name=TEXT, name:i=42, name:b=on|off,\n"
    "                       name:f=1.5 or name:s=TEXT (an ARG without a name is called argN)\n"
    "  mode send MODE       ask the server to send in MODE (realtime or reliable): this side then\n"
    "                       receives in MODE\n"
    "  mode receive MODE    ask the server to receive in MODE: this side then sends in MODE\n"
    "  window N             ask the server to keep at most N unacknowledged messages in flight\n"
    "                       towards this side\n"
    "  quit                 disconnect and exit\n"
    "  help                 show these commands\n"
    "Words may be quoted: \"two words\" (with \\\" \\\\ \\n \\t \\xHH escapes) or 'two words'.\n"
    "Modes and windows are negotiated over EUDP only; TCP always delivers reliably.\n";

const char kCommands[] =
    "commands: sub NAME | unsub NAME | call FID [ARG...] | mode send|receive realtime|reliable | window N | "
    "quit";

}  // namespace

const char* ConnectShell::commandHelp() {
    return kCommandHelp;
}

bool ConnectShell::execute(const std::string& line) {
    std::vector<Token> words;
    if (!commandWords(line, words)) {
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

void ConnectShell::subscription(bool subscribe, const std::vector<Token>& words) {
    const std::string command = subscribe ? "subscribe" : "unsubscribe";
    std::string error;
    if (words.size() != 2) {
        printError(words[0].text + " needs one NAME");
        return;
    }
    const std::string& name = words[1].text;
    if (!checkNameFits(name, error)) {
        printError(error);
        return;
    }
    TARNConnection* connection = m_session.connection();
    if (!(subscribe ? connection->subscribe(name) : connection->unsubscribe(name))) {
        printError("failed to send " + command + " " + word(name));
        return;
    }
    m_printer.line(sentLine(command, name, m_printer.format()));
}

void ConnectShell::call(const std::vector<Token>& words) {
    if (words.size() < 2) {
        printError("call needs a function FID");
        return;
    }
    const std::string& function = words[1].text;
    std::vector<NamedValue> params;
    std::string error;
    if (!parseArguments(std::vector<Token>(words.begin() + 2, words.end()), params, error) ||
        !checkCallFits(function, params, error)) {
        printError(error);
        return;
    }
    ParameterList list;
    fillList(params, list);
    if (!m_session.connection()->callFunctionId(function, list)) {
        printError("failed to send call " + word(function));
        return;
    }
    m_printer.line(sentCallLine(function, listEntries(list), m_printer.format()));
}

void ConnectShell::mode(const std::vector<Token>& words) {
    EConnMode mode = eReliable;
    if (words.size() != 3 || (words[1].text != "send" && words[1].text != "receive") ||
        !parseMode(words[2].text, mode)) {
        printError("mode needs send|receive and realtime|reliable");
        return;
    }
    const bool send = words[1].text == "send";
    TARNConnection* connection = m_session.connection();
    const bool ok = send ? connection->setSendMode(mode) : connection->setReceiveMode(mode);
    EUDPTransport* eudp = m_session.eudp();
    const EConnMode sending = eudp ? eudp->getSendMode() : eReliable;
    const EConnMode receiving = eudp ? eudp->getReceiveMode() : eReliable;
    std::string outcome;
    if (ok) {
        outcome =
            std::string("ok: this side sends ") + modeName(sending) + ", receives " + modeName(receiving);
    } else if (!eudp) {
        outcome = "refused: tcp delivers reliably only";
    } else {
        outcome = "failed: the server refused or did not answer within 10 s";
    }
    m_printer.line(modeLine(words[1].text, mode, ok, outcome, sending, receiving, m_printer.format()));
}

void ConnectShell::window(const std::vector<Token>& words) {
    long long size = 0;
    if (words.size() != 2 ||
        !parseInteger(words[1].text, 0, std::numeric_limits<unsigned int>::max(), size)) {
        printError("window needs a size N from 0 to 4294967295");
        return;
    }
    const bool ok = m_session.connection()->setWindowSize(static_cast<uint>(size));
    std::string outcome = "ok";
    if (!ok) {
        outcome = m_session.eudp() ? "failed: the server did not confirm within 10 s"
                                   : "refused: tcp has no window";
    }
    m_printer.line(windowLine(size, ok, outcome, m_printer.format()));
}

}  // namespace tarncli
