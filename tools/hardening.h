// The tool's hardened mode and statistics: the --hardened options of serve, connect, call and sub,
// and the `stats` shell command's lines and JSON objects for connections and the listener.
#ifndef TARN_TOOLS_HARDENING_H
#define TARN_TOOLS_HARDENING_H

#include <string>
#include <vector>

#include <eudphardening.h>
#include <tarnstatistics.h>

#include "cliargs.h"
#include "commandtable.h"
#include "output.h"

namespace tarncli {

// serve: --hardened and the three listener limits; connect, call, sub: --hardened.
std::vector<OptionEntry> hardenedServeOptions();
OptionEntry hardenedClientOption();

// Reads the options into `hardening`; kExitOk, or the usage error's status once printed (hardened
// needs --eudp; a limit needs --hardened and a number from 0 to 4294967295, 0 meaning no limit).
int parseHardening(const char* command, const ParsedArgs& parsed, ETransport kind, EUDPHardening& hardening);

// Adds the options above to serve, connect, call and sub, and the `stats` shell command to serve
// and connect (before their quit), in the command table.
void addHardening(std::vector<CommandEntry>& commands);

// One connection's figures (`id` 0 for the client's own) as one line or one JSON object.
void printConnectionStats(Printer& printer, int id, const TARNConnectionStatistics& stats);
// The listener's figures, as one line or one JSON object.
void printListenerStats(Printer& printer, const TARNListenerStatistics& stats, ETransport kind);

}  // namespace tarncli

#endif  // TARN_TOOLS_HARDENING_H
