#include <tarnpacket.h>

#include <logging/logging.h>

#include <cstring>
#include <new>

#include "byteorder.h"

namespace {

Corvane::Utilities::Logging::LogCategory tarnCategory() {
    return Corvane::Utilities::Logging::LogManager::getInstance().getCategory("TARN");
}

// The body length in the header's bytes 2 and 3, least significant byte first. The header object
// lives in the buffer, so these are the bytes of m_pHeader->length.
void storeBodyLength(std::uint8_t* buffer, std::uint32_t length) {
    tarn::storeLe16(buffer + 2, static_cast<std::uint16_t>(length - TARNPacket::HEADER_LENGTH));
}

std::uint16_t loadBodyLength(const std::uint8_t* buffer) {
    return tarn::loadLe16(buffer + 2);
}

}  // namespace

const unsigned int TARNPacket::HEADER_LENGTH;
const unsigned int TARNPacket::MAX_LENGTH;
const std::uint8_t TARNPacket::VERSION;

// The buffer starts zeroed, so that a read past the body of a packet that never received anything
// finds empty text rather than whatever the stack held; a reused receive packet keeps its stale
// bytes from one message to the next. The header object is created in the buffer's first bytes.
TARNPacket::TARNPacket()
    : m_buffer(),
      m_length(HEADER_LENGTH),
      m_pHeader(new (m_buffer) TARNHeader{VERSION, 0, 0}),
      m_readPos(HEADER_LENGTH) {}

TARNPacket::TARNPacket(ETARNCommand command)
    : m_buffer(),
      m_length(HEADER_LENGTH),
      m_pHeader(new (m_buffer) TARNHeader{VERSION, static_cast<std::uint8_t>(command & 0xFF), 0}),
      m_readPos(HEADER_LENGTH) {}

// Room left for the body. A packet whose m_length was set past the buffer by a received length
// has none: appending to it could only write outside the buffer.
static std::uint32_t roomLeft(std::uint32_t length) {
    return length < TARNPacket::MAX_LENGTH ? TARNPacket::MAX_LENGTH - length : 0;
}

bool TARNPacket::appendString(const std::string& text) {
    const std::uint32_t room = roomLeft(m_length);
    const std::size_t needed = text.size() + 1;
    if (needed > room) {
        tarnCategory().getErrorStream()
            << "TARN: TARN packet length (" << needed << ") exceeds max length (" << room << ")";
        return false;
    }
    if (!text.empty()) {
        std::memcpy(m_buffer + m_length, text.data(), text.size());
    }
    m_buffer[m_length + text.size()] = 0;
    m_length += static_cast<std::uint32_t>(needed);
    storeBodyLength(m_buffer, m_length);
    return true;
}

bool TARNPacket::appendData(const char* data, unsigned int count) {
    const std::uint32_t room = roomLeft(m_length);
    // Raw data asks for one spare byte of room, like a string's NUL, though none is written. A count
    // whose spare byte wraps the sum to 0 would copy 4 GiB: refused like any other that does not fit.
    const std::uint32_t needed = static_cast<std::uint32_t>(count) + 1u;
    if (needed > room || needed == 0) {
        tarnCategory().getErrorStream()
            << "TARN: TARN packet length (" << needed << ") exceeds max length (" << room << ")";
        return false;
    }
    if (count > 0) {
        std::memcpy(m_buffer + m_length, data, count);
    }
    m_length += count;
    storeBodyLength(m_buffer, m_length);
    return true;
}

bool TARNPacket::appendParamValue(const ParameterValue& value) {
    const std::uint32_t room = roomLeft(m_length);
    char* at = reinterpret_cast<char*>(m_buffer + (room > 0 ? m_length : MAX_LENGTH));
    const int written = value.getBinaryValue(at, static_cast<int>(room));
    m_length += static_cast<std::uint32_t>(written);
    storeBodyLength(m_buffer, m_length);
    return written != 0;
}

bool TARNPacket::appendParamList(const ParameterList& list) {
    const std::uint32_t room = roomLeft(m_length);
    char* at = reinterpret_cast<char*>(m_buffer + (room > 0 ? m_length : MAX_LENGTH));
    const int written = list.getBinary(at, static_cast<int>(room));
    m_length += static_cast<std::uint32_t>(written);
    storeBodyLength(m_buffer, m_length);
    return written != 0;
}

std::string TARNPacket::getString() const {
    // The NUL is looked for within the buffer only; text that runs to the buffer's end without one,
    // or a read position at or past it, is unterminated.
    const void* nul = nullptr;
    if (m_readPos < MAX_LENGTH) {
        nul = std::memchr(m_buffer + m_readPos, 0, MAX_LENGTH - m_readPos);
    }
    if (nul == nullptr) {
        tarnCategory().getErrorStream() << "TARN: unterminated string in packet";
        return std::string();
    }
    const char* text = reinterpret_cast<const char*>(m_buffer + m_readPos);
    const std::uint32_t n = static_cast<std::uint32_t>(static_cast<const char*>(nul) - text);
    // Unsigned on purpose: once m_readPos reaches m_length the right side wraps and a read past the
    // body returns what lies in the buffer there.
    if (n > m_length - m_readPos - 1u) {
        tarnCategory().getErrorStream() << "TARN: unterminated string in packet";
        return std::string();
    }
    m_readPos += n + 1;
    return std::string(text, n);
}

// The decoders see the body's remaining size (negative once the read position has passed the
// body's end) and may read on into what is left of the buffer, stale bytes included, never further.
static int sizeFrom(std::uint32_t length, std::uint32_t readPos) {
    return static_cast<int>(static_cast<std::int32_t>(length - readPos));
}

void TARNPacket::getParameterValue(ParameterValue& value) const {
    const std::uint32_t available = roomLeft(m_readPos);
    const char* at = reinterpret_cast<const char*>(m_buffer + (available > 0 ? m_readPos : MAX_LENGTH));
    const int consumed =
        value.createFromBinary(at, sizeFrom(m_length, m_readPos), static_cast<int>(available));
    m_readPos += static_cast<std::uint32_t>(consumed);
    if (consumed == 0) {
        tarnCategory().getErrorStream() << "TARN: failed to parse parameter value";
    }
}

void TARNPacket::getParameterList(ParameterList& list) const {
    const std::uint32_t available = roomLeft(m_readPos);
    const char* at = reinterpret_cast<const char*>(m_buffer + (available > 0 ? m_readPos : MAX_LENGTH));
    const int consumed =
        list.createFromBinary(at, sizeFrom(m_length, m_readPos), static_cast<int>(available));
    m_readPos += static_cast<std::uint32_t>(consumed);
    if (consumed == 0) {
        tarnCategory().getErrorStream() << "TARN: failed to parse parameter list";
    }
}

bool TARNPacket::validatePacket(unsigned int receivedLength) const {
    m_length = receivedLength;
    // The version is looked at first, even when too few bytes arrived to hold a header.
    if (m_pHeader->version != VERSION) {
        tarnCategory().getWarnStream() << "TARN: packet validation failed: wrong version";
        return false;
    }
    if (receivedLength <= 3) {
        tarnCategory().getWarnStream() << "TARN: packet validation failed: header too short";
        return false;
    }
    if (static_cast<std::uint32_t>(loadBodyLength(m_buffer)) + HEADER_LENGTH != receivedLength) {
        tarnCategory().getWarnStream() << "TARN: packet validation failed: wrong packet size";
        return false;
    }
    return true;
}
