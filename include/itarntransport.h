// The message transport under every TARN connection and listener.
//
// A transport moves whole messages (one TARN packet each) between two peers: TCPTransport over a
// TCP stream, EUDPTransport over the library's own datagram protocol on UDP. Whoever creates a
// transport owns it; accept() hands a new, connected transport to its caller.
//
// Threads: one thread receives (receiveData) while any number of threads send (sendData); messages
// are never interleaved. disconnect() may be called from any thread and makes a blocked accept or
// receiveData return. The mode and window operations block their caller until the peer answered.
#ifndef TARN_ITARNTRANSPORT_H
#define TARN_ITARNTRANSPORT_H

#include <cstdint>

#include <sal/hostaddress.h>
#include <sal/types.h>
#include <tarn_export.h>

// Which transport a connection or listener creates. The underlying type is fixed so that any int
// an application passes is a value of the type, and an unknown one reaches the assertion that
// refuses it instead of being undefined.
enum ETransport : int { eTransportEUDP = 0, eTransportTCP = 1 };

// Delivery mode of one direction. 32 bits wide: a mode byte a peer answers with is kept as it came,
// sign-extended, even when it is neither letter.
enum EConnMode : std::int32_t {
    eRealtime = 'T',  // each datagram sent once, never acknowledged; gaps are skipped
    eReliable = 'R'   // acknowledged, in order, resent after a loss; the only mode of TCP
};

class TARN_EXPORT ITARNTransport {
public:
    virtual ~ITARNTransport() = default;

    // Asks the peer to keep at most `windowSize` unacknowledged messages in flight towards this
    // side; true once the peer confirmed that size. False where there is no window.
    virtual bool setWindowSize(uint windowSize) = 0;

    // Binds and prepares to accept peers; true on success.
    virtual bool listen(const sal::HostAddress& address, uint16 port) = 0;

    // Blocks until a peer connects; returns its new transport (owned by the caller), or null once
    // this transport has been disconnected.
    virtual ITARNTransport* accept() = 0;

    // Which modes this side agrees to when the peer asks (realtime, reliable).
    virtual void allowSendMode(bool realtime, bool reliable) = 0;
    virtual void allowReceiveMode(bool realtime, bool reliable) = 0;

    // setSendMode(m) makes the peer send in m (this side then receives in m); setReceiveMode(m)
    // makes the peer receive in m (this side then sends in m). True once the peer confirmed.
    virtual bool setSendMode(EConnMode mode) = 0;
    virtual bool setReceiveMode(EConnMode mode) = 0;

    // Connects to the peer; true once messages can flow. A transport that was disconnected may be
    // connected again.
    virtual bool connect(const sal::HostAddress& address, uint16 port) = 0;
    // Closes the link; a thread blocked in accept or receiveData on this transport comes back.
    // Harmless twice.
    virtual void disconnect() = 0;

    // Sends one message as a unit; true when the whole message was handed to the link.
    virtual bool sendData(const uint8* data, uint length) = 0;

    // Blocks for one whole message and copies it to `buffer`; returns its length (> 0), 0 once the
    // link closed or the transport was disconnected, -1 when the message is longer than
    // `bufferSize`, another negative number on error.
    virtual int receiveData(uint8* buffer, uint bufferSize) = 0;

    // The connected peer; a default address and 0 when there is none.
    virtual sal::HostAddress getPeerAddress() const = 0;
    virtual uint16 getPeerPort() const = 0;
    // The local port bound, 0 when the transport has no socket.
    virtual uint16 getLocalPort() const = 0;
};

#endif  // TARN_ITARNTRANSPORT_H
