// EUDP mode and window negotiation, requesting side: MOD/MAK for the delivery modes, WIN/WAK for
// the peer's send window. The answering side is the receiver thread's (eudpreceiver.cpp).
#include <eudptransport.h>

#include "eudpmodeword.h"

using Corvane::Utilities::Logging::eError;

namespace {

const unsigned int ANSWER_WAIT_MS = 10000;
const std::uint8_t LEAVE = 'D';  // "leave this direction as it is"

// One byte of the mode word, sign-extended as the answer bytes have always been read.
std::int32_t modeByte(const tarn::EUDPModeBytes& bytes, unsigned int index) {
    return static_cast<std::int8_t>(bytes[index]);
}

// An answer byte becomes the mode as it is, sign-extended: 0xD2 is -46, a mode that is neither
// realtime nor reliable (EConnMode is 32 bits wide, so it holds any such value).
EConnMode modeFromByte(std::int32_t byte) {
    return static_cast<EConnMode>(byte);
}

// The letter that asks for `mode`: its low byte.
std::uint8_t requestedLetter(EConnMode mode) {
    return static_cast<std::uint8_t>(static_cast<std::uint32_t>(mode) & 0xFF);
}

}  // namespace

// Every allow...Mode setter: a pair allowing neither realtime nor reliable is refused with an error
// line and the pair before stays.
void EUDPTransport::storeAllowedPair(std::atomic<bool>& realtimeFlag, std::atomic<bool>& reliableFlag,
                                     bool realtime, bool reliable) {
    if (!realtime && !reliable) {
        logLine(eError) << "allowing neither realtime nor reliable mode";
        return;
    }
    realtimeFlag.store(realtime);
    reliableFlag.store(reliable);
}

void EUDPTransport::allowSendMode(bool realtime, bool reliable) {
    storeAllowedPair(m_bAllowSendRealtime, m_bAllowSendReliable, realtime, reliable);
}

void EUDPTransport::allowReceiveMode(bool realtime, bool reliable) {
    storeAllowedPair(m_bAllowReceiveRealtime, m_bAllowReceiveReliable, realtime, reliable);
}

void EUDPTransport::allowAcceptedSendMode(bool realtime, bool reliable) {
    storeAllowedPair(m_bAcceptedSendRealtime, m_bAcceptedSendReliable, realtime, reliable);
}

void EUDPTransport::allowAcceptedReceiveMode(bool realtime, bool reliable) {
    storeAllowedPair(m_bAcceptedReceiveRealtime, m_bAcceptedReceiveReliable, realtime, reliable);
}

// Called by accept() before the new transport's receiver starts.
void EUDPTransport::handOnAllowedModes(EUDPTransport* pPeer) const {
    pPeer->m_bAllowSendRealtime.store(m_bAcceptedSendRealtime.load());
    pPeer->m_bAllowSendReliable.store(m_bAcceptedSendReliable.load());
    pPeer->m_bAllowReceiveRealtime.store(m_bAcceptedReceiveRealtime.load());
    pPeer->m_bAllowReceiveReliable.store(m_bAcceptedReceiveReliable.load());
}

// setSendMode changes how the peer sends, so this side receives in that mode afterwards.
bool EUDPTransport::setSendMode(EConnMode mode) {
    const std::uint8_t requested = requestedLetter(mode);
    sendPacket(MOD, tarn::packModeWord({requested, LEAVE, LEAVE, LEAVE}), 0);
    if (m_modeSem.take(ANSWER_WAIT_MS) != 0) {
        logLine(eError) << "failed to set send mode (timeout)";
        return false;
    }
    const tarn::EUDPModeBytes answer = tarn::unpackModeWord(m_modeAck.load());
    std::int32_t peerSend = modeByte(answer, 1);
    if (requested != LEAVE && static_cast<std::int8_t>(requested) != peerSend) {
        logLine(eError) << "failed to set send mode (peer refused)";
        return false;
    }
    m_receiveMode.store(modeFromByte(peerSend));
    m_sendMode.store(modeFromByte(modeByte(answer, 3)));
    return true;
}

// setReceiveMode changes how the peer receives, so this side sends in that mode afterwards.
bool EUDPTransport::setReceiveMode(EConnMode mode) {
    const std::uint8_t requested = requestedLetter(mode);
    sendPacket(MOD, tarn::packModeWord({LEAVE, LEAVE, requested, LEAVE}), 0);
    if (m_modeSem.take(ANSWER_WAIT_MS) != 0) {
        logLine(eError) << "failed to set receive mode (timeout)";
        return false;
    }
    const tarn::EUDPModeBytes answer = tarn::unpackModeWord(m_modeAck.load());
    std::int32_t peerReceive = modeByte(answer, 3);
    if (requested != LEAVE && static_cast<std::int8_t>(requested) != peerReceive) {
        logLine(eError) << "failed to set receive mode (peer refused)";
        return false;
    }
    m_sendMode.store(modeFromByte(peerReceive));
    m_receiveMode.store(modeFromByte(modeByte(answer, 1)));
    return true;
}

bool EUDPTransport::setWindowSize(uint windowSize) {
    sendPacket(WIN, windowSize, 0);
    if (m_windowSem.take(ANSWER_WAIT_MS) != 0) {
        logLine(eError) << "failed to set window size (timeout)";
        return false;
    }
    std::uint32_t granted = m_windowAck.load();
    if (granted != windowSize) {
        logLine(eError) << "failed to set window size (tried " << windowSize << ", got " << granted << ")";
        return false;
    }
    return true;
}
