#include "shells.h"

#include <cstdio>

#include "commandtable.h"
#include "report.h"

namespace tarncli {

bool commandWords(const std::string& line, std::vector<Token>& words, bool& failed) {
    std::string error;
    if (!tokenize(line, words, error)) {
        printError(error);
        failed = true;
        return false;
    }
    return !words.empty() && words[0].text[0] != '#';
}

void printShellHelp(const char* command, const Printer& printer) {
    const std::string help = shellHelp(*findCommand(command));
    std::FILE* out = printer.json() ? stderr : stdout;
    std::fwrite(help.data(), 1, help.size(), out);
    std::fflush(out);
}

std::string modeOutcome(bool ok, EUDPTransport* eudp, const char* peer) {
    if (ok) {
        const EConnMode sending = eudp ? eudp->getSendMode() : eReliable;
        const EConnMode receiving = eudp ? eudp->getReceiveMode() : eReliable;
        return std::string("ok: this side sends ") + modeName(sending) + ", receives " + modeName(receiving);
    }
    if (!eudp) {
        return "refused: tcp delivers reliably only";
    }
    return std::string("failed: the ") + peer + " refused or did not answer within 10 s";
}

}  // namespace tarncli
