// The printed form of every event, for both sides, in readable text and in JSON. The field names
// of the JSON forms are listed in docs/cli.md and do not change.
#ifndef TARN_TOOLS_REPORT_H
#define TARN_TOOLS_REPORT_H

#include <string>

#include <itarntransport.h>

#include "events.h"
#include "output.h"

namespace tarncli {

// What a client sees: "connected tcp 127.0.0.1:5555", "update temp:f=21.5", "trigger alarm:b=on",
// "disconnected" (in JSON with the reason: "local", "closed" or "lost").
std::string clientEventLine(const Event& event, ETransport kind, Format format);

// What a server sees, numbered by connection: "[1] connected 127.0.0.1:40000", "[1] subscribe
// temp", "[1] unsubscribe temp", "[1] call fid level:i=3", "[1] disconnected", or for a client
// that stopped answering "[1] disconnected: no answer from the client for 10 s".
std::string serverEventLine(const Event& event, Format format);

// The state a server sent at once to a new subscriber: "[1] sent update temp:f=21.5".
std::string sentStateLine(int connection, const std::string& name, const ParameterValue& value,
                          Format format);

// The first line of a server: "listening on tcp 0.0.0.0:41234".
std::string listeningLine(ETransport kind, const std::string& address, int port, Format format);

// A server's answer to set and trigger: "set temp:f=21.5 (sent to 2)".
std::string deliveryLine(const std::string& command, const std::string& name, const ParameterValue& value,
                         int sent, Format format);

// A client's confirmation of a command handed to the connection: "sent subscribe temp",
// "sent call fid level:i=3".
std::string sentLine(const std::string& command, const std::string& name, Format format);
std::string sentCallLine(const std::string& function, const std::vector<NamedValue>& params, Format format);

// The outcome of a mode request: "mode send reliable ok: this side sends realtime, receives
// reliable"; `sending` and `receiving` are this side's modes after the request. `conn` is the
// connection's number on a server ("[2] mode ..."), 0 on a client.
std::string modeLine(const std::string& direction, EConnMode requested, bool ok, const std::string& outcome,
                     EConnMode sending, EConnMode receiving, Format format, int conn = 0);

// The outcome of a window request: "window 32 ok", or "[2] window 32 ok" on a server.
std::string windowLine(long long size, bool ok, const std::string& outcome, Format format, int conn = 0);

// A server on its way out: "stopping: closing 3 connections", then "stopped".
std::string stoppingLine(std::size_t connections, Format format);
std::string stoppedLine(Format format);

// "local", "closed" or "lost".
const char* endName(EndReason end);

const char* modeName(EConnMode mode);

}  // namespace tarncli

#endif  // TARN_TOOLS_REPORT_H
