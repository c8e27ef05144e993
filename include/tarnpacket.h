// One TARN message: a 4-byte header (version, command letter, body length) and a body of
// NUL-terminated names and encoded values, 1492 bytes at most in all.
//
// A packet is built on the stack of the thread that sends it (construct with a command, append the
// command's fields in order, send `m_length` bytes from `m_buffer`), or kept by a receive loop and
// refilled for each message (receive into `m_buffer`, set `m_readPos` to HEADER_LENGTH,
// validatePacket(n), then read the fields in order). The fields are public because the connection
// works on them directly. A packet holds no heap memory, takes no lock and belongs to one thread; it
// is never copied (its header pointer points into its own buffer).
//
// Failures are logged to the "TARN" category (appends and reads on the error stream, validation on
// the warning stream) and answered with false or an empty result.
#ifndef TARN_TARNPACKET_H
#define TARN_TARNPACKET_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <parameterlist.h>
#include <tarn_export.h>

// Command letters of the header's `command` byte.
enum ETARNCommand {
    CMD_CALL_FUNCTION = 'F',  // client: function identifier, parameter list
    CMD_SUBSCRIBE = 'S',      // client: name
    CMD_TRIGGER = 'T',        // server: name, value
    CMD_UPDATE_STATE = 'U',   // server: name, value
    CMD_UNSUBSCRIBE = 'X'     // client: name
};

// The header as it lies at the start of the packet buffer: the version, the command letter and the
// body length, a 16-bit number in the wire's little-endian byte order. m_pHeader points at the
// header inside the packet's own buffer, so `m_pHeader->length` is bytes 2 and 3 of the packet.
struct TARNHeader {
    std::uint8_t version;
    std::uint8_t command;
    std::uint16_t length;

    // The same field through accessors, for code written when the length was a pair of bytes.
    std::uint16_t getLength() const { return length; }
    void setLength(std::uint16_t value) { length = value; }
};

static_assert(sizeof(TARNHeader) == 4, "the header is the packet's first 4 bytes");
static_assert(offsetof(TARNHeader, version) == 0 && offsetof(TARNHeader, command) == 1 &&
                  offsetof(TARNHeader, length) == 2,
              "version, command and length lie at bytes 0, 1 and 2");
// The length field holds the number in the host's order, which is the wire's order only on a
// little-endian host.
#if defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "TARNHeader::length overlays a little-endian wire field: a little-endian host is needed"
#endif

class TARN_EXPORT TARNPacket {
public:
    static const unsigned int HEADER_LENGTH = 4;
    static const unsigned int MAX_LENGTH = 1492;
    static const std::uint8_t VERSION = 1;

    TARNPacket();                               // version 1, command 0, empty body
    explicit TARNPacket(ETARNCommand command);  // version 1, the command, empty body
    TARNPacket(const TARNPacket&) = delete;
    TARNPacket& operator=(const TARNPacket&) = delete;

    bool appendString(const std::string& text);
    bool appendData(const char* data, unsigned int count);
    bool appendParamValue(const ParameterValue& value);
    bool appendParamList(const ParameterList& list);

    std::string getString() const;
    void getParameterValue(ParameterValue& value) const;
    void getParameterList(ParameterList& list) const;

    // Records the received length in m_length and checks version, header length and body length.
    bool validatePacket(unsigned int receivedLength) const;

    alignas(TARNHeader) std::uint8_t m_buffer[MAX_LENGTH];
    mutable std::uint32_t m_length;  // write position while building; received length once validated
    TARNHeader* m_pHeader;           // the header at the start of m_buffer
    mutable std::uint32_t m_readPos;
};

#endif  // TARN_TARNPACKET_H
