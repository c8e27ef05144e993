// The tool's TLS options and the TLS transports it makes (see tls_options.h).
#include "tls_options.h"

#ifdef TARN_TOOL_HAVE_TLS
#include <tlstransport.h>
#endif

namespace tarncli {

namespace {

TlsSettings g_settings;

const OptionEntry kTls = {"--tls", 0, nullptr, "TLS on TCP (needs --cert and --key for serve)", nullptr};
const OptionEntry kCert = {"--cert", 0, "FILE", "TLS: this side's certificate chain (PEM)", nullptr};
const OptionEntry kKey = {"--key", 0, "FILE", "TLS: this side's private key (PEM)", nullptr};
const OptionEntry kRequire = {"--require-client-cert", 0, nullptr,
                              "TLS: refuse clients without a certificate from a --ca", nullptr};
const OptionEntry kInsecure = {"--insecure", 0, nullptr,
                               "TLS: accept any server certificate and name (tests only)", nullptr};

OptionEntry caOption(bool server) {
    return OptionEntry{"--ca", 0, "FILE",
                       server ? "TLS: the CA(s) that client certificates must come from (PEM)"
                              : "TLS: the CA(s) that the server's certificate must come from\n"
                                "(PEM; default: the system's)",
                       nullptr};
}

bool isClientCommand(const std::string& name) {
    return name == "connect" || name == "call" || name == "sub";
}

}  // namespace

void addTlsOptions(std::vector<CommandEntry>& commands) {
    for (CommandEntry& command : commands) {
        const std::string name = command.name;
        if (name == "serve") {
            command.options.insert(command.options.end(), {kTls, kCert, kKey, caOption(true), kRequire});
        } else if (isClientCommand(name)) {
            command.options.insert(command.options.end(), {kTls, kCert, kKey, caOption(false), kInsecure});
        } else if (name == "demo") {
            command.options.push_back(
                {"--tls", 0, nullptr, "play the TCP part over TLS, with a throw-away certificate", nullptr});
        }
    }
}

int parseTlsOptions(const char* command, const ParsedArgs& parsed, bool server, ETransport& kind) {
    const char* const companions[] = {"--cert", "--key", "--ca", "--require-client-cert", "--insecure"};
    if (!parsed.has("--tls")) {
        for (const char* option : companions) {
            if (parsed.has(option)) {
                return usageError(command, std::string(option) + " needs --tls");
            }
        }
        return kExitOk;
    }
#ifndef TARN_TOOL_HAVE_TLS
    (void)server;
    (void)kind;
    return usageError(command, "this tarn was built without TLS (it needs OpenSSL 3)");
#else
    if (parsed.has("--eudp")) {
        return usageError(command, "--tls runs on TCP; it cannot be combined with --eudp");
    }
    if (parsed.has("--cert") != parsed.has("--key")) {
        return usageError(command, "--cert and --key go together");
    }
    if (server && !parsed.has("--cert")) {
        return usageError(command, "serve --tls needs --cert and --key");
    }
    if (parsed.has("--require-client-cert") && !parsed.has("--ca")) {
        return usageError(command, "--require-client-cert needs --ca");
    }
    g_settings = TlsSettings();
    g_settings.certFile = parsed.value("--cert");
    g_settings.keyFile = parsed.value("--key");
    g_settings.caFile = parsed.value("--ca");
    g_settings.requireClientCert = parsed.has("--require-client-cert");
    g_settings.insecure = parsed.has("--insecure");
    kind = kTransportTls;
    return kExitOk;
#endif
}

#ifdef TARN_TOOL_HAVE_TLS

namespace {

TLSConfig configFromSettings() {
    TLSConfig config;
    config.certFile = g_settings.certFile;
    config.keyFile = g_settings.keyFile;
    config.certPem = g_settings.certPem;
    config.keyPem = g_settings.keyPem;
    if (!g_settings.caFile.empty()) {
        config.caFiles.push_back(g_settings.caFile);
    }
    config.caPem = g_settings.caPem;
    config.requireClientCert = g_settings.requireClientCert;
    config.insecure = g_settings.insecure;
    return config;
}

}  // namespace

bool useDemoIdentity(std::string& error) {
    g_settings = TlsSettings();
    if (!makeSelfSignedCertificate(g_settings.certPem, g_settings.keyPem)) {
        error = "OpenSSL could not make a certificate for the demo";
        return false;
    }
    g_settings.caPem = g_settings.certPem;
    return true;
}

ITARNTransport* newTlsClientTransport(const std::string& host) {
    TLSConfig config = configFromSettings();
    config.serverName = host;
    return new TLSTransport(config);
}

ITARNTransport* newTlsListeningTransport() {
    return new TLSTransport(configFromSettings());
}

std::string tlsConnectError(const ITARNTransport* transport) {
    const TLSTransport* const tls = dynamic_cast<const TLSTransport*>(transport);
    return tls != nullptr ? tls->getLastError() : std::string();
}

std::string tlsPeerSubject(const ITARNTransport* transport) {
    const TLSTransport* const tls = dynamic_cast<const TLSTransport*>(transport);
    return tls != nullptr ? tls->getPeerSubject() : std::string();
}

#else

bool useDemoIdentity(std::string& error) {
    error = "this tarn was built without TLS (it needs OpenSSL 3)";
    return false;
}

ITARNTransport* newTlsClientTransport(const std::string&) {
    return nullptr;
}

ITARNTransport* newTlsListeningTransport() {
    return nullptr;
}

std::string tlsConnectError(const ITARNTransport*) {
    return std::string();
}

std::string tlsPeerSubject(const ITARNTransport*) {
    return std::string();
}

#endif

}  // namespace tarncli
