// The command shells behind `tarn serve` and `tarn connect`: each runs one input line at a time
// against its server or client session and prints the outcome. The demo drives the same shells
// with scripted lines, so that its transcript shows exactly what a user would type and see.
//
// Both run on the main thread only.
#ifndef TARN_TOOLS_SHELLS_H
#define TARN_TOOLS_SHELLS_H

#include <string>

#include "client.h"
#include "output.h"
#include "server.h"

namespace tarncli {

// Splits an input line into words for either shell. False for a line that holds no command: a
// blank line, a comment (first word beginning '#'), or a line that does not split, whose error is
// printed and `failed` set.
bool commandWords(const std::string& line, std::vector<Token>& words, bool& failed);

// Writes a shell's help: to standard output, or to standard error in JSON mode so that standard
// output stays JSON.
void printShellHelp(const char* command, const Printer& printer);

// "mode send reliable ok: this side sends ...": what a mode request did, from this side's view.
std::string modeOutcome(bool ok, EUDPTransport* eudp, const char* peer);

class ServeShell {
public:
    ServeShell(StateServer& server, Printer& printer) : m_server(server), m_printer(printer) {}

    // Runs one input line (set, trigger, list, mode, window, quit, help); false once the line
    // asked to quit. Mode and window requests wait for the client's answer (up to 10 s over EUDP).
    bool execute(const std::string& line);

    // Prints one event from the server's queue and does what follows from it (a new subscriber
    // gets the current state; a closed connection is deleted).
    void report(const Event& event);

private:
    void send(bool isTrigger, const std::vector<Token>& words);
    void list();
    void mode(const std::vector<Token>& words);
    void window(const std::vector<Token>& words);
    void stats(const std::vector<Token>& words);
    // The connection a request names, or null after printing why there is none.
    TARNConnection* target(const Token& word, int& id);

    StateServer& m_server;
    Printer& m_printer;
};

class ConnectShell {
public:
    ConnectShell(ClientSession& session, Printer& printer) : m_session(session), m_printer(printer) {}

    // Runs one input line (sub, unsub, call, mode, window, quit, help); false once the line asked
    // to quit. Mode and window requests wait for the server's answer (up to 10 s over EUDP).
    bool execute(const std::string& line);

    // Whether a line failed so far: it did not parse, named no command, or its send or request
    // failed or was refused.
    bool anyFailed() const { return m_bFailed; }

private:
    void subscription(bool subscribe, const std::vector<Token>& words);
    void call(const std::vector<Token>& words);
    void mode(const std::vector<Token>& words);
    void window(const std::vector<Token>& words);
    void stats(const std::vector<Token>& words);
    void fail(const std::string& message);

    ClientSession& m_session;
    Printer& m_printer;
    bool m_bFailed = false;
};

}  // namespace tarncli

#endif  // TARN_TOOLS_SHELLS_H
