#include "report.h"

#include "client.h"

namespace tarncli {

std::string clientEventLine(const Event& event, ETransport kind, Format format) {
    const bool json = format == Format::Json;
    switch (event.kind) {
        case EventKind::Connected:
            return json ? Json("connected")
                              .text("transport", transportName(kind))
                              .text("peer", event.peer)
                              .str()
                        : std::string("connected ") + transportName(kind) + " " + event.peer;
        case EventKind::Disconnected:
            return json ? Json("disconnected").text("reason", endName(event.end)).str() : "disconnected";
        case EventKind::Update:
            return json ? Json("update").text("name", event.name).value(event.value).str()
                        : "update " + namedValue(event.name, event.value);
        case EventKind::Trigger:
            return json ? Json("trigger").text("name", event.name).value(event.value).str()
                        : "trigger " + namedValue(event.name, event.value);
        default:
            // Commands for a server never reach a client session.
            return json ? Json("unexpected").text("name", event.name).str()
                        : "unexpected " + word(event.name);
    }
}

std::string serverEventLine(const Event& event, Format format) {
    const std::string tag = "[" + std::to_string(event.source) + "] ";
    Json json("");
    std::string text;
    switch (event.kind) {
        case EventKind::Connected:
            json = Json("connected").number("conn", event.source).text("peer", event.peer);
            text = "connected " + event.peer;
            break;
        case EventKind::Disconnected:
            json = Json("disconnected").number("conn", event.source).text("reason", endName(event.end));
            text = event.end == EndReason::Lost ? "disconnected: no answer from the client for 10 s"
                                                : "disconnected";
            break;
        case EventKind::Subscribe:
            json = Json("subscribe").number("conn", event.source).text("name", event.name);
            text = "subscribe " + word(event.name);
            break;
        case EventKind::Unsubscribe:
            json = Json("unsubscribe").number("conn", event.source).text("name", event.name);
            text = "unsubscribe " + word(event.name);
            break;
        case EventKind::Call:
            json = Json("call")
                       .number("conn", event.source)
                       .text("name", event.name)
                       .raw("params", jsonParams(event.params));
            text = "call " + word(event.name);
            if (!event.params.empty()) {
                text += " " + namedValues(event.params);
            }
            break;
        default:
            // Updates and triggers travel from server to client only.
            json = Json("unexpected").number("conn", event.source).text("name", event.name);
            text = "unexpected " + word(event.name);
            break;
    }
    return format == Format::Json ? json.str() : tag + text;
}

std::string sentStateLine(int connection, const std::string& name, const ParameterValue& value,
                          Format format) {
    if (format == Format::Json) {
        return Json("sent")
            .number("conn", connection)
            .text("command", "update")
            .text("name", name)
            .value(value)
            .str();
    }
    return "[" + std::to_string(connection) + "] sent update " + namedValue(name, value);
}

std::string listeningLine(ETransport kind, const std::string& address, int port, Format format) {
    if (format == Format::Json) {
        return Json("listening")
            .text("transport", transportName(kind))
            .text("address", address)
            .number("port", port)
            .str();
    }
    return std::string("listening on ") + transportName(kind) + " " +
           hostPort(address, static_cast<unsigned int>(port));
}

std::string deliveryLine(const std::string& command, const std::string& name, const ParameterValue& value,
                         int sent, Format format) {
    if (format == Format::Json) {
        return Json(command.c_str()).text("name", name).value(value).number("sent", sent).str();
    }
    return command + " " + namedValue(name, value) + " (sent to " + std::to_string(sent) + ")";
}

std::string sentLine(const std::string& command, const std::string& name, Format format) {
    if (format == Format::Json) {
        return Json("sent").text("command", command).text("name", name).str();
    }
    return "sent " + command + " " + word(name);
}

std::string sentCallLine(const std::string& function, const std::vector<NamedValue>& params, Format format) {
    if (format == Format::Json) {
        return Json("sent")
            .text("command", "call")
            .text("name", function)
            .raw("params", jsonParams(params))
            .str();
    }
    return "sent call " + word(function) + (params.empty() ? "" : " " + namedValues(params));
}

std::string modeLine(const std::string& direction, EConnMode requested, bool ok, const std::string& outcome,
                     EConnMode sending, EConnMode receiving, Format format, int conn) {
    if (format == Format::Json) {
        Json json("mode");
        if (conn > 0) {
            json.number("conn", conn);
        }
        return json.text("direction", direction)
            .text("mode", modeName(requested))
            .flag("ok", ok)
            .text("send", modeName(sending))
            .text("receive", modeName(receiving))
            .str();
    }
    const std::string tag = conn > 0 ? "[" + std::to_string(conn) + "] " : std::string();
    return tag + "mode " + direction + " " + modeName(requested) + " " + outcome;
}

std::string windowLine(long long size, bool ok, const std::string& outcome, Format format, int conn) {
    if (format == Format::Json) {
        Json json("window");
        if (conn > 0) {
            json.number("conn", conn);
        }
        return json.number("size", size).flag("ok", ok).str();
    }
    const std::string tag = conn > 0 ? "[" + std::to_string(conn) + "] " : std::string();
    return tag + "window " + std::to_string(size) + " " + outcome;
}

std::string stoppingLine(std::size_t connections, Format format) {
    if (format == Format::Json) {
        return Json("stopping").number("connections", static_cast<long long>(connections)).str();
    }
    return "stopping: closing " + std::to_string(connections) + " connection" + (connections == 1 ? "" : "s");
}

std::string stoppedLine(Format format) {
    return format == Format::Json ? Json("stopped").str() : "stopped";
}

const char* endName(EndReason end) {
    switch (end) {
        case EndReason::Closed:
            return "closed";
        case EndReason::Lost:
            return "lost";
        default:
            return "local";
    }
}

const char* modeName(EConnMode mode) {
    return mode == eRealtime ? "realtime" : "reliable";
}

}  // namespace tarncli
