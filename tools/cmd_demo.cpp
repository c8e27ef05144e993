// tarn demo: a server and a client in one process, playing a scripted session over TCP and then
// over EUDP. The script drives the same shells as `tarn serve` and `tarn connect` and waits, with a
// deadline, for every event it expects before it takes the next step, so that the transcript reads
// the same on every run (only port numbers differ).
#include <cstdio>
#include <functional>
#include <memory>

#include "cliargs.h"
#include "commands.h"
#include "report.h"
#include "shells.h"
#include "tls_options.h"

namespace tarncli {

namespace {

// Each expected event must come within this time; generous for slow (sanitizer) builds.
const int kStepTimeoutMs = 10000;

// One server of the demo with its queue, shell and printers.
struct ServerSide {
    explicit ServerSide(ETransport kind)
        : server(kind, queue), says(Format::Human, stdout, "server: "), shell(server, says) {}
    EventQueue queue;
    StateServer server;
    Printer says;
    ServeShell shell;
};

class DemoScript {
public:
    DemoScript(ETransport kind, ServerSide& side)
        : m_kind(kind),
          m_side(side),
          m_session(kind, m_queue),
          m_says(Format::Human, stdout, "client: "),
          m_shell(m_session, m_says),
          m_serverTypes(Format::Human, stdout, "server> "),
          m_clientTypes(Format::Human, stdout, "client> ") {}

    bool run() {
        const std::string port = std::to_string(m_side.server.port());
        Printer(Format::Human)
            .line(std::string("$ tarn connect --") + transportName(m_kind) + " 127.0.0.1 " + port);
        Target target;
        target.kind = m_kind;
        target.host = "127.0.0.1";
        target.port = m_side.server.port();
        if (connectClient(m_session, target) != kExitOk) {
            return false;
        }
        bool ok = clientSees(EventKind::Connected, "") && serverSees(EventKind::Connected, "");
        ok = ok && server("set temperature:f=21.5");
        ok = ok && client("sub temperature") && serverSees(EventKind::Subscribe, "temperature") &&
             clientSees(EventKind::Update, "temperature");
        ok = ok && server("set temperature:f=22.5") && clientSees(EventKind::Update, "temperature");
        ok = ok && client("sub door") && serverSees(EventKind::Subscribe, "door");
        ok = ok && server("trigger door=open") && clientSees(EventKind::Trigger, "door");
        ok = ok && client("call setpoint mode=eco level:i=3 enabled:b=on target:f=20.5") &&
             serverSees(EventKind::Call, "setpoint");
        if (ok && m_kind == eTransportEUDP) {
            ok = client("mode send reliable") && modesAre(eRealtime, eReliable);
            ok = ok && client("mode receive reliable") && modesAre(eReliable, eReliable);
            ok = ok && client("window 32");
            ok = ok && server("set temperature:f=23") && clientSees(EventKind::Update, "temperature");
            ok = ok && client("call setpoint level:i=4") && serverSees(EventKind::Call, "setpoint");
        }
        ok = ok && client("unsub temperature") && serverSees(EventKind::Unsubscribe, "temperature");
        ok = ok && server("set temperature:f=24") && server("list");
        if (ok) {
            m_clientTypes.line("quit");
            m_session.close();
            ok = clientSees(EventKind::Disconnected, "") && serverSees(EventKind::Disconnected, "");
        }
        return ok && nothingElse();
    }

private:
    bool server(const std::string& line) {
        m_serverTypes.line(line);
        m_side.shell.execute(line);
        return true;
    }

    bool client(const std::string& line) {
        m_clientTypes.line(line);
        m_shell.execute(line);
        return true;
    }

    static std::function<bool(const Event&)> matching(EventKind kind, const std::string& name) {
        return [kind, name](const Event& event) { return event.kind == kind && event.name == name; };
    }

    bool serverSees(EventKind kind, const std::string& name) {
        Event event;
        if (!m_side.queue.waitFor(matching(kind, name), event, kStepTimeoutMs)) {
            return missing("the server", kind, name);
        }
        m_side.shell.report(event);
        return true;
    }

    bool clientSees(EventKind kind, const std::string& name) {
        Event event;
        if (!m_queue.waitFor(matching(kind, name), event, kStepTimeoutMs)) {
            return missing("the client", kind, name);
        }
        m_says.line(clientEventLine(event, m_kind, Format::Human));
        return true;
    }

