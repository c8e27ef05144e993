// TARN over TLS in the tool: the --tls options of serve, connect, call, sub and demo, and the
// transports they make. The tool's own name for the TLS transport, kTransportTls, travels in the
// same place as --tcp and --eudp; it is never handed to the library, which makes TCP and EUDP
// transports only: every TLS transport is made here, from libtarn_tls.
//
// A tool built without libtarn_tls (no OpenSSL 3) still knows the options and refuses --tls.
#ifndef TARN_TOOLS_TLS_OPTIONS_H
#define TARN_TOOLS_TLS_OPTIONS_H

#include <string>
#include <vector>

#include <itarntransport.h>

#include "cliargs.h"
#include "commandtable.h"

namespace tarncli {

const ETransport kTransportTls = static_cast<ETransport>(2);

// What --tls and its companions asked for. Set once by a command before it makes a transport.
struct TlsSettings {
    std::string certFile, keyFile, caFile;
    std::string certPem, keyPem, caPem;  // the demo's throw-away identity
    bool requireClientCert = false;
    bool insecure = false;
};

// Appends the TLS options to serve, connect, call, sub and demo in the command table.
void addTlsOptions(std::vector<CommandEntry>& commands);

// With --tls: checks the companions, stores the settings for the transports made later and sets
// `kind` to kTransportTls. Without it, refuses the companions. Returns kExitOk or a usage error's
// status. `server` tells serve (--require-client-cert) from the clients (--insecure).
int parseTlsOptions(const char* command, const ParsedArgs& parsed, bool server, ETransport& kind);

// The demo: a throw-away identity that the demo's own client trusts. False (with the reason) when
// the tool has no TLS or OpenSSL cannot make one.
bool useDemoIdentity(std::string& error);

// Transports from the stored settings. The client's checks the server's name against `host` as the
// user wrote it. Null without TLS in this build.
ITARNTransport* newTlsClientTransport(const std::string& host);
ITARNTransport* newTlsListeningTransport();
// Why the last connect of a transport from newTlsClientTransport failed.
std::string tlsConnectError(const ITARNTransport* transport);
// The peer certificate's subject of an accepted TLS transport ("" when it sent none).
std::string tlsPeerSubject(const ITARNTransport* transport);

}  // namespace tarncli

#endif  // TARN_TOOLS_TLS_OPTIONS_H
