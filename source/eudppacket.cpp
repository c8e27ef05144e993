// EUDP datagrams: header layout, command names, copying and validation.
#include <eudppacket.h>

#include <cstring>

#include <logging/logging.h>

#include "byteorder.h"

using Corvane::Utilities::Logging::LogManager;

const unsigned int EUDPPacket::HEADER_LENGTH;
const unsigned int EUDPPacket::MAX_PAYLOAD;
const unsigned int EUDPPacket::MAX_LENGTH;
const std::uint8_t EUDPPacket::VERSION;
const unsigned int EUDPPacket::VALUE_OFFSET;

const char* const EUDPCommand[10] = {"NOP", "ACK", "NAK", "CON", "DIS", "CMD", "MOD", "MAK", "WIN", "WAK"};

namespace {
const unsigned int COMMAND_OFFSET = 1;
const unsigned int COMMAND_LENGTH = 3;
}  // namespace

EUDPPacket::EUDPPacket() : m_pHeader(m_buffer), m_buffer(), m_length(HEADER_LENGTH) {
    m_pHeader[0] = VERSION;
    setCommand(NOP);
    setValue(0);
}

EUDPPacket::EUDPPacket(EEUDPCommand command) : m_pHeader(m_buffer), m_buffer(), m_length(HEADER_LENGTH) {
    m_pHeader[0] = VERSION;
    setCommand(command);
    setValue(0);
}

EUDPPacket::EUDPPacket(const EUDPPacket& other) : m_pHeader(m_buffer), m_length(other.m_length) {
    // Only the datagram's own bytes travel; the rest of the buffer is never looked at.
    std::memcpy(m_buffer, other.m_buffer, m_length <= MAX_LENGTH ? m_length : MAX_LENGTH);
}

EUDPPacket& EUDPPacket::operator=(const EUDPPacket& other) {
    if (this != &other) {
        m_length = other.m_length;
        std::memcpy(m_buffer, other.m_buffer, m_length <= MAX_LENGTH ? m_length : MAX_LENGTH);
        m_pHeader = m_buffer;
    }
    return *this;
}

void EUDPPacket::setCommand(EEUDPCommand command) {
    std::memcpy(m_pHeader + COMMAND_OFFSET, EUDPCommand[command], COMMAND_LENGTH);
}

EEUDPCommand EUDPPacket::getCommand() const {
    for (int i = 0; i < EUDP_UNKNOWN_COMMAND; ++i) {
        if (std::memcmp(m_pHeader + COMMAND_OFFSET, EUDPCommand[i], COMMAND_LENGTH) == 0) {
            return static_cast<EEUDPCommand>(i);
        }
    }
    return static_cast<EEUDPCommand>(EUDP_UNKNOWN_COMMAND);
}

std::uint32_t EUDPPacket::getValue() const {
    return tarn::loadLe32(m_pHeader + VALUE_OFFSET);
}

void EUDPPacket::setValue(std::uint32_t value) {
    tarn::storeLe32(m_pHeader + VALUE_OFFSET, value);
}

bool EUDPPacket::validatePacket(std::uint32_t length) const {
    m_length = length;
    // The version byte is looked at before the length: a short datagram whose first byte is wrong
    // is reported as a wrong version, even when that byte is left over from an earlier datagram.
    if (m_pHeader[0] != VERSION) {
        LogManager::getInstance().getCategory("TARN").getWarnStream()
            << "TARN/EUDP: packet validation failed: wrong version";
        return false;
    }
    if (length <= HEADER_LENGTH - 1) {
        LogManager::getInstance().getCategory("TARN").getWarnStream()
            << "TARN/EUDP: packet validation failed: header too short";
        return false;
    }
    if (getCommand() == static_cast<EEUDPCommand>(EUDP_UNKNOWN_COMMAND)) {
        LogManager::getInstance().getCategory("TARN").getWarnStream()
            << "TARN/EUDP: packet validation failed: unknown command";
        return false;
    }
    return true;
}

void EUDPPacket::setData(const unsigned char* data, unsigned int length) {
    if (length > MAX_PAYLOAD) {
        LogManager::getInstance().getCategory("TARN").getErrorStream()
            << "TARN/EUDP: packet length (" << length << ") exceeds max length (" << MAX_PAYLOAD << ")";
        return;
    }
    if (length > 0) {
        std::memcpy(m_pHeader + HEADER_LENGTH, data, length);
    }
    m_length = length + HEADER_LENGTH;
}