    bool modesAre(EConnMode sending, EConnMode receiving) {
        EUDPTransport* eudp = m_session.eudp();
        if (eudp && eudp->getSendMode() == sending && eudp->getReceiveMode() == receiving) {
            return true;
        }
        printError("demo: the client's modes did not change as asked");
        return false;
    }

    bool missing(const char* who, EventKind kind, const std::string& name) {
        static const char* const kinds[] = {"connected", "disconnected", "subscribe", "unsubscribe",
                                            "call",      "update",       "trigger"};
        printError(std::string("demo: ") + who + " saw no " + kinds[static_cast<int>(kind)] +
                   (name.empty() ? "" : " " + name) + " within " + std::to_string(kStepTimeoutMs / 1000) +
                   " s");
        return false;
    }

    // Anything still queued was not in the script.
    bool nothingElse() {
        bool clean = true;
        Event event;
        while (m_queue.pop(event)) {
            printError("demo: unexpected on the client: " + clientEventLine(event, m_kind, Format::Human));
            clean = false;
        }
        while (m_side.queue.pop(event)) {
            printError("demo: unexpected on the server: " + serverEventLine(event, Format::Human));
            m_side.server.handle(event);
            clean = false;
        }
        return clean;
    }

    ETransport m_kind;
    ServerSide& m_side;
    EventQueue m_queue;
    ClientSession m_session;
    Printer m_says;
    ConnectShell m_shell;
    Printer m_serverTypes;
    Printer m_clientTypes;
};

}  // namespace

int runDemo(const std::vector<std::string>& args) {
    ParsedArgs parsed;
    int status = kExitOk;
    if (!beginCommand(*findCommand("demo"), args, parsed, status)) {
        return status;
    }
    if (!parsed.positionals.empty()) {
        return usageError("demo", "unexpected argument '" + parsed.positionals[0] + "'");
    }
    Printer narrator(Format::Human);
    const bool tls = parsed.has("--tls");
    narrator.line(std::string("tarn demo: a TARN server and a client in one process, over ") +
                  (tls ? "TLS" : "TCP") + " and then over EUDP.");
    narrator.line(
        "Lines \"$\" start a tool, lines \"server>\" and \"client>\" are typed into tarn serve and");
    narrator.line("tarn connect, and lines \"server:\" and \"client:\" are what those print.");

    if (tls) {
        std::string error;
        if (!useDemoIdentity(error)) {
            printError("demo: " + error);
            return kExitFailure;
        }
        narrator.line(
            "With --tls the TCP part runs over TLS 1.3: a throw-away certificate for localhost and");
        narrator.line(
            "127.0.0.1, made in memory, stands in for serve's --cert and --key and connect's --ca.");
    }
    std::unique_ptr<ServerSide> sides[2] = {
        std::unique_ptr<ServerSide>(new ServerSide(tls ? kTransportTls : eTransportTCP)),
        std::unique_ptr<ServerSide>(new ServerSide(eTransportEUDP))};
    for (auto& side : sides) {
        if (side->server.listen("127.0.0.1", 0) != StateServer::ListenResult::Listening) {
            printError(std::string("demo: cannot listen on 127.0.0.1 over ") +
                       transportName(side->server.kind()));
            return kExitListen;
        }
    }
    narrator.line("");
    for (auto& side : sides) {
        narrator.line(std::string("$ tarn serve --") + transportName(side->server.kind()) +
                      " --bind 127.0.0.1 --port 0");
        side->says.line(
            listeningLine(side->server.kind(), side->server.address(), side->server.port(), Format::Human));
    }
    bool ok = true;
    for (auto& side : sides) {
        narrator.line("");
        narrator.line(std::string("--- ") + transportName(side->server.kind()) + " ---");
        DemoScript script(side->server.kind(), *side);
        if (!script.run()) {
            ok = false;
            break;
        }
    }
    for (auto& side : sides) {
        side->server.stop();
    }
    narrator.line("");
    if (!ok) {
        narrator.line("tarn demo: stopped; a step got no answer in time.");
        return kExitFailure;
    }
    narrator.line("tarn demo: done; every step was answered in time.");
    return kExitOk;
}

}  // namespace tarncli
