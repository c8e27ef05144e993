// The one place where a transport kind becomes a transport: TARNConnection(ETransport) and the
// listener's accept loop both create theirs here.
#ifndef TARN_SOURCE_TARNTRANSPORTKIND_H
#define TARN_SOURCE_TARNTRANSPORTKIND_H

#include <eudptransport.h>
#include <itarntransport.h>
#include <tcptransport.h>

namespace tarn {

// A new, unconnected transport of `kind`; null for a kind there is none of.
inline ITARNTransport* newTransportOfKind(ETransport kind) {
    switch (kind) {
        case eTransportEUDP:
            return new EUDPTransport();
        case eTransportTCP:
            return new TCPTransport();
        default:
            return nullptr;
    }
}

}  // namespace tarn

#endif  // TARN_SOURCE_TARNTRANSPORTKIND_H
